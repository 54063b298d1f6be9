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
bool find_rows(std::span<PyObject* const> matrices, npy_intp row, PyArrayObject* block,
               Rows& found) {
  for (PyObject* matrix : matrices) {
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

void copy_signal_rows(const Run& run, PyObject* pool, SequenceIterator& ids, npy_intp row,
                      PyObject* block, kernels::ColumnMean* sums) {
  if (!run.pool_keys.of(pool) || !is_writeable_block(block, run.columns)) return;
  const npy_intp count = PyArray_DIM(as_array(block), 0);
  SignalBatch signals;
  Rows rows;
  while (true) {
    const std::span<PyObject* const> next = ids.ahead(SignalBatch::most);
    const npy_intp first = ids.position() + 1;
    if (first + std::ssize(next) > count || !signals.find(pool, next) ||
        !signals.read(run.space.names.weights) ||
        !find_rows(signals.values(), row, as_array(block), rows)) {
      return;
    }
    double* const target = doubles(block) + first * run.columns;
    for (std::size_t place = 0; place < next.size(); ++place) {
      copy_matrix_row(rows[place], run.columns,
                      target + static_cast<npy_intp>(place) * run.columns);
    }
    if (sums != nullptr) sums->add(target, next.size());
    ids.skip(next.size());
  }
}

}  // namespace quernbrook::evaluation
