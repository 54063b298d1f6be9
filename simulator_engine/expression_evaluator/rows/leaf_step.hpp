#pragma once

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// What a "feature" or "aggregation" node does in a row: its matrix's row under the universe.
class LeafStep {
 public:
  LeafStep(Run& run, const Registers& registers) : run_(run), registers_(registers) {}

  void run(graph_prep::NodeIndex node, npy_intp row) const;

 private:
  bool run_quickly(graph_prep::NodeIndex node, npy_intp row) const;
  Object row_values(graph_prep::NodeIndex node, npy_intp row) const;

  Run& run_;
  const Registers& registers_;
};

/// The leaf's matrix, borrowed, if both the sequence of features and the index are plain; else
/// null.
PyObject* plain_feature(const Run& run, const graph_prep::Node& node);

}  // namespace quernbrook::evaluation
