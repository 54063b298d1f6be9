#pragma once

#include "expression_evaluator/run.hpp"
#include "fast_paths/kernels/column_mean.hpp"
#include "python/sequence_iterator.hpp"

namespace quernbrook::evaluation {

/// Copies row `row` of the weights of the signals to come, as long as no foreign code has a part in
/// it, each to the row of its position in `block`. Adds the rows to `sums` unless that is null.
void copy_signal_rows(const Run& run, PyObject* pool, python::SequenceIterator& ids, npy_intp row,
                      PyObject* block, kernels::ColumnMean* sums);

}  // namespace quernbrook::evaluation
