#include "graph_prep/node_table.hpp"

#include <array>
#include <string>
#include <utility>

#include "host/feature.hpp"
#include "host/graph_walk.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;

namespace {

/// The kinds by name, in the order in which they are compared.
constexpr std::array<std::pair<Object host::Names::*, NodeKind>, 9> kind_names{{
    {&host::Names::feature, NodeKind::leaf},
    {&host::Names::aggregation, NodeKind::leaf},
    {&host::Names::float_, NodeKind::float_literal},
    {&host::Names::int_, NodeKind::int_literal},
    {&host::Names::string, NodeKind::string_literal},
    {&host::Names::bool_, NodeKind::bool_literal},
    {&host::Names::filtration, NodeKind::filtration},
    {&host::Names::reduction, NodeKind::reduction},
    {&host::Names::rotation, NodeKind::rotation},
}};

}  // namespace

NodeKind kind_of(const Namespace& space, PyObject* type) {
  if (!is_exact_text(type)) return NodeKind::compared;
  // Both are interned, as a literal in the host's source is.
  for (const auto& [name, kind] : kind_names) {
    if (type == space.names.*name) return kind;
  }
  return compare_kind(space, type);
}

NodeKind compare_kind(const Namespace& space, PyObject* type) {
  for (const auto& [name, kind] : kind_names) {
    if (equal(type, space.names.*name)) return kind;
  }
  return NodeKind::unknown;
}

bool is_kind(const Namespace& space, const Node& node, NodeKind kind) {
  if (node.kind != NodeKind::compared) return node.kind == kind;
  for (const auto& [name, named_kind] : kind_names) {
    if (named_kind == kind && equal(node.type, space.names.*name)) return true;
  }
  return false;
}

void set_feature_index(const Namespace& space, Node& node, PyObject* name, PyObject* context) {
  node.feature_index = host::feature_position(space, context, name);
  if (!is_exact_int(node.feature_index)) return;
  // Out of range: the sequence itself will say so.
  node.plain_feature_index = plain_index(node.feature_index);
}

Object NodeTable::path(const Namespace& space, NodeIndex index) const {
  if (!nodes[index].path.empty()) return nodes[index].path;
  std::vector<std::uint32_t> positions;
  for (NodeIndex at = index; nodes[at].parent != no_node; at = nodes[at].parent) {
    positions.push_back(nodes[at].position);
  }
  std::string way_down;
  for (auto position = positions.rbegin(); position != positions.rend(); ++position) {
    way_down += ".c" + std::to_string(*position);
  }
  return message(space.names.root, way_down.c_str());
}

void NodeTable::spell_paths(const Namespace& space) {
  // Parents stand behind their children.
  for (auto index = static_cast<NodeIndex>(nodes.size()); index-- > 0;) {
    Node& node = nodes[index];
    if (!node.path.empty()) continue;
    node.path = node.parent == no_node
                    ? Object::borrow(space.names.root)
                    : host::child_path(nodes[node.parent].path, Py_ssize_t{node.position});
  }
}

Object NodeTable::state_key(const Namespace& space, NodeIndex index) const {
  return nodes[index].state_key.empty() ? path(space, index) : nodes[index].state_key;
}

}  // namespace quernbrook::graph_prep
