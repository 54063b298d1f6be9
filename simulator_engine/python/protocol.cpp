#include "python/protocol.hpp"

#include "python/containers.hpp"
#include "python/error.hpp"

namespace quernbrook::python {

Object optional_attribute(PyObject* object, PyObject* name) {
  PyObject* value = nullptr;
#if PY_VERSION_HEX >= 0x030D0000
  checked(calling_python([&] { return PyObject_GetOptionalAttr(object, name, &value); }));
#else
  // Spares the making of an AttributeError that nobody sees.
  checked(calling_python([&] { return _PyObject_LookupAttr(object, name, &value); }));
#endif
  return Object::steal_or_empty(value);
}

Object attribute_or(PyObject* object, PyObject* name, PyObject* fallback) {
  Object value = optional_attribute(object, name);
  return value.empty() ? Object::borrow(fallback) : value;
}

bool compare(PyObject* left, PyObject* right, int operation) {
  if (is_exact_text(left) && is_exact_text(right) && operation == Py_EQ &&
      PyUnicode_GET_LENGTH(left) != PyUnicode_GET_LENGTH(right)) {
    return false;
  }
  return truth(comparison(left, right, operation));
}

Object larger(const Object& first, const Object& second) {
  if (first.get() == second.get() && is_exact_int(first)) return first;
  return compare(second, first, Py_GT) ? second : first;
}

Object smaller(const Object& first, const Object& second) {
  return compare(second, first, Py_LT) ? second : first;
}

Object next(PyObject* iterator) {
  Object value = Object::steal_or_empty(calling_python([&] { return PyIter_Next(iterator); }));
  if (value.empty() && PyErr_Occurred() != nullptr) throw ErrorSet{};
  return value;
}

std::pair<Object, Object> unpack_pair(PyObject* pair) {
  if (PyTuple_CheckExact(pair) && items_of(pair).size() == 2) {
    return {Object::borrow(items_of(pair)[0]), Object::borrow(items_of(pair)[1])};
  }
  const Object items = iterator(pair);
  Object values[2];
  for (int count = 0; count < 2; ++count) {
    values[count] = next(items);
    if (values[count].empty()) {
      raise_format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", count);
    }
  }
  if (!next(items).empty()) raise_text(PyExc_ValueError, "too many values to unpack (expected 2)");
  return {std::move(values[0]), std::move(values[1])};
}

}  // namespace quernbrook::python
