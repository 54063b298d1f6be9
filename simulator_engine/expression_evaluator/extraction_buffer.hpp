#pragma once

#include "expression_evaluator/context_attribute.hpp"
#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// The block that holds one row of weights for each signal of the last extraction.
class ExtractionBuffer {
 public:
  explicit ExtractionBuffer(Run& run);

  /// Copies row `row` of the weights of the passing signals, whose number is `count`.
  void fill(PyObject* passing_ids, Py_ssize_t count, npy_intp row);
  /// `[:count, :]`, with the errors of slicing None where there is no buffer.
  Object first_rows(Py_ssize_t count) const;

  /// `context.useful_signals` now.
  PyObject* useful_signals() { return useful_signals_.get(); }

 private:
  void fit(Py_ssize_t count);
  bool has_its_form() const;
  void copy_row(PyObject* id, Py_ssize_t place, npy_intp row);

  Run& run_;
  ContextAttribute useful_signals_;
};

}  // namespace quernbrook::evaluation
