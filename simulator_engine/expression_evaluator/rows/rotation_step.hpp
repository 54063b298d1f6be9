#pragma once

#include <vector>

#include "expression_evaluator/rows/call_argument.hpp"
#include "expression_evaluator/rows/registers.hpp"
#include "expression_evaluator/rows/row_function.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// What a "rotation" node does in a row: its instance is called with its children's rows.
class RotationStep {
 public:
  RotationStep(Run& run, const Registers& registers, const RowFunctions& functions);

  void run(graph_prep::NodeIndex node, npy_intp row);

  /// Appends the children that the node's arguments stand for, as things are now.
  void append_argument_sources(graph_prep::NodeIndex node,
                               std::vector<graph_prep::NodeIndex>& sources);
  /// The instance's result for rows of its own; empty where it failed.
  Object call_with(graph_prep::NodeIndex node, std::span<const Object> rows);

 private:
  /// What a node keeps from row to row.
  struct CallPlan {
    /// The choice of children that the node's arguments stand for.
    std::uint32_t argument_count = 0;
    bool is_chosen = false;
    bool with_config = false;
    bool in_bound_run = false;
    /// Fixed for the run:
    bool has_config_children = false;
    bool compares_kinds = false;
  };

  struct Argument {
    graph_prep::NodeIndex source = graph_prep::no_node;
    CallArgument view;
  };

  bool run_is_bound() const;
  bool takes_config_children(const graph_prep::Node& node, const CallPlan& plan) const;
  void choose_arguments(const graph_prep::Node& node, CallPlan& plan);
  bool is_argument(graph_prep::NodeIndex child, bool is_config, bool with_config) const;
  void release_arguments(const graph_prep::Node& node, CallPlan& plan);
  PyObject* keywords_of(const graph_prep::Node& node, PyObject** next) const;
  Object call_instance(const graph_prep::Node& node, const CallPlan& plan);
  void run_kernel(graph_prep::NodeIndex node, const quernbrook_row_kernel& kernel,
                  const CallPlan& plan, npy_intp row);

  Run& run_;
  const Registers& registers_;
  const RowFunctions& functions_;
  std::vector<CallPlan> plans_;  // by node; idle for all but rotations
  /// The arguments of all nodes; a node's begin where its children do.
  std::vector<Argument> arguments_;
  /// Copies by their place in a call. All calls share them, so that they stay in the cache.
  std::vector<CallArgument> copies_;
  std::vector<quernbrook_rows> rows_;  // the arguments of a kernel under way
  std::vector<PyObject*> stack_;       // of the call under way: two free places, then the arguments
};

}  // namespace quernbrook::evaluation
