#pragma once

#include "expression_evaluator/run/run_state.hpp"
#include "expression_evaluator/signals/signal_pool.hpp"
#include "kernels/column_mean.hpp"

namespace quernbrook::evaluation {

/// The block that holds one row of weights for each signal of the last extraction.
class ExtractionBuffer {
 public:
  explicit ExtractionBuffer(Run& run) : run_(run), weights_(run, run.space.names.weights) {}

  /// Copies row `row` of the weights of the passing signals, whose number is `count`.
  void fill(PyObject* passing_ids, Py_ssize_t count, npy_intp row);
  /// `[:count, :]`, with the errors of slicing None where there is no buffer.
  Object first_rows(Py_ssize_t count) const;

  /// RuntimeError where foreign code took the memory of what first_rows() gave away.
  void check(PyObject* rows) const;

  /// `numpy.mean(rows, axis=0)` of what first_rows() gave.
  Object mean(PyObject* rows);

 private:
  void fit(Py_ssize_t count);

  Run& run_;
  SignalReader weights_;
  kernels::ColumnMean sums_;
};

/// `numpy.mean(rows, axis=0)`.
Object numpy_mean(const Run& run, PyObject* rows);

/// Row `row` of the weights of the passing signals, as a new block.
Object extract_block(Run& run, PyObject* passing_ids, Py_ssize_t count, npy_intp row);

}  // namespace quernbrook::evaluation
