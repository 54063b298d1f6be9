#include "python/dict_insides.hpp"

#include "python/calling_python.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"

namespace quernbrook::python {

namespace {

/// Where an object whose type says so keeps its dictionary, if it has one yet.
PyObject** dictionary_of(PyObject* object) {
  return reinterpret_cast<PyObject**>(reinterpret_cast<char*>(object) +
                                      Py_TYPE(object)->tp_dictoffset);
}

}  // namespace

bool has_string_keys(PyObject* dict) {
#if PY_VERSION_HEX < 0x030B0000
  // A table shared by the instances of a class has no other keys.
  if (reinterpret_cast<PyDictObject*>(dict)->ma_values != nullptr) return true;
#endif
  Py_ssize_t place = 0;
  PyObject* key = nullptr;
  while (PyDict_Next(dict, &place, &key, nullptr) != 0) {
    if (!PyUnicode_CheckExact(key)) return false;
  }
  return true;
}

bool StringKeys::of(PyObject* dict) {
  if (!PyDict_CheckExact(dict)) return false;
#if PY_VERSION_HEX < 0x030C0000
  // No two states of any two dicts have the same number.
  const std::uint64_t version = reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
  if (dict != dict_ || version != version_) {
    has_string_keys_ = has_string_keys(dict);
    dict_ = dict;
    version_ = version;
  }
  return has_string_keys_;
#else
  return has_string_keys(dict);
#endif
}

Object find_on_type(PyTypeObject* type, PyObject* name) {
  return Object::borrow(calling_python([&] { return _PyType_Lookup(type, name); }));
}

bool have_same_entry(PyTypeObject* left, PyTypeObject* right, PyObject* name) {
  return find_on_type(left, name).get() == find_on_type(right, name).get();
}

bool has_ordinary_attribute(PyObject* object, PyObject* name) {
  return attempt({PyExc_AttributeError}, [&] {
    Object::steal(calling_python([&] { return PyObject_GenericGetAttr(object, name); }));
  });
}

bool has_plain_attribute(PyTypeObject* type, PyObject* name) {
  if (type->tp_getattro != PyObject_GenericGetAttr) return false;
  const Object on_type = find_on_type(type, name);
  return on_type.empty() || Py_TYPE(on_type.get())->tp_descr_get == nullptr;
}

bool has_plain_item(PyObject* object, PyObject* name) {
  PyTypeObject* type = Py_TYPE(object);
  if (type->tp_setattro != PyObject_GenericSetAttr) return false;
  const Object on_type = find_on_type(type, name);
  return on_type.empty() || Py_TYPE(on_type.get())->tp_descr_set == nullptr;
}

Object plain_attribute(PyObject* object, PyObject* name) {
  PyTypeObject* type = Py_TYPE(object);
  if (type->tp_dictoffset <= 0 || !has_plain_attribute(type, name)) return {};
  return own_attribute(object, name);
}

Object plain_or_class_attribute(PyObject* object, PyObject* name) {
  const Object type = Object::borrow(reinterpret_cast<PyObject*>(Py_TYPE(object)));
  Object on_type = find_on_type(Py_TYPE(object), name);
  // An odd key of the class's dictionary may have given the object another class.
  if (!has_plain_attribute(Py_TYPE(object), name) || type_of(object) != as_type(type)) return {};
  const Py_ssize_t offset = Py_TYPE(object)->tp_dictoffset;
  if (offset < 0) return {};
  const Object attributes = offset == 0 ? Object() : Object::borrow(*dictionary_of(object));
  if (attributes.empty()) return on_type;
  if (!has_string_keys(attributes)) return {};
  Object own = dict_item(attributes, name);
  return own.empty() ? on_type : own;
}

Object own_attribute(PyObject* object, PyObject* name) {
  // Foreign code may have given it another class since.
  if (Py_TYPE(object)->tp_dictoffset <= 0) return {};
  const Object attributes = Object::borrow(*dictionary_of(object));
  if (attributes.empty() || !has_string_keys(attributes)) return {};
  return dict_item(attributes, name);
}

}  // namespace quernbrook::python
