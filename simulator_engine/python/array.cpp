#include "python/array.hpp"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

#include "python/array_memory.hpp"

namespace quernbrook::python {

bool is_double_array(PyObject* object) {
  if (!PyArray_CheckExact(object)) return false;
  PyArrayObject* array = as_array(object);
  return PyArray_TYPE(array) == NPY_DOUBLE && PyArray_ISBEHAVED_RO(array);
}

Object aligned(const Object& array) {
  if (is_double_array(array)) return array;
  return Object::own(PyArray_FromArray(as_array(array), PyArray_DescrFromType(NPY_DOUBLE),
                                       NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY));
}

namespace {

/// An array over a block that is kept for the next one; empty where its size isn't worth it.
Object over_kept_block(npy_intp rows, npy_intp columns) {
  std::size_t count = 0;
  if (rows < 0 || columns < 0 || __builtin_mul_overflow(rows, columns, &count) ||
      count > SIZE_MAX / sizeof(double) || !is_kept_size(count * sizeof(double))) {
    return {};
  }
  std::unique_ptr<void, decltype(&give_back_block)> block(take_block(count * sizeof(double)),
                                                          give_back_block);
  npy_intp shape[] = {rows, columns};
  Object array = Object::own(PyArray_New(&PyArray_Type, 2, shape, NPY_DOUBLE, nullptr, block.get(),
                                         0, NPY_ARRAY_CARRAY, nullptr));
  own_block(array, block.get(), count * sizeof(double));
  block.release();
  return array;
}

}  // namespace

Object zeros(npy_intp rows, npy_intp columns) {
  if (Object array = over_kept_block(rows, columns); !array.empty()) {
    std::fill_n(doubles(array), rows * columns, 0.0);
    return array;
  }
  npy_intp shape[] = {rows, columns};
  return Object::own(PyArray_ZEROS(2, shape, NPY_DOUBLE, 0));
}

Object untouched_zeros(npy_intp rows, npy_intp columns) {
  constexpr std::size_t worth_pages = 64 * 1024;  // below, writing zeros is quicker
  const std::size_t size =
      static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns) * sizeof(double);
  if (rows < 0 || columns < 0 || size < worth_pages) return zeros(rows, columns);
  const auto give_back = [size](void* pages) { give_back_pages(pages, size); };
  std::unique_ptr<void, decltype(give_back)> pages(take_pages(size), give_back);
  npy_intp shape[] = {rows, columns};
  Object array = Object::own(PyArray_New(&PyArray_Type, 2, shape, NPY_DOUBLE, nullptr, pages.get(),
                                         0, NPY_ARRAY_CARRAY, nullptr));
  own_pages(array, pages.get(), size);
  pages.release();
  return array;
}

Object uninitialised(npy_intp rows, npy_intp columns) {
  if (Object array = over_kept_block(rows, columns); !array.empty()) return array;
  npy_intp shape[] = {rows, columns};
  return Object::own(PyArray_SimpleNew(2, shape, NPY_DOUBLE));
}

Object empty_vector(npy_intp size) { return Object::own(PyArray_SimpleNew(1, &size, NPY_DOUBLE)); }

Object filled_vector(npy_intp size, double value) {
  Object vector = empty_vector(size);
  std::fill_n(doubles(vector), size, value);
  return vector;
}

Object row_view(PyObject* matrix, npy_intp row) {
  PyArrayObject* array = as_array(matrix);
  npy_intp columns = PyArray_DIM(array, 1);
  char* start = PyArray_BYTES(array) + row * PyArray_STRIDE(array, 0);
  Object view = Object::own(PyArray_NewFromDescr(
      &PyArray_Type, PyArray_DescrFromType(NPY_DOUBLE), 1, &columns, &PyArray_STRIDES(array)[1],
      start, PyArray_FLAGS(array) & NPY_ARRAY_WRITEABLE, nullptr));
  checked(PyArray_SetBaseObject(as_array(view), Py_NewRef(matrix)));
  return view;
}

}  // namespace quernbrook::python
