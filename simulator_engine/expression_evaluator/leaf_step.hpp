#pragma once

#include "expression_evaluator/registers.hpp"
#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// What a "feature" or "aggregation" node does in a row: its matrix's row under the universe.
class LeafStep {
 public:
  LeafStep(const Run& run, const Registers& registers);

  void run(graph_prep::NodeIndex node, npy_intp row);

  /// Foreign code ran and may have replaced the context's universe.
  void forget_universe() noexcept { universe_is_current_ = false; }

 private:
  /// Where the doubles of a row lie, for the matrices that need no conversion.
  struct Row {
    const char* data = nullptr;
    npy_intp step = 0;  // in bytes
  };

  PyObject* universe();
  bool universe_is_plain_attribute() const;
  bool find_row(PyObject* matrix, npy_intp row, Row& found) const;
  PyObject* feature_at(const graph_prep::Node& node) const;
  void run_slowly(graph_prep::NodeIndex node, npy_intp row);

  const Run& run_;
  const Registers& registers_;
  Object universe_;
  bool universe_is_current_ = false;
};

}  // namespace quernbrook::evaluation
