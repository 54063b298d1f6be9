#pragma once

#include "expression_evaluator/context_attribute.hpp"
#include "expression_evaluator/registers.hpp"
#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// What a "feature" or "aggregation" node does in a row: its matrix's row under the universe.
class LeafStep {
 public:
  LeafStep(Run& run, const Registers& registers);

  void run(graph_prep::NodeIndex node, npy_intp row);

 private:
  bool run_quickly(graph_prep::NodeIndex node, PyObject* universe, npy_intp row) const;
  void run_slowly(graph_prep::NodeIndex node, npy_intp row);
  python::Object row_values(graph_prep::NodeIndex node, npy_intp row) const;
  PyObject* plain_feature(const graph_prep::Node& node) const;
  bool is_marked(graph_prep::NodeIndex node) const;

  Run& run_;
  const Registers& registers_;
  ContextAttribute universe_;
};

}  // namespace quernbrook::evaluation
