#include "python/array.hpp"

#include <algorithm>

namespace quernbrook::python {

bool is_double_array(PyObject* object) {
  if (!PyArray_CheckExact(object)) return false;
  PyArrayObject* array = as_array(object);
  return PyArray_TYPE(array) == NPY_DOUBLE && PyArray_ISBEHAVED_RO(array);
}

Object zeros(npy_intp rows, npy_intp columns) {
  npy_intp shape[] = {rows, columns};
  return Object::own(PyArray_ZEROS(2, shape, NPY_DOUBLE, 0));
}

Object uninitialised(npy_intp rows, npy_intp columns) {
  npy_intp shape[] = {rows, columns};
  return Object::own(PyArray_SimpleNew(2, shape, NPY_DOUBLE));
}

Object empty_vector(npy_intp size) { return Object::own(PyArray_SimpleNew(1, &size, NPY_DOUBLE)); }

Object filled_vector(npy_intp size, double value) {
  Object vector = empty_vector(size);
  std::fill_n(doubles(vector), size, value);
  return vector;
}

Object vector_view(PyObject* owner, double* data, npy_intp size) {
  Object view = Object::own(PyArray_New(&PyArray_Type, 1, &size, NPY_DOUBLE, nullptr, data, 0,
                                        NPY_ARRAY_CARRAY, nullptr));
  checked(PyArray_SetBaseObject(as_array(view), Py_NewRef(owner)));
  return view;
}

}  // namespace quernbrook::python
