#include "python/numbers.hpp"

#include "python/containers.hpp"
#include "python/error.hpp"

namespace quernbrook::python {

Py_ssize_t index_value(PyObject* object) {
  const Py_ssize_t value =
      calling_python([&] { return PyNumber_AsSsize_t(object, PyExc_OverflowError); });
  if (value == -1 && PyErr_Occurred() != nullptr) throw ErrorSet{};
  return value;
}

Py_ssize_t length_of_slice(PyObject* stop, Py_ssize_t length) {
  const Object part = slice(nullptr, stop);
  Py_ssize_t begin = 0;
  Py_ssize_t end = 0;
  Py_ssize_t step = 1;
  checked(calling_python([&] { return PySlice_Unpack(part, &begin, &end, &step); }));
  return calling_python([&] { return PySlice_AdjustIndices(length, &begin, &end, step); });
}

int int_value(PyObject* object) {
  const Object number = Object::steal(calling_python([&] { return PyNumber_Index(object); }));
  int overflow = 0;
  const long value = calling_python([&] { return PyLong_AsLongAndOverflow(number, &overflow); });
  if (overflow != 0 || value != static_cast<int>(value)) {
    raise_text(PyExc_OverflowError, "value too large to convert to int");
  }
  return static_cast<int>(value);
}

Py_ssize_t plain_index(PyObject* number) {
  const Py_ssize_t value = calling_python([&] { return PyLong_AsSsize_t(number); });
  if (value == -1) clear_error();
  return value;
}

bool small_integer(PyObject* number, double& value) {
  int overflow = 0;
  value = static_cast<double>(
      calling_python([&] { return PyLong_AsLongLongAndOverflow(number, &overflow); }));
  return overflow == 0;
}

Object as_integer(PyObject* object) {
  return Object::steal(calling_python(
      [&] { return PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyLong_Type), object); }));
}

double as_double(PyObject* object) {
  if (is_exact_float(object)) return float_value(object);
  // The constructor, unlike PyFloat_AsDouble, also reads texts.
  const Object number = Object::steal(calling_python(
      [&] { return PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyFloat_Type), object); }));
  return float_value(number);
}

}  // namespace quernbrook::python
