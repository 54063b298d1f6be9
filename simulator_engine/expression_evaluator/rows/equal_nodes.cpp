#include "expression_evaluator/rows/equal_nodes.hpp"

#include <algorithm>
#include <bit>

#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using Kind = StripStep::Kind;

namespace {

bool same_bits(double left, double right) noexcept {
  return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
}

/// Equal values of one and the same built-in type: 1 and True configure different functions.
bool are_equal_values(PyObject* left, PyObject* right) {
  if (left == right) return is_plain_value(left) || left == Py_None;
  if (type_of(left) != type_of(right) || !is_plain_value(left)) return false;
  if (is_exact_float(left)) return same_bits(float_value(left), float_value(right));
  return equal(left, right);
}

bool are_equal_configurations(const Object& left, const Object& right) {
  if (!is_exact_dict(left) || !is_exact_dict(right) || dict_size(left) != dict_size(right)) {
    return false;
  }
  bool are_equal = true;
  each_entry(left, [&](PyObject* name, PyObject* value) {
    if (!are_equal || !is_exact_text(name)) return void(are_equal = false);
    const Object other = dict_item(right, name);
    are_equal = !other.empty() && are_equal_values(value, other);
  });
  return are_equal;
}

std::size_t mixed(std::size_t hash, std::size_t value) noexcept {
  return (hash ^ value) * 0x9e3779b97f4a7c15 + (hash >> 29);
}

}  // namespace

/// Functions must be fresh from the registry, which made them by their name and configuration.
bool EqualNodes::is_comparable(const StripStep& step) const {
  if (step.kind == Kind::leaf || step.kind == Kind::constant) return true;
  const Node& node = run_.table.nodes[step.node];
  return step.kind == Kind::kernel && !node.is_bound && run_.function_states.is_none() &&
         is_exact_text(node.value) &&
         (functions_.of(step.node).kernel->flags & QUERNBROOK_SHAREABLE) != 0;
}

bool EqualNodes::compute_the_same(const Known& known, const StripStep& step,
                                  std::span<const NodeIndex> sources) const {
  if (known.kind != step.kind) return false;
  const Node& left = run_.table.nodes[known.node];
  const Node& right = run_.table.nodes[step.node];
  switch (step.kind) {
    case Kind::leaf:
      return left.plain_feature_index == right.plain_feature_index;
    case Kind::constant:
      return same_bits(known.constant, step.constant);
    default:
      return std::ranges::equal(known.sources, sources) && equal(left.value, right.value) &&
             are_equal_configurations(left.config, right.config);
  }
}

NodeIndex EqualNodes::find(const StripStep& step, std::span<const NodeIndex> sources) {
  if (!is_comparable(step)) return step.node;
  std::size_t hash = static_cast<std::size_t>(step.kind);
  if (step.kind == Kind::leaf) {
    hash = mixed(hash, static_cast<std::size_t>(run_.table.nodes[step.node].plain_feature_index));
  } else if (step.kind == Kind::constant) {
    hash = mixed(hash, std::bit_cast<std::uint64_t>(step.constant));
  } else {
    hash = mixed(hash, text_hash(run_.table.nodes[step.node].value));
    for (const NodeIndex source : sources) hash = mixed(hash, source);
  }
  const auto [first, last] = known_.equal_range(hash);
  for (auto entry = first; entry != last; ++entry) {
    if (compute_the_same(entry->second, step, sources)) return entry->second.node;
  }
  known_.emplace(hash,
                 Known{step.node, step.kind, step.constant, {sources.begin(), sources.end()}});
  return step.node;
}

}  // namespace quernbrook::evaluation
