#pragma once

#include "fast_paths/kernels/column_mean.hpp"
#include "host/namespace.hpp"
#include "python/numpy_api.hpp"
#include "python/sequence_iterator.hpp"

namespace quernbrook::evaluation {

/// Copies row `row` of the weights of the signals to come, as long as no foreign code has a part in
/// it, each to the row of its position in a block of `columns` columns. Adds the rows to `sums`
/// unless that is null.
void copy_signal_rows(const Namespace& space, PyObject* pool, python::SequenceIterator& ids,
                      npy_intp row, PyObject* block, npy_intp columns, kernels::ColumnMean* sums);

}  // namespace quernbrook::evaluation
