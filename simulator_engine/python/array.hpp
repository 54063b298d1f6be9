#pragma once

#include "python/finalization.hpp"
#include "python/numpy_api.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

inline PyArrayObject* as_array(PyObject* object) {
  return reinterpret_cast<PyArrayObject*>(object);
}
inline PyArrayObject_fields* array_fields(PyObject* object) {
  return reinterpret_cast<PyArrayObject_fields*>(object);
}

/// An ndarray proper (no subclass) of native, aligned doubles, of any order and stride.
bool is_double_array(PyObject* object);
/// The same with all numbers in one C-ordered block.
inline bool is_contiguous_double_array(PyObject* object) {
  return is_double_array(object) && PyArray_IS_C_CONTIGUOUS(as_array(object));
}
inline double* doubles(PyObject* array) {
  return static_cast<double*>(PyArray_DATA(as_array(array)));
}

/// An ndarray proper with two dimensions, of any dtype.
inline bool is_plain_matrix(PyObject* object) {
  return PyArray_CheckExact(object) && PyArray_NDIM(as_array(object)) == 2;
}
inline bool is_plain_matrix(PyObject* object, npy_intp rows, npy_intp columns) {
  return is_plain_matrix(object) && PyArray_DIM(as_array(object), 0) == rows &&
         PyArray_DIM(as_array(object), 1) == columns;
}

/// A float64 array as is_double_array() wants it: itself, or a copy where its memory is odd.
Object aligned(const Object& array);

/// New C-ordered float64 arrays.
Object zeros(npy_intp rows, npy_intp columns);
/// The same for arrays that are rarely looked at: a large one costs nothing until it is.
Object untouched_zeros(npy_intp rows, npy_intp columns);
Object uninitialised(npy_intp rows, npy_intp columns);
Object empty_vector(npy_intp size);
Object filled_vector(npy_intp size, double value);

/// `matrix[row]`, a view, of a two-dimensional array of doubles.
Object row_view(PyObject* matrix, npy_intp row);

/// `view[...] = value`, with all of NumPy's rules for what may be assigned.
inline void assign(PyObject* view, PyObject* value) {
  checked(entered([&] { return PyArray_CopyObject(as_array(view), value); }));
}

}  // namespace quernbrook::python
