#include "expression_evaluator/data_nan.hpp"

#include <algorithm>
#include <cmath>

#include "python/call.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

void mark(Run& run, NodeIndex node) {
  checked(
      PyDict_SetItem(run.nan_source, run.table.path(run.space, node), run.space.names.data_nan));
  run.is_data_nan[node] = 1;
}

void mark_features(Run& run, PyObject* names) {
  for (const NodeIndex index : run.table.leaves) {
    if (contains(names, run.table.nodes[index].value)) mark(run, index);
  }
}

void mark_precomputed(Run& run) {
  const bool nothing_to_find = PyDict_CheckExact(run.precomputed_nan_source.get()) &&
                               PyDict_GET_SIZE(run.precomputed_nan_source.get()) == 0;
  for (NodeIndex index = 0; index < run.table.nodes.size(); ++index) {
    const Object& id = run.table.nodes[index].canonical_id;
    if (id.is_none() || (nothing_to_find && PyUnicode_CheckExact(id.get()))) continue;
    const Object tag = call_method(run.precomputed_nan_source, run.space.names.get, id);
    if (equal(tag, run.space.names.data_nan)) mark(run, index);
  }
}

bool is_all_nan(const Run& run, const Registers& registers, NodeIndex node) {
  const double* values = registers.row(node);
  return std::all_of(values, values + run.columns, [](double value) { return std::isnan(value); });
}

}  // namespace

void seed_data_nan(Run& run) {
  run.nan_source = Object::own(PyDict_New());
  run.is_data_nan.assign(run.table.nodes.size(), 0);
  const Object names =
      Object::own(PySet_New(truth(run.data_nan_features) ? run.data_nan_features.get() : nullptr));
  if (PySet_GET_SIZE(names.get()) > 0) mark_features(run, names);
  mark_precomputed(run);
  run.tracks_data_nan = PyDict_GET_SIZE(run.nan_source.get()) > 0;
}

Object propagate_data_nan(Run& run, const Registers& registers, NodeIndex index,
                          const Object& result) {
  if (!run.tracks_data_nan) return result;
  bool all_nan = true;
  bool any_marked = false;
  bool any_output = false;
  for (const NodeIndex child : run.table.children_of(run.table.nodes[index])) {
    const Node& node = run.table.nodes[child];
    const bool is_filtration = graph_prep::is_kind(run.space, node, NodeKind::filtration);
    if (node.kind == NodeKind::compared) foreign_code_ran(run, registers);
    if (is_filtration) continue;
    any_output = true;
    any_marked |= run.is_data_nan[child] != 0;
    all_nan = all_nan && is_all_nan(run, registers, child);
  }
  if (!all_nan || !any_marked || !any_output) return result;
  if (run.is_data_nan[index] == 0) mark(run, index);
  if (run.missing_row.empty()) run.missing_row = nan_row(run);
  return run.missing_row;
}

}  // namespace quernbrook::evaluation
