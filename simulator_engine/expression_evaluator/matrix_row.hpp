#pragma once

#include "python/array.hpp"

namespace quernbrook::evaluation {

/// A row of a matrix of doubles, read where it lies.
struct MatrixRow {
  const char* data = nullptr;
  npy_intp step = 0;  // in bytes

  npy_intp step_in_doubles() const noexcept { return step / static_cast<npy_intp>(sizeof(double)); }
  const double* values() const noexcept { return reinterpret_cast<const double*>(data); }
};

/// Finds row `row` of a two-dimensional ndarray of native doubles with `columns` columns. False for
/// every other object and row: NumPy's own indexing and assignment have the say there.
bool find_matrix_row(PyObject* matrix, npy_intp row, npy_intp columns, MatrixRow& found);

void copy_matrix_row(const MatrixRow& source, npy_intp columns, double* target);

/// True for a C-ordered matrix of doubles with `columns` columns that can be written to.
bool is_writeable_block(PyObject* array, npy_intp columns);

/// True if the row touches the `bytes` bytes from `begin` on.
bool overlaps(const MatrixRow& row, npy_intp columns, const void* begin, std::size_t bytes);

/// The index `[row, :]`.
python::Object row_key(npy_intp row);

}  // namespace quernbrook::evaluation
