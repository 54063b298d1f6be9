#include "expression_evaluator/rows/data_nan.hpp"

#include <algorithm>
#include <cmath>

#include "expression_evaluator/run/run_state.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

void DataNan::seed(const Run& run) {
  marked_from_.assign(run.table.nodes.size(), never);
  const Object features = truth(run.data_nan_features) ? set_of(run.data_nan_features) : new_set();
  if (set_size(features) > 0) {
    for (const NodeIndex leaf : run.table.leaves) {
      if (contains(features, run.table.nodes[leaf].value)) mark(leaf, from_the_start);
    }
  }
  const bool has_no_marks =
      is_exact_dict(run.precomputed_nan_source) && dict_size(run.precomputed_nan_source) == 0;
  for (NodeIndex index = 0; index < run.table.nodes.size(); ++index) {
    const Object& id = run.table.nodes[index].canonical_id;
    if (id.is_none() || (has_no_marks && is_exact_text(id))) continue;
    const Object tag = call_method(run.precomputed_nan_source, run.space.names.get, id);
    if (equal(tag, run.space.names.data_nan)) mark(index, from_the_start);
  }
  columns_ = run.columns;
  tracks_ = !marked_.empty();
}

void DataNan::mark(NodeIndex node, npy_intp row) {
  if (marked_from_[node] != never) return;
  marked_from_[node] = row;
  marked_.push_back(node);
}

/// The children whose outputs count.
std::span<const NodeIndex> DataNan::outputs_below(const Run& run, NodeIndex index) {
  outputs_below_.clear();
  for (const NodeIndex child : run.table.children_of(run.table.nodes[index])) {
    if (!graph_prep::is_kind(run.space, run.table.nodes[child], NodeKind::filtration)) {
      outputs_below_.push_back(child);
    }
  }
  return outputs_below_;
}

bool DataNan::is_all_nan(const double* cells, npy_intp columns) noexcept {
  return std::all_of(cells, cells + columns, [](double value) { return std::isnan(value); });
}

Object DataNan::source(const Run& run) const {
  Object source = new_dict();
  if (marked_.empty()) return source;
  std::vector<std::size_t> position(run.table.nodes.size());
  for (std::size_t place = 0; place < run.order.size(); ++place) position[run.order[place]] = place;
  // Strips go from node to node first; within a row, nodes are marked in the order of execution.
  std::vector<NodeIndex> in_order = marked_;
  std::ranges::stable_sort(in_order, [&](NodeIndex left, NodeIndex right) {
    const npy_intp row = marked_from_[left];
    if (row != marked_from_[right]) return row < marked_from_[right];
    return row != from_the_start && position[left] < position[right];
  });
  for (const NodeIndex node : in_order) {
    set_dict_item(source, run.table.path(run.space, node), run.space.names.data_nan);
  }
  return source;
}

}  // namespace quernbrook::evaluation
