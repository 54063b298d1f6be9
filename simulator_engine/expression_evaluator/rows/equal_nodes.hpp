#pragma once

#include <span>
#include <unordered_map>
#include <vector>

#include "expression_evaluator/rows/row_function.hpp"
#include "expression_evaluator/rows/strip_plan.hpp"
#include "expression_evaluator/run/run_state.hpp"

namespace quernbrook::evaluation {

/// Finds nodes that compute the same: equal features, equal literals, and equal functions, fresh
/// from the registry, that allow it, over equal nodes.
class EqualNodes {
 public:
  EqualNodes(const Run& run, const RowFunctions& functions) : run_(run), functions_(functions) {}

  /// An earlier node that computes what the step does; else the step's own, kept for later ones.
  /// `sources` are its arguments, by the nodes that compute them.
  graph_prep::NodeIndex find(const StripStep& step, std::span<const graph_prep::NodeIndex> sources);

 private:
  struct Known {
    graph_prep::NodeIndex node;
    StripStep::Kind kind;
    double constant;
    std::vector<graph_prep::NodeIndex> sources;
  };

  bool is_comparable(const StripStep& step) const;
  bool compute_the_same(const Known& known, const StripStep& step,
                        std::span<const graph_prep::NodeIndex> sources) const;

  const Run& run_;
  const RowFunctions& functions_;
  std::unordered_multimap<std::size_t, Known> known_;
};

}  // namespace quernbrook::evaluation
