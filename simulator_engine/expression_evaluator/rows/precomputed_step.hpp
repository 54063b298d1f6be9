#pragma once

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// Outputs that the host computed before: they stand for a node in every row.
class PrecomputedStep {
 public:
  PrecomputedStep(Run& run, const Registers& registers) : run_(run), registers_(registers) {}

  /// Fills the node's register if there is an output for it; false if the node is to be executed.
  bool run(graph_prep::NodeIndex node, npy_intp row) const;

 private:
  bool is_present(PyObject* canonical_id) const;

  Run& run_;
  const Registers& registers_;
};

}  // namespace quernbrook::evaluation
