#pragma once

#include "python/object.hpp"

namespace quernbrook::python {

/// Makes a class as a class statement in `module` would, with `object` as its base. `methods` may
/// hold special methods such as `__init__`; their states are that of the module.
Object make_class(PyObject* module, const char* name, const char* docstring, PyMethodDef* methods);

}  // namespace quernbrook::python
