#include "expression_evaluator/rows/data_nan.hpp"

#include <algorithm>
#include <cmath>

#include "expression_evaluator/run/run_state.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

bool is_all_nan(const Registers& registers, NodeIndex node) {
  const double* values = registers.row(node);
  return std::all_of(values, values + registers.columns(),
                     [](double value) { return std::isnan(value); });
}

}  // namespace

void DataNan::seed(const Run& run) {
  source_ = new_dict();
  is_marked_.assign(run.table.nodes.size(), 0);
  const Object features = truth(run.data_nan_features) ? set_of(run.data_nan_features) : new_set();
  if (set_size(features) > 0) {
    for (const NodeIndex leaf : run.table.leaves) {
      if (contains(features, run.table.nodes[leaf].value)) mark(run, leaf);
    }
  }
  const bool has_no_marks =
      is_exact_dict(run.precomputed_nan_source) && dict_size(run.precomputed_nan_source) == 0;
  for (NodeIndex index = 0; index < run.table.nodes.size(); ++index) {
    const Object& id = run.table.nodes[index].canonical_id;
    if (id.is_none() || (has_no_marks && is_exact_text(id))) continue;
    const Object tag = call_method(run.precomputed_nan_source, run.space.names.get, id);
    if (equal(tag, run.space.names.data_nan)) mark(run, index);
  }
  tracks_ = dict_size(source_) > 0;
}

void DataNan::mark(const Run& run, NodeIndex node) {
  set_dict_item(source_, run.table.path(run.space, node), run.space.names.data_nan);
  is_marked_[node] = 1;
}

Object DataNan::climb(const Run& run, const Registers& registers, NodeIndex index,
                      const Object& result) {
  bool all_nan = true;
  bool any_marked = false;
  bool any_output = false;
  for (const NodeIndex child : run.table.children_of(run.table.nodes[index])) {
    const Node& node = run.table.nodes[child];
    if (graph_prep::is_kind(run.space, node, NodeKind::filtration)) continue;
    any_output = true;
    any_marked |= is_marked_[child] != 0;
    all_nan = all_nan && is_all_nan(registers, child);
  }
  if (!all_nan || !any_marked || !any_output) return result;
  if (is_marked_[index] == 0) mark(run, index);
  if (missing_row_.empty()) missing_row_ = nan_row(run);
  return missing_row_;
}

}  // namespace quernbrook::evaluation
