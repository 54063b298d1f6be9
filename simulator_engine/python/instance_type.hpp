#pragma once

#include "python/object.hpp"

// Classes that a Python programmer cannot tell from ones made by a class statement: attributes
// in an ordinary dictionary, weak references, subclasses, special methods that subclasses
// override and inspect.signature reads.
namespace quernbrook::python {

/// Makes a class with `object` as its base. `methods` may hold special methods such as `__init__`;
/// they take effect as in a class statement. The class belongs to `module` and carries its name;
/// `qualified_name` has a module in front, as type specs demand, and lives as long as the class.
Object make_class(PyObject* module, const char* qualified_name, const char* docstring,
                  PyMethodDef* methods);

}  // namespace quernbrook::python
