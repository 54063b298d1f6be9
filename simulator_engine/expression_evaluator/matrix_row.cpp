#include "expression_evaluator/matrix_row.hpp"

#include <algorithm>
#include <cstring>

#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;

bool find_matrix_row(PyObject* matrix, npy_intp row, npy_intp columns, MatrixRow& found) {
  if (!is_double_array(matrix)) return false;
  PyArrayObject* array = as_array(matrix);
  if (PyArray_NDIM(array) != 2 || row >= PyArray_DIM(array, 0) ||
      PyArray_DIM(array, 1) != columns) {
    return false;
  }
  found.data = static_cast<const char*>(PyArray_DATA(array)) + row * PyArray_STRIDE(array, 0);
  found.step = PyArray_STRIDE(array, 1);
  return true;
}

void copy_matrix_row(const MatrixRow& source, npy_intp columns, double* target) {
  if (source.step == sizeof(double)) {
    std::memcpy(target, source.data, static_cast<std::size_t>(columns) * sizeof(double));
    return;
  }
  const double* values = source.values();
  const npy_intp step = source.step_in_doubles();
  for (npy_intp column = 0; column < columns; ++column) target[column] = values[column * step];
}

bool is_writeable_block(PyObject* array, npy_intp columns) {
  return is_contiguous_double_array(array) && PyArray_NDIM(as_array(array)) == 2 &&
         PyArray_DIM(as_array(array), 1) == columns && PyArray_ISWRITEABLE(as_array(array));
}

bool overlaps(const MatrixRow& row, npy_intp columns, const void* begin, std::size_t bytes) {
  const char* last = row.data + row.step * (columns - 1);
  const char* low = std::min(row.data, last);
  const char* high = std::max(row.data, last) + sizeof(double);
  const char* first = static_cast<const char*>(begin);
  return low < first + bytes && first < high;
}

Object row_key(npy_intp row) {
  const Object all = Object::own(PySlice_New(nullptr, nullptr, nullptr));
  return Object::own(PyTuple_Pack(2, integer(row).get(), all.get()));
}

}  // namespace quernbrook::evaluation
