#include "python/containers.hpp"

namespace quernbrook::python {

Object dict_of(PyObject* mapping) {
  return Object::steal(calling_python(
      [&] { return PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), mapping); }));
}

Object dict_item(PyObject* dict, PyObject* key) {
  // A key with code of its own may change the dict, so that the value is not borrowed for long.
  Object value = Object::borrow(calling_python([&] { return PyDict_GetItemWithError(dict, key); }));
  if (value.empty() && PyErr_Occurred() != nullptr) throw ErrorSet{};
  return value;
}

}  // namespace quernbrook::python
