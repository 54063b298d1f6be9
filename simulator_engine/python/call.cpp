#include "python/call.hpp"

#include "python/dict_insides.hpp"

namespace quernbrook::python {

CallTarget::CallTarget(PyObject* callable, PyObject* call_name) : callable_(callable) {
  PyTypeObject* type = Py_TYPE(callable);
  if (PyType_HasFeature(type, Py_TPFLAGS_HAVE_VECTORCALL)) return;
  Object entry = find_on_type(type, call_name);
  if (!entry.empty() && PyFunction_Check(entry.get())) function_ = std::move(entry);
}

Object CallTarget::call(PyObject** arguments, std::size_t positional, PyObject* names) const {
  PyObject* target = callable_;
  if (!function_.empty()) {
    target = function_;
    *--arguments = callable_;
    ++positional;
  }
  return Object::steal_or_empty(calling_python([&] {
    return PyObject_Vectorcall(target, arguments, positional | PY_VECTORCALL_ARGUMENTS_OFFSET,
                               names);
  }));
}

}  // namespace quernbrook::python
