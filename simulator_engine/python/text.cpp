#include "python/text.hpp"

namespace quernbrook::python {

Object formatted(PyObject* object) {
  if (PyUnicode_CheckExact(object)) return Object::share(object);
  return Object::own(entered([&] { return PyObject_Format(object, nullptr); }));
}

Object type_name(PyObject* object) {
  return Object::own(
      PyObject_GetAttrString(reinterpret_cast<PyObject*>(Py_TYPE(object)), "__name__"));
}

Object join(const char* separator, PyObject* parts) {
  return Object::own(PyUnicode_Join(as_text(separator), parts));
}

Object concatenate(const std::vector<Object>& parts) {
  const Object list = Object::own(PyList_New(static_cast<Py_ssize_t>(parts.size())));
  for (std::size_t place = 0; place < parts.size(); ++place) {
    PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(place), Py_NewRef(parts[place].get()));
  }
  return join("", list);
}

}  // namespace quernbrook::python
