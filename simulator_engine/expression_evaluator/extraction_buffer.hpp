#pragma once

#include "expression_evaluator/context_attribute.hpp"
#include "expression_evaluator/run.hpp"
#include "fast_paths/kernels/column_mean.hpp"

namespace quernbrook::evaluation {

/// The block that holds one row of weights for each signal of the last extraction.
class ExtractionBuffer {
 public:
  explicit ExtractionBuffer(Run& run);

  /// Copies row `row` of the weights of the passing signals, whose number is `count`.
  void fill(PyObject* passing_ids, Py_ssize_t count, npy_intp row);
  /// `[:count, :]`, with the errors of slicing None where there is no buffer.
  Object first_rows(Py_ssize_t count) const;

  /// `numpy.mean(rows, axis=0)` of what first_rows() gave.
  Object mean(PyObject* rows);
  /// A function is given the rows: it may write to them.
  void give_away() noexcept { adds_up_ = has_sums_ = false; }

  /// `context.useful_signals` now.
  PyObject* useful_signals() { return useful_signals_.get(); }

 private:
  void fit(Py_ssize_t count);
  bool has_its_form() const;
  void copy_row(PyObject* id, Py_ssize_t place, npy_intp row);
  bool mean_by_kernel(PyObject* rows, double* result);

  Run& run_;
  ContextAttribute useful_signals_;
  // Where the last extraction was averaged, the rows of the next are added as they come, while they
  // are in the cache.
  kernels::ColumnMean sums_;
  bool adds_up_ = false;
  bool has_sums_ = false;  // of the rows that the buffer holds
};

}  // namespace quernbrook::evaluation
