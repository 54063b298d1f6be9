#pragma once

#include <limits>
#include <span>
#include <vector>

#include "graph_prep/node_table.hpp"
#include "python/numpy_api.hpp"

namespace quernbrook::evaluation {

struct Run;

/// Marks of missing data: they start at leaves and precomputed outputs that the caller names, and
/// climb to functions whose inputs are all NaN. A mark holds from its row on.
class DataNan {
 public:
  /// Marks the leaves of the named features and the nodes with marked precomputed outputs.
  void seed(const Run& run);

  bool tracks() const noexcept { return tracks_; }
  bool is_marked(graph_prep::NodeIndex node, npy_intp row) const {
    return tracks_ && marked_from_[node] <= row;
  }

  /// Whether a function node's output in the row is to be NaN throughout: all of its inputs are,
  /// and one of them is marked. `cells_of(child)` are the child's cells in the row. Marks the node
  /// then.
  template <class CellsOf>
  bool climbs(const Run& run, graph_prep::NodeIndex node, npy_intp row, CellsOf&& cells_of) {
    bool any_marked = false;
    bool any_output = false;
    for (const graph_prep::NodeIndex child : outputs_below(run, node)) {
      any_output = true;
      any_marked |= is_marked(child, row);
      if (!is_all_nan(cells_of(child), columns_)) return false;
    }
    if (!any_output || !any_marked) return false;
    mark(node, row);
    return true;
  }

  /// The marks for the caller, in the order in which they were made: a dict of path to tag.
  python::Object source(const Run& run) const;

 private:
  static constexpr npy_intp never = std::numeric_limits<npy_intp>::max();
  static constexpr npy_intp from_the_start = -1;

  void mark(graph_prep::NodeIndex node, npy_intp row);
  std::span<const graph_prep::NodeIndex> outputs_below(const Run& run, graph_prep::NodeIndex node);
  static bool is_all_nan(const double* cells, npy_intp columns) noexcept;

  std::vector<npy_intp> marked_from_;          // by node: the first row of its mark
  std::vector<graph_prep::NodeIndex> marked_;  // in the order of making
  std::vector<graph_prep::NodeIndex> outputs_below_;
  npy_intp columns_ = 0;
  bool tracks_ = false;  // fixed once the seeds are laid
};

}  // namespace quernbrook::evaluation
