#pragma once

#include <cstdint>
#include <vector>

#include "expression_evaluator/rows/registers.hpp"
#include "graph_prep/node_table.hpp"

namespace quernbrook::evaluation {

struct Run;

/// Marks of missing data: they start at leaves and precomputed outputs that the caller names, and
/// climb to functions whose inputs are all NaN.
class DataNan {
 public:
  /// Marks the leaves of the named features and the nodes with marked precomputed outputs.
  void seed(const Run& run);

  bool is_marked(graph_prep::NodeIndex node) const { return tracks_ && is_marked_[node] != 0; }
  /// The marks for the caller: a dict of path to tag.
  const python::Object& source() const noexcept { return source_; }

  /// The output to store for a function node: `result`, or a row of NaNs where the mark climbs.
  python::Object propagate(const Run& run, const Registers& registers, graph_prep::NodeIndex node,
                           const python::Object& result) {
    return tracks_ ? climb(run, registers, node, result) : result;
  }

 private:
  void mark(const Run& run, graph_prep::NodeIndex node);
  python::Object climb(const Run& run, const Registers& registers, graph_prep::NodeIndex node,
                       const python::Object& result);

  python::Object source_;
  std::vector<std::uint8_t> is_marked_;  // by node
  bool tracks_ = false;                  // fixed once the seeds are laid
  python::Object missing_row_;           // a row of NaNs once there was one to store
};

}  // namespace quernbrook::evaluation
