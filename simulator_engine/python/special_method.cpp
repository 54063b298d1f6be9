#include "python/special_method.hpp"

#include "python/calling_python.hpp"
#include "python/dict_insides.hpp"

namespace quernbrook::python {

Object special_method(PyObject* object, PyObject* name) {
  PyTypeObject* type = Py_TYPE(object);
  Object method = find_on_type(type, name);
  if (method.empty()) return method;
  const descrgetfunc bind = Py_TYPE(method.get())->tp_descr_get;
  if (bind == nullptr) return method;
  return Object::steal(
      calling_python([&] { return bind(method, object, reinterpret_cast<PyObject*>(type)); }));
}

}  // namespace quernbrook::python
