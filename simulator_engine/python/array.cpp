#include "python/array.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "python/array_memory.hpp"
#include "python/containers.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::python {

bool have_same_shape(PyObject* left, PyObject* right) {
  PyArrayObject* first = as_array(left);
  PyArrayObject* second = as_array(right);
  return PyArray_NDIM(first) == PyArray_NDIM(second) &&
         std::equal(PyArray_DIMS(first), PyArray_DIMS(first) + PyArray_NDIM(first),
                    PyArray_DIMS(second));
}

bool is_double_array(PyObject* object) {
  if (!PyArray_CheckExact(object)) return false;
  PyArrayObject* array = as_array(object);
  return PyArray_TYPE(array) == NPY_DOUBLE && PyArray_ISBEHAVED_RO(array);
}

bool is_number_matrix(PyObject* object) {
  if (!is_plain_matrix(object)) return false;
  const int type = PyArray_TYPE(as_array(object));
  // NumPy counts from truth values over integers to doubles.
  return (type >= NPY_BOOL && type <= NPY_DOUBLE) || type == NPY_HALF;
}

bool is_writeable_block(PyObject* object, npy_intp columns) {
  return is_contiguous_double_array(object) && dimensions(object) == 2 &&
         dimension(object, 1) == columns && PyArray_ISWRITEABLE(as_array(object));
}

bool has_plain_dtype(PyObject* array) {
  const Object plain =
      Object::steal(reinterpret_cast<PyObject*>(PyArray_DescrFromType(NPY_DOUBLE)));
  return reinterpret_cast<PyObject*>(PyArray_DESCR(as_array(array))) == plain;
}

kernels::MatrixView view_of(PyObject* matrix) {
  constexpr auto size = static_cast<npy_intp>(sizeof(double));
  PyArrayObject* array = as_array(matrix);
  return {.cells = doubles(matrix),
          .row_stride = PyArray_STRIDE(array, 0) / size,
          .column_stride = PyArray_STRIDE(array, 1) / size,
          .rows = PyArray_DIM(array, 0),
          .columns = PyArray_DIM(array, 1)};
}

kernels::RowView find_row(PyObject* matrix, npy_intp row, npy_intp columns) {
  if (!is_double_matrix(matrix) || row < 0 || row >= dimension(matrix, 0) ||
      dimension(matrix, 1) != columns) {
    return {};
  }
  return view_of(matrix).row(row);
}

Object aligned(const Object& array) {
  if (is_double_array(array)) return array;
  return Object::steal(calling_python([&] {
    return PyArray_FromAny(array, PyArray_DescrFromType(NPY_DOUBLE), 0, 0,
                           NPY_ARRAY_CARRAY | NPY_ARRAY_ENSUREARRAY | NPY_ARRAY_FORCECAST, nullptr);
  }));
}

npy_intp array_size(PyObject* size) {
  PyArray_Dims sizes{};
  const Object shape = tuple_of(size);
  if (calling_python([&] { return PyArray_IntpConverter(shape, &sizes); }) != NPY_SUCCEED) {
    throw ErrorSet{};
  }
  const npy_intp value = sizes.ptr[0];
  calling_python([&] { PyDimMem_FREE(sizes.ptr); });
  return value;
}

namespace {

/// An array over a block that is kept for the next one; empty where its size isn't worth it, and
/// without memory, so that NumPy tells of it in its own words.
Object over_kept_block(npy_intp rows, npy_intp columns) {
  std::size_t count = 0;
  if (rows < 0 || columns < 0 || __builtin_mul_overflow(rows, columns, &count) ||
      count > SIZE_MAX / sizeof(double) || !is_kept_size(count * sizeof(double))) {
    return {};
  }
  std::unique_ptr<void, decltype(&give_back_block)> block(take_block(count * sizeof(double)),
                                                          give_back_block);
  if (block == nullptr) return {};
  npy_intp shape[] = {rows, columns};
  Object array = Object::steal(calling_python([&] {
    return PyArray_New(&PyArray_Type, 2, shape, NPY_DOUBLE, nullptr, block.get(), 0,
                       NPY_ARRAY_CARRAY, nullptr);
  }));
  own_block(array, block.get(), count * sizeof(double));
  block.release();
  return array;
}

}  // namespace

Object zeros(npy_intp rows, npy_intp columns) {
  if (Object array = over_kept_block(rows, columns); !array.empty()) {
    std::memset(doubles(array), 0, static_cast<std::size_t>(rows * columns) * sizeof(double));
    return array;
  }
  npy_intp shape[] = {rows, columns};
  return Object::steal(calling_python([&] { return PyArray_ZEROS(2, shape, NPY_DOUBLE, 0); }));
}

Object uninitialised(npy_intp rows, npy_intp columns) {
  if (Object array = over_kept_block(rows, columns); !array.empty()) return array;
  npy_intp shape[] = {rows, columns};
  return Object::steal(calling_python([&] { return PyArray_SimpleNew(2, shape, NPY_DOUBLE); }));
}

Object uninitialised_like(PyObject* array) {
  return Object::steal(calling_python([&] {
    return PyArray_SimpleNew(dimensions(array), PyArray_DIMS(as_array(array)), NPY_DOUBLE);
  }));
}

Object empty_vector(npy_intp size) {
  return Object::steal(calling_python([&] { return PyArray_SimpleNew(1, &size, NPY_DOUBLE); }));
}

Object filled_vector(npy_intp size, double value) {
  Object vector = empty_vector(size);
  std::fill_n(doubles(vector), size, value);
  return vector;
}

Object byte_ones(npy_intp rows, npy_intp columns) {
  npy_intp shape[] = {rows, columns};
  Object ones =
      Object::steal(calling_python([&] { return PyArray_SimpleNew(2, shape, NPY_UINT8); }));
  std::fill_n(static_cast<npy_uint8*>(PyArray_DATA(as_array(ones))), rows * columns, npy_uint8{1});
  return ones;
}

namespace {

/// An array of doubles over the memory of another, with its writability.
Object view(PyObject* base, int dimensions, npy_intp* shape, npy_intp* strides, void* cells) {
  const int flags = PyArray_FLAGS(as_array(base)) & NPY_ARRAY_WRITEABLE;
  Object array = Object::steal(calling_python([&] {
    return PyArray_NewFromDescr(&PyArray_Type, PyArray_DescrFromType(NPY_DOUBLE), dimensions, shape,
                                strides, cells, flags, nullptr);
  }));
  checked(calling_python([&] { return PyArray_SetBaseObject(as_array(array), Py_NewRef(base)); }));
  return array;
}

}  // namespace

Object row_view(PyObject* matrix, npy_intp row) {
  PyArrayObject* array = as_array(matrix);
  npy_intp columns = PyArray_DIM(array, 1);
  char* start = PyArray_BYTES(array) + row * PyArray_STRIDE(array, 0);
  return view(matrix, 1, &columns, &PyArray_STRIDES(array)[1], start);
}

Object first_rows_view(PyObject* matrix, npy_intp count) {
  PyArrayObject* array = as_array(matrix);
  npy_intp shape[] = {std::min(count, PyArray_DIM(array, 0)), PyArray_DIM(array, 1)};
  return view(matrix, 2, shape, PyArray_STRIDES(array), PyArray_DATA(array));
}

void copy_rows(PyObject* matrix, npy_intp first, npy_intp count, double* target) {
  npy_intp shape[] = {count, dimension(matrix, 1)};
  const Object cells = Object::steal(
      calling_python([&] { return PyArray_SimpleNewFromData(2, shape, NPY_DOUBLE, target); }));
  assign(cells, item(matrix, slice(integer(first), integer(first + count))));
}

bool is_within_base(PyObject* view) {
  PyObject* base = PyArray_BASE(as_array(view));
  if (base == nullptr || !is_array(base)) return true;
  const char* begin = PyArray_BYTES(as_array(view));
  const char* base_begin = PyArray_BYTES(as_array(base));
  return cell_count(view) == 0 ||
         (begin >= base_begin &&
          begin + PyArray_NBYTES(as_array(view)) <= base_begin + PyArray_NBYTES(as_array(base)));
}

Object row_key(npy_intp row) { return tuple_of(integer(row), slice(nullptr, nullptr)); }

Object columns_key(PyObject* start, PyObject* stop) {
  return tuple_of(slice(nullptr, nullptr), slice(start, stop));
}

}  // namespace quernbrook::python
