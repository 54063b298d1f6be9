#pragma once

#include <vector>

#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// What a literal does in a row: its number fills the register.
class LiteralStep {
 public:
  LiteralStep(Run& run, const Registers& registers);

  void run(graph_prep::NodeIndex node, graph_prep::NodeKind kind, npy_intp row) const;

 private:
  double number(const graph_prep::Node& node, graph_prep::NodeKind kind) const;

  Run& run_;
  const Registers& registers_;
  /// Nobody but the run itself can write into the registers, so that what stands there stays.
  bool registers_are_private_;
};

}  // namespace quernbrook::evaluation
