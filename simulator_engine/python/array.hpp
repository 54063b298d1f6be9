#pragma once

#include "kernels/matrix_view.hpp"
#include "python/calling_python.hpp"
#include "python/numpy_api.hpp"
#include "python/object.hpp"

namespace quernbrook::python {

inline PyArrayObject* as_array(PyObject* object) {
  return reinterpret_cast<PyArrayObject*>(object);
}
inline PyArrayObject_fields* array_fields(PyObject* object) {
  return reinterpret_cast<PyArrayObject_fields*>(object);
}
inline PyObject* array_type() { return reinterpret_cast<PyObject*>(&PyArray_Type); }
/// `isinstance(object, numpy.ndarray)` by the object's own type, which nobody can override.
inline bool is_array(PyObject* object) { return PyArray_Check(object); }
inline bool is_numpy_float64(PyObject* object) { return Py_TYPE(object) == &PyDoubleArrType_Type; }

inline int dimensions(PyObject* array) { return PyArray_NDIM(as_array(array)); }
inline npy_intp dimension(PyObject* array, int axis) { return PyArray_DIM(as_array(array), axis); }
inline npy_intp cell_count(PyObject* array) { return PyArray_SIZE(as_array(array)); }
bool have_same_shape(PyObject* left, PyObject* right);

/// An ndarray proper (no subclass) of native, aligned doubles, of any order and stride.
bool is_double_array(PyObject* object);
inline bool is_double_matrix(PyObject* object) {
  return is_double_array(object) && dimensions(object) == 2;
}
/// The same with all numbers in one C-ordered block.
inline bool is_contiguous_double_array(PyObject* object) {
  return is_double_array(object) && PyArray_IS_C_CONTIGUOUS(as_array(object));
}
/// A C-ordered matrix of doubles with `columns` columns that can be written to.
bool is_writeable_block(PyObject* object, npy_intp columns);
/// NumPy's own float64 and not one of the host's, which may carry metadata.
bool has_plain_dtype(PyObject* array);
inline double* doubles(PyObject* array) {
  return static_cast<double*>(PyArray_DATA(as_array(array)));
}
/// The cells of an array that is_double_matrix().
kernels::MatrixView view_of(PyObject* matrix);
/// The row of such an array with `columns` columns, which need be none: null cells for every other
/// object and row, where NumPy's own indexing and assignment have the say.
kernels::RowView find_row(PyObject* matrix, npy_intp row, npy_intp columns);

/// An ndarray proper with two dimensions, of any dtype.
inline bool is_plain_matrix(PyObject* object) {
  return PyArray_CheckExact(object) && dimensions(object) == 2;
}
inline bool is_plain_matrix(PyObject* object, npy_intp rows, npy_intp columns) {
  return is_plain_matrix(object) && dimension(object, 0) == rows && dimension(object, 1) == columns;
}
inline bool is_plain_array_of_rows(PyObject* object, npy_intp rows) {
  return PyArray_CheckExact(object) && dimensions(object) >= 1 && dimension(object, 0) == rows;
}

/// An ndarray proper with two dimensions of numbers that NumPy makes doubles of without a word.
bool is_number_matrix(PyObject* object);

/// A float64 array as is_double_array() wants it: itself, or a copy where it is odd in any way.
Object aligned(const Object& array);

/// A size of a new array, by NumPy's rules for what may be one and with its errors.
npy_intp array_size(PyObject* size);
/// New C-ordered float64 arrays.
Object zeros(npy_intp rows, npy_intp columns);
Object uninitialised(npy_intp rows, npy_intp columns);
Object uninitialised_like(PyObject* array);
Object empty_vector(npy_intp size);
Object filled_vector(npy_intp size, double value);
/// `numpy.ones((rows, columns), dtype=numpy.uint8)`.
Object byte_ones(npy_intp rows, npy_intp columns);

/// `matrix[row]`, a view, of a two-dimensional array of doubles.
Object row_view(PyObject* matrix, npy_intp row);
/// `matrix[:count]`, a view, of a C-ordered matrix of doubles.
Object first_rows_view(PyObject* matrix, npy_intp count);
/// Rows of an is_number_matrix() as doubles, from `first` on, into C-ordered cells.
void copy_rows(PyObject* matrix, npy_intp first, npy_intp count, double* target);

/// False for a view that lies, wholly or in part, outside the memory of the array behind it, which
/// was resized since.
bool is_within_base(PyObject* view);

/// `view[...] = value`, with all of NumPy's rules for what may be assigned.
inline void assign(PyObject* view, PyObject* value) {
  checked(calling_python([&] { return PyArray_CopyObject(as_array(view), value); }));
}

/// The indices `[row, :]` and `[:, start:stop]`.
Object row_key(npy_intp row);
Object columns_key(PyObject* start, PyObject* stop);

}  // namespace quernbrook::python
