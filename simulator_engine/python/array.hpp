#pragma once

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

/// New C-ordered float64 arrays.
Object zeros(npy_intp rows, npy_intp columns);
Object uninitialised(npy_intp rows, npy_intp columns);
Object empty_vector(npy_intp size);
Object filled_vector(npy_intp size, double value);

/// A writable one-dimensional view of `size` doubles at `data`, which `owner` keeps alive.
Object vector_view(PyObject* owner, double* data, npy_intp size);

/// `view[...] = value`, with all of NumPy's rules for what may be assigned.
inline void assign(PyObject* view, PyObject* value) {
  checked(PyArray_CopyObject(as_array(view), value));
}

}  // namespace quernbrook::python
