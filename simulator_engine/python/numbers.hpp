#pragma once

#include "python/calling_python.hpp"
#include "python/exact_types.hpp"
#include "python/object.hpp"

// Numbers, and the operators of numbers and arrays.
namespace quernbrook::python {

inline Object integer(Py_ssize_t value) {
  return Object::steal(calling_python([&] { return PyLong_FromSsize_t(value); }));
}
inline Object real_number(double value) {
  return Object::steal(calling_python([&] { return PyFloat_FromDouble(value); }));
}
/// `id(object)`.
inline Object identity(PyObject* object) {
  return Object::steal(calling_python([&] { return PyLong_FromVoidPtr(object); }));
}

/// `operator.index(object)` as a machine integer; OverflowError beyond its range.
Py_ssize_t index_value(PyObject* object);
/// `len(sequence[:stop])` of a sequence of that length, with a slice's errors.
Py_ssize_t length_of_slice(PyObject* stop, Py_ssize_t length);
/// The same as a C int; OverflowError beyond its range.
int int_value(PyObject* object);
/// The value of an exact int; -1 where it doesn't fit.
Py_ssize_t plain_index(PyObject* number);

/// The value of an exact int as a double; false for one beyond 64 bits.
bool small_integer(PyObject* number, double& value);

/// `int(object)`.
Object as_integer(PyObject* object);
/// `float(object)`.
double as_double(PyObject* object);

/// A binary operator of the object protocol.
template <auto Operator>
Object binary_operation(PyObject* left, PyObject* right) {
  return Object::steal(calling_python([&] { return Operator(left, right); }));
}
inline constexpr auto plus = binary_operation<PyNumber_Add>;
inline constexpr auto minus = binary_operation<PyNumber_Subtract>;
inline constexpr auto times = binary_operation<PyNumber_Multiply>;
inline constexpr auto over = binary_operation<PyNumber_TrueDivide>;
inline constexpr auto both = binary_operation<PyNumber_And>;
inline constexpr auto either = binary_operation<PyNumber_Or>;

inline Object negative(PyObject* number) {
  return Object::steal(calling_python([&] { return PyNumber_Negative(number); }));
}
/// `~mask`.
inline Object inverse(PyObject* mask) {
  return Object::steal(calling_python([&] { return PyNumber_Invert(mask); }));
}

}  // namespace quernbrook::python
