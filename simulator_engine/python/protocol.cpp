#include "python/protocol.hpp"

#include "python/error.hpp"

namespace quernbrook::python {

Object optional_attribute(PyObject* object, PyObject* name) {
  PyObject* value = nullptr;
#if PY_VERSION_HEX >= 0x030D0000
  checked(entered([&] { return PyObject_GetOptionalAttr(object, name, &value); }));
#else
  // Spares the making of an AttributeError that nobody sees.
  checked(entered([&] { return _PyObject_LookupAttr(object, name, &value); }));
#endif
  return Object::own_or_empty(value);
}

Object attribute_or(PyObject* object, PyObject* name, PyObject* fallback) {
  Object value = optional_attribute(object, name);
  return value.empty() ? Object::share(fallback) : value;
}

bool compare(PyObject* left, PyObject* right, int operation) {
  if (PyUnicode_CheckExact(left) && PyUnicode_CheckExact(right) && operation == Py_EQ &&
      PyUnicode_GET_LENGTH(left) != PyUnicode_GET_LENGTH(right)) {
    return false;
  }
  return truth(Object::own(entered([&] { return PyObject_RichCompare(left, right, operation); })));
}

Object larger(const Object& first, const Object& second) {
  if (first.get() == second.get() && PyLong_CheckExact(first.get())) return first;
  return compare(second, first, Py_GT) ? second : first;
}

Object dict_item(PyObject* dict, PyObject* key) {
  PyObject* value = PyDict_GetItemWithError(dict, key);
  if (value == nullptr && PyErr_Occurred() != nullptr) throw ErrorSet{};
  return Object::share(value);
}

Object next(PyObject* iterator) {
  Object value = Object::own_or_empty(entered([&] { return PyIter_Next(iterator); }));
  if (value.empty() && PyErr_Occurred() != nullptr) throw ErrorSet{};
  return value;
}

std::pair<Object, Object> unpack_pair(PyObject* pair) {
  if (PyTuple_CheckExact(pair) && PyTuple_GET_SIZE(pair) == 2) {
    return {Object::share(PyTuple_GET_ITEM(pair, 0)), Object::share(PyTuple_GET_ITEM(pair, 1))};
  }
  const Object items = iterator(pair);
  Object values[2];
  for (int count = 0; count < 2; ++count) {
    values[count] = next(items);
    if (values[count].empty()) {
      PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", count);
      throw ErrorSet{};
    }
  }
  if (!next(items).empty()) raise_text(PyExc_ValueError, "too many values to unpack (expected 2)");
  return {std::move(values[0]), std::move(values[1])};
}

Py_ssize_t index_value(PyObject* object) {
  const Py_ssize_t value = PyNumber_AsSsize_t(object, PyExc_OverflowError);
  if (value == -1 && PyErr_Occurred() != nullptr) throw ErrorSet{};
  return value;
}

double as_double(PyObject* object) {
  if (PyFloat_CheckExact(object)) return PyFloat_AS_DOUBLE(object);
  // The constructor, unlike PyFloat_AsDouble, also reads texts.
  const Object number =
      Object::own(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyFloat_Type), object));
  return PyFloat_AS_DOUBLE(number.get());
}

bool has_plain_attribute(PyTypeObject* type, PyObject* name) {
  if (type->tp_getattro != PyObject_GenericGetAttr) return false;
  PyObject* on_type = find_on_type(type, name);
  return on_type == nullptr || Py_TYPE(on_type)->tp_descr_get == nullptr;
}

Object plain_attribute(PyObject* object, PyObject* name) {
  PyTypeObject* type = Py_TYPE(object);
  if (type->tp_dictoffset <= 0 || !has_plain_attribute(type, name)) return {};
  PyObject* attributes = dictionary_of(object);
  return attributes == nullptr ? Object() : dict_item(attributes, name);
}

PyObject* find_on_type(PyTypeObject* type, PyObject* name) {
#if PY_VERSION_HEX < 0x030E0000
  return _PyType_Lookup(type, name);
#else
  PyObject* bases = type->tp_mro;
  for (Py_ssize_t place = 0; place < PyTuple_GET_SIZE(bases); ++place) {
    auto* base = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(bases, place));
    const Object names = Object::own(PyType_GetDict(base));
    PyObject* entry = PyDict_GetItemWithError(names, name);
    if (entry != nullptr) return entry;
    PyErr_Clear();
  }
  return nullptr;
#endif
}

}  // namespace quernbrook::python
