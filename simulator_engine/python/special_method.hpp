#pragma once

#include "python/object.hpp"

namespace quernbrook::python {

/// A special method, found on the object's type as the interpreter finds them, and bound to the
/// object; empty if the type has none.
Object special_method(PyObject* object, PyObject* name);

}  // namespace quernbrook::python
