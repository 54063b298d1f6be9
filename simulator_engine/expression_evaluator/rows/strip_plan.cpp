#include "expression_evaluator/rows/strip_plan.hpp"

#include <algorithm>
#include <unordered_map>

#include "expression_evaluator/rows/leaf_step.hpp"
#include "python/array.hpp"
#include "python/containers.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

/// Half of a small second-level cache: features and results pass through it, too.
constexpr npy_intp cells_at_once = 256 * 1024 / sizeof(double);

/// Whether a host's own output, which may come or go, could stand for the node.
bool may_be_precomputed(const Run& run, const Node& node) {
  if (node.canonical_id.is_none()) return false;
  const bool is_nothing = is_exact_dict(run.precomputed_outputs) &&
                          dict_size(run.precomputed_outputs) == 0 &&
                          is_exact_text(node.canonical_id);
  return !is_nothing;
}

/// The number of a literal that is one of Python's own; false for others.
bool plain_number(const Node& node, double& number) {
  switch (node.kind) {
    case NodeKind::float_literal:
      if (node.literal.empty() || !is_exact_float(node.literal)) return false;
      number = float_value(node.literal);
      return true;
    case NodeKind::int_literal:
      // A larger one is NumPy's or Python's to refuse.
      return is_exact_int(node.value) && small_integer(node.value, number);
    case NodeKind::string_literal:
      number = 0.0;
      return true;
    case NodeKind::bool_literal:
      if (!is_plain_value(node.value)) return false;
      number = truth(node.value) ? 1.0 : 0.0;
      return true;
    default:
      return false;
  }
}

}  // namespace

StripPlan::StripPlan(const Run& run, const RowFunctions& functions, RotationStep& rotations)
    : is_ahead_(run.table.nodes.size()), is_refused_(run.table.nodes.size()) {
  if (!functions.any() || !find_parents(run)) return;
  refuse_shared_states(run, functions);
  has_universe_ = !attribute(run.context, run.space.names.universe).is_none();
  for (const NodeIndex node : run.order) add(run, functions, rotations, node);
  is_whole_ = steps_.size() == run.order.size();
  assign_buffers(run);
}

/// False for a record that its host altered so that a node is reached twice or not at all.
bool StripPlan::find_parents(const Run& run) {
  parents_.assign(run.table.nodes.size(), graph_prep::no_node);
  std::size_t count = 1;  // the root
  for (const NodeIndex node : run.order) {
    for (const NodeIndex child : run.table.children_of(run.table.nodes[node])) {
      if (parents_[child] != graph_prep::no_node) return false;
      parents_[child] = node;
      ++count;
    }
  }
  return count == run.table.nodes.size() && run.order.size() == count;
}

/// Two nodes of one state take turns row by row.
void StripPlan::refuse_shared_states(const Run& run, const RowFunctions& functions) {
  std::unordered_map<const void*, NodeIndex> first_of;
  const auto note = [&](const void* state, NodeIndex node) {
    const auto [first, is_new] = first_of.try_emplace(state, node);
    if (!is_new && first->second != node) is_refused_[first->second] = is_refused_[node] = 1;
  };
  for (const NodeIndex node : run.table.functions) {
    const RowKernel& kernel = functions.of(node).kernel;
    if (!kernel.empty() && (kernel->flags & QUERNBROOK_STATELESS) != 0) continue;
    note(run.table.nodes[node].instance.get(), node);
    if (!kernel.empty() && kernel->state != nullptr) note(kernel->state, node);
  }
}

void StripPlan::add(const Run& run, const RowFunctions& functions, RotationStep& rotations,
                    NodeIndex index) {
  const Node& node = run.table.nodes[index];
  const auto is_ahead = [this](NodeIndex child) { return is_ahead_[child] != 0; };
  if (may_be_precomputed(run, node) || is_refused_[index] != 0 ||
      !std::ranges::all_of(run.table.children_of(node), is_ahead)) {
    return;
  }
  StripStep step{.node = index, .kind = StripStep::Kind::constant};
  if (node.kind == NodeKind::leaf) {
    if (plain_feature(run, node) == nullptr) return;
    step.kind = StripStep::Kind::leaf;
  } else if (node.kind == NodeKind::rotation) {
    const RowFunction& function = functions.of(index);
    if (function.kernel.empty() && function.block.empty()) return;
    step.kind = function.kernel.empty() ? StripStep::Kind::block : StripStep::Kind::kernel;
    const std::vector<NodeIndex> sources = rotations.argument_sources(index);
    // Without arguments, the method couldn't tell how many rows are wanted.
    if (step.kind == StripStep::Kind::block && sources.empty()) return;
    step.first_source = static_cast<std::uint32_t>(sources_.size());
    step.source_count = static_cast<std::uint32_t>(sources.size());
    sources_.insert(sources_.end(), sources.begin(), sources.end());
  } else if (!plain_number(node, step.constant)) {
    return;
  }
  is_ahead_[index] = 1;
  steps_.push_back(step);
}

bool StripPlan::needs_buffer(const Run& run, const StripStep& step) const {
  if (step.kind == StripStep::Kind::constant) return false;
  if (step.kind != StripStep::Kind::leaf) return true;
  // A plain matrix is read where it lies.
  PyObject* feature = plain_feature(run, run.table.nodes[step.node]);
  return has_universe_ || run.data_nan.is_marked(step.node, 0) || !is_double_matrix(feature) ||
         view_of(feature).column_stride != 1;
}

void StripPlan::assign_buffers(const Run& run) {
  std::vector<std::uint32_t> free;
  std::vector<std::uint32_t> buffer_of(run.table.nodes.size(), StripStep::no_buffer);
  for (StripStep& step : steps_) {
    const Node& node = run.table.nodes[step.node];
    if (run.node_outputs.empty() && step.node != run.table.root && needs_buffer(run, step)) {
      if (free.empty()) free.push_back(static_cast<std::uint32_t>(buffer_count_++));
      step.buffer = buffer_of[step.node] = free.back();
      free.pop_back();
    }
    // The result must not overlap the arguments, so that theirs are free only from here on.
    for (const NodeIndex child : run.table.children_of(node)) {
      if (buffer_of[child] != StripStep::no_buffer) free.push_back(buffer_of[child]);
    }
  }
  for (const StripStep& step : steps_) {
    const NodeIndex parent = parents_[step.node];
    if (parent == graph_prep::no_node || !is_ahead(parent)) tops_.push_back(step.node);
  }
  const npy_intp cells = run.columns * static_cast<npy_intp>(buffer_count_ + 1);
  rows_at_once_ = std::clamp(cells_at_once / std::max<npy_intp>(cells, 1), npy_intp{1},
                             std::max<npy_intp>(run.rows, 1));
}

}  // namespace quernbrook::evaluation
