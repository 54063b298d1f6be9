#pragma once

#include <initializer_list>

#include "python/object.hpp"

namespace quernbrook::python {

/// A generator function of one parameter, which yields the attributes of that name one after the
/// other, each read when it is asked for. `owner` is the class that it is a method of.
///
/// Only the interpreter's own compiler makes generators: it is given the function as a syntax tree.
Object attribute_generator(PyObject* module, const char* owner, const char* name,
                           std::initializer_list<const char*> attributes);

}  // namespace quernbrook::python
