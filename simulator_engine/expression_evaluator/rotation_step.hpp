#pragma once

#include <vector>

#include "expression_evaluator/call_argument.hpp"
#include "expression_evaluator/registers.hpp"
#include "expression_evaluator/run.hpp"

namespace quernbrook::evaluation {

/// What a "rotation" node does in a row: its instance is called with its children's rows.
class RotationStep {
 public:
  RotationStep(Run& run, const Registers& registers);

  void run(graph_prep::NodeIndex node, npy_intp row);

 private:
  /// What a node keeps from row to row.
  struct Call {
    /// The choice of children that the node's arguments stand for.
    std::uint32_t argument_count = 0;
    bool is_chosen = false;
    bool with_config = false;
    bool in_bound_run = false;
    /// Fixed for the run:
    bool has_config_children = false;
    bool compares_kinds = false;
    /// What the instance's class says, and the version that said it; 0 for none.
    unsigned int class_version = 0;
    bool has_plain_arity = false;
    Object function;  // of `__call__` where that is written in Python
  };

  struct Argument {
    graph_prep::NodeIndex source = graph_prep::no_node;
    CallArgument view;
  };

  bool run_is_bound() const;
  void look_at_class(const graph_prep::Node& node, Call& call) const;
  bool takes_config_children(const graph_prep::Node& node, Call& call) const;
  void choose_arguments(const graph_prep::Node& node, Call& call);
  bool is_argument(graph_prep::NodeIndex child, bool is_config, bool with_config) const;
  void release_arguments(const graph_prep::Node& node, Call& call);
  Object call_instance(const graph_prep::Node& node, Call& call);
  Object vectorcall(const graph_prep::Node& node, Call& call, PyObject** arguments,
                    std::size_t count, PyObject* names) const;

  Run& run_;
  const Registers& registers_;
  std::vector<Call> calls_;  // by node; idle for all but rotations
  /// The arguments of all nodes; a node's begin where its children do.
  std::vector<Argument> arguments_;
  /// Copies by their place in a call. All calls share them, so that they stay in the cache.
  std::vector<CallArgument> copies_;
  std::vector<PyObject*> stack_;  // of the call under way: a free place, the instance, arguments
};

}  // namespace quernbrook::evaluation
