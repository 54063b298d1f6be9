#include "expression_evaluator/rows/strip_plan.hpp"

#include <algorithm>
#include <optional>
#include <utility>

#include "expression_evaluator/rows/equal_nodes.hpp"
#include "expression_evaluator/rows/leaf_step.hpp"
#include "python/array.hpp"
#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using graph_prep::NodeKind;

namespace {

/// Half of a common second-level cache: features and results pass through it, too.
constexpr npy_intp cells_at_once = 512 * 1024 / sizeof(double);
/// A buffer that is free serves again at once, so that few are in use at a time, however many hold
/// parts that other nodes will share.
constexpr std::size_t hot_buffers = 8;

/// Whether a host's own output stands for the node, or may do so by what foreign code does.
bool may_be_precomputed(const Run& run, const Node& node) {
  if (node.canonical_id.is_none()) return false;
  if (!is_exact_dict(run.precomputed_outputs) || !is_exact_text(node.canonical_id)) return true;
  if (dict_size(run.precomputed_outputs) == 0) return false;
  return !has_string_keys(run.precomputed_outputs) ||
         !dict_item(run.precomputed_outputs, node.canonical_id).empty();
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
    case NodeKind::filtration:
    case NodeKind::unknown:
      number = 0.0;  // a register that nobody writes
      return true;
    default:
      return false;
  }
}

/// What a reduction does in strips, if it can.
std::optional<StripStep::Kind> reduction_kind(const Run& run, const RowFunctions& functions,
                                              NodeIndex index) {
  const Node& node = run.table.nodes[index];
  if (!node.is_reduction || node.instance.empty()) return {};
  const Object stateful = plain_or_class_attribute(node.instance, run.space.names.stateful);
  if (stateful == Py_False) return StripStep::Kind::mean;
  if (stateful != Py_True || functions.of(index).reduction.empty()) return {};
  return StripStep::Kind::reduction;
}

/// Whether the node's rows are its filter's business and its own, once the filter is resolved.
bool has_plain_children(const Run& run, const Node& reduction) {
  return std::ranges::all_of(run.table.children_of(reduction), [&](NodeIndex index) {
    const Node& child = run.table.nodes[index];
    double number;
    return index == reduction.filtration_child ||
           (plain_number(child, number) && !may_be_precomputed(run, child));
  });
}

/// True where each reduction reads what its own filter, or itself, has just extracted.
bool reductions_read_their_own(const Run& run) {
  NodeIndex extracted = graph_prep::no_node;
  for (const NodeIndex index : run.order) {
    const Node& node = run.table.nodes[index];
    if (node.kind == NodeKind::compared) return false;
    if (node.kind != NodeKind::filtration && node.kind != NodeKind::reduction) continue;
    if (may_be_precomputed(run, node)) return false;
    if (node.kind == NodeKind::filtration) {
      if (extracted != graph_prep::no_node) return false;
      extracted = index;
    } else {
      if (node.filtration_child != extracted) return false;
      extracted = graph_prep::no_node;
    }
  }
  return extracted == graph_prep::no_node;
}

}  // namespace

bool StripPlan::may_be_whole(const Run& run, const RowFunctions& functions) {
  return std::ranges::all_of(run.table.functions, [&](NodeIndex index) {
    const RowFunction& function = functions.of(index);
    return run.table.nodes[index].is_reduction || !function.kernel.empty() ||
           !function.block.empty();
  });
}

StripPlan::StripPlan(Run& run, const RowFunctions& functions, RotationStep& rotations)
    : computed_as_(run.table.nodes.size(), graph_prep::no_node),
      is_refused_(run.table.nodes.size()) {
  if (!functions.any() || !find_parents(run)) return;
  refuse_shared_states(run, functions);
  refuse_reductions(run, functions);
  has_universe_ = !attribute(run.context, run.space.names.universe).is_none();
  for (const NodeIndex node : run.order) add(run, functions, rotations, node);
  is_whole_ = std::ranges::none_of(
      run.order, [this](NodeIndex node) { return computed_as_[node] == graph_prep::no_node; });
  // Outputs and marks are each node's own.
  if (is_whole_ && run.node_outputs.empty() && !run.data_nan.tracks()) join_equal(run, functions);
  find_tops();
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
  std::vector<std::pair<const void*, NodeIndex>> states;
  for (const NodeIndex node : run.table.functions) {
    const RowFunction& function = functions.of(node);
    if (!function.kernel.empty() && (function.kernel->flags & QUERNBROOK_STATELESS) != 0) continue;
    states.emplace_back(run.table.nodes[node].instance.get(), node);
    if (!function.kernel.empty()) states.emplace_back(function.kernel->state, node);
    if (!function.reduction.empty()) states.emplace_back(function.reduction->state, node);
  }
  std::ranges::sort(states);
  for (std::size_t place = 1; place < states.size(); ++place) {
    const auto& [state, node] = states[place];
    const auto& [state_before, node_before] = states[place - 1];
    if (state == nullptr || state != state_before || node == node_before) continue;
    is_refused_[node] = is_refused_[node_before] = 1;
  }
}

/// A filter's extraction and the reduction of it are one step, or row by row both.
void StripPlan::refuse_reductions(const Run& run, const RowFunctions& functions) {
  const bool read_their_own = reductions_read_their_own(run);
  for (const NodeIndex index : run.order) {
    const Node& node = run.table.nodes[index];
    if (node.kind == NodeKind::filtration) is_refused_[index] = 1;
    if (node.kind != NodeKind::reduction) continue;
    if (!read_their_own || !reduction_kind(run, functions, index) ||
        !has_plain_children(run, node)) {
      is_refused_[index] = 1;
    } else if (is_refused_[index] == 0 && node.filtration_child != graph_prep::no_node) {
      is_refused_[node.filtration_child] = 0;
    }
  }
}

void StripPlan::add(const Run& run, const RowFunctions& functions, RotationStep& rotations,
                    NodeIndex index) {
  const Node& node = run.table.nodes[index];
  if (may_be_precomputed(run, node) || is_refused_[index] != 0 ||
      !std::ranges::all_of(run.table.children_of(node),
                           [this](NodeIndex child) { return is_ahead(child); })) {
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
    step.first_source = static_cast<std::uint32_t>(sources_.size());
    rotations.append_argument_sources(index, sources_);
    step.source_count = static_cast<std::uint32_t>(sources_.size()) - step.first_source;
    // Without arguments, the method couldn't tell how many rows are wanted.
    if (step.kind == StripStep::Kind::block && step.source_count == 0) return;
  } else if (node.kind == NodeKind::reduction) {
    step.kind = *reduction_kind(run, functions, index);
  } else if (!plain_number(node, step.constant)) {
    return;
  }
  computed_as_[index] = index;
  steps_.push_back(step);
}

/// Leaves out steps that compute what an earlier one does.
void StripPlan::join_equal(Run& run, const RowFunctions& functions) {
  EqualNodes equal_nodes(run, functions);
  std::erase_if(steps_, [&](const StripStep& step) {
    const std::span sources = std::span(sources_).subspan(step.first_source, step.source_count);
    for (NodeIndex& source : sources) source = computed_as_[source];
    // The root has rows of its own to fill.
    if (step.node == run.table.root) return false;
    const NodeIndex first = equal_nodes.find(step, sources);
    computed_as_[step.node] = first;
    if (first == step.node) return false;
    has_joined_ = true;
    // Whoever asks for the state of either asks the one that was run.
    run.table.nodes[step.node].instance = run.table.nodes[first].instance;
    return true;
  });
}

void StripPlan::find_tops() {
  for (const StripStep& step : steps_) {
    const NodeIndex parent = parents_[step.node];
    if (parent == graph_prep::no_node || !is_ahead(parent)) tops_.push_back(step.node);
  }
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
  // How many reads of a node's rows are still to come. Marks are read off all children.
  std::vector<std::uint32_t> reads(run.table.nodes.size());
  const auto each_read = [&](const StripStep& step, auto&& visit) {
    for (const NodeIndex source : sources(step)) visit(source);
    if (run.data_nan.tracks()) {
      for (const NodeIndex child : run.table.children_of(run.table.nodes[step.node])) visit(child);
    }
  };
  for (const StripStep& step : steps_) {
    each_read(step, [&](NodeIndex source) { ++reads[source]; });
  }
  for (const NodeIndex top : tops_) ++reads[top];

  std::vector<std::uint32_t> free;
  std::vector<std::uint32_t> buffer_of(run.table.nodes.size(), StripStep::no_buffer);
  const auto let_go = [&](NodeIndex node) {
    if (buffer_of[node] != StripStep::no_buffer) free.push_back(buffer_of[node]);
  };
  for (StripStep& step : steps_) {
    if (run.node_outputs.empty() && step.node != run.table.root && needs_buffer(run, step)) {
      if (free.empty()) free.push_back(static_cast<std::uint32_t>(buffer_count_++));
      step.buffer = buffer_of[step.node] = free.back();
      free.pop_back();
    }
    // The result must not overlap the arguments, so that theirs are free only from here on.
    each_read(step, [&](NodeIndex source) {
      if (--reads[source] == 0) let_go(source);
    });
    if (reads[step.node] == 0) let_go(step.node);
  }
  const npy_intp cells =
      run.columns * static_cast<npy_intp>(std::min(buffer_count_ + 1, hot_buffers));
  rows_at_once_ = std::clamp(cells_at_once / std::max<npy_intp>(cells, 1), npy_intp{1},
                             std::max<npy_intp>(run.rows, 1));
}

}  // namespace quernbrook::evaluation
