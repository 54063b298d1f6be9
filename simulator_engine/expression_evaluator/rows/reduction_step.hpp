#pragma once

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/rows/row_function.hpp"
#include "expression_evaluator/run/run_state.hpp"
#include "expression_evaluator/signals/extraction_buffer.hpp"

namespace quernbrook::evaluation {

/// What "filtration" and "reduction" nodes do in a row: the one brings the passing signals' weights
/// into the extraction buffer, the other makes one row of them.
class ReductionStep {
 public:
  ReductionStep(Run& run, const Registers& registers, const RowFunctions& functions);

  void run_filtration(graph_prep::NodeIndex node, npy_intp row);
  void run_reduction(graph_prep::NodeIndex node, npy_intp row);

 private:
  Object passing_ids_of(const graph_prep::Node& node, npy_intp row);
  bool is_stateful(const graph_prep::Node& node) const;
  Object pnl_of(const graph_prep::Node& node, PyObject* passing_ids, Py_ssize_t count,
                npy_intp row) const;
  bool takes_block(graph_prep::NodeIndex node, PyObject* rows, Py_ssize_t count) const;

  Run& run_;
  const Registers& registers_;
  const RowFunctions& functions_;
  ExtractionBuffer buffer_;
};

}  // namespace quernbrook::evaluation
