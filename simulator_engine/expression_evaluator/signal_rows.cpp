#include "expression_evaluator/signal_rows.hpp"

#include <array>

#include "expression_evaluator/matrix_row.hpp"
#include "expression_evaluator/signal_batch.hpp"
#include "python/array.hpp"

namespace quernbrook::evaluation {

using namespace python;

namespace {

using Rows = std::array<MatrixRow, SignalBatch::most>;

/// False where a row can't be read where it lies.
bool find_rows(std::span<const Object> matrices, npy_intp row, PyArrayObject* block, Rows& found) {
  for (const Object& matrix : matrices) {
    if (is_double_array(matrix)) fetch(PyArray_DIMS(as_array(matrix)));
  }
  const npy_intp columns = PyArray_DIM(block, 1);
  const auto bytes = static_cast<std::size_t>(PyArray_NBYTES(block));
  for (std::size_t place = 0; place < matrices.size(); ++place) {
    if (!find_matrix_row(matrices[place], row, columns, found[place]) ||
        overlaps(found[place], columns, PyArray_DATA(block), bytes)) {
      return false;
    }
    fetch(found[place].data);
  }
  return true;
}

}  // namespace

void copy_signal_rows(const Namespace& space, PyObject* pool, SequenceIterator& ids, npy_intp row,
                      PyObject* block, npy_intp columns, kernels::ColumnMean* sums) {
  SignalBatch signals;
  Rows rows;
  while (signals.find(pool, ids) && signals.read(space.names.weights)) {
    const npy_intp first = ids.position() + 1;
    if (!is_writeable_block(block, columns) ||
        first + static_cast<npy_intp>(signals.size()) > PyArray_DIM(as_array(block), 0) ||
        !find_rows(signals.values(), row, as_array(block), rows)) {
      return;
    }
    double* const target = doubles(block) + first * columns;
    for (std::size_t place = 0; place < signals.size(); ++place) {
      copy_matrix_row(rows[place], columns, target + static_cast<npy_intp>(place) * columns);
    }
    if (sums != nullptr) sums->add(target, signals.size());
    ids.skip(signals.size());
  }
}

}  // namespace quernbrook::evaluation
