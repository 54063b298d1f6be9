#include "python/text.hpp"

#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::python {

Object formatted(PyObject* object) {
  if (PyUnicode_CheckExact(object)) return Object::borrow(object);
  return Object::steal(calling_python([&] { return PyObject_Format(object, nullptr); }));
}

Object type_name(PyObject* object) {
  return attribute(reinterpret_cast<PyObject*>(Py_TYPE(object)), as_text("__name__"));
}

Object as_text(std::string_view text) {
  return Object::steal(calling_python([&] {
    return PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
  }));
}

Object decoded(std::string_view bytes) {
  return Object::steal(calling_python([&] {
    return PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "replace");
  }));
}

Object interned(const char* text) {
  return Object::steal(calling_python([&] { return PyUnicode_InternFromString(text); }));
}

Object appended(PyObject* text, PyObject* end) {
  return Object::steal(calling_python([&] { return PyUnicode_Concat(text, end); }));
}

Object join(const char* separator, PyObject* parts) {
  const Object between = as_text(separator);
  return Object::steal(calling_python([&] { return PyUnicode_Join(between, parts); }));
}

Object concatenate(const std::vector<Object>& parts) {
  const Object list = new_list();
  for (const Object& part : parts) append(list, part);
  return join("", list);
}

}  // namespace quernbrook::python
