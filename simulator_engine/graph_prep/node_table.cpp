#include "graph_prep/node_table.hpp"

#include <array>
#include <string>
#include <utility>

#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;

namespace {

std::array<std::pair<PyObject*, NodeKind>, 9> kind_names(const Namespace& space) {
  const host::Names& names = space.names;
  return {{{names.feature, NodeKind::leaf},
           {names.aggregation, NodeKind::leaf},
           {names.float_, NodeKind::float_literal},
           {names.int_, NodeKind::int_literal},
           {names.string, NodeKind::string_literal},
           {names.bool_, NodeKind::bool_literal},
           {names.filtration, NodeKind::filtration},
           {names.reduction, NodeKind::reduction},
           {names.rotation, NodeKind::rotation}}};
}

}  // namespace

NodeKind kind_of(const Namespace& space, PyObject* type) {
  if (!PyUnicode_CheckExact(type)) return NodeKind::compared;
  for (const auto& [name, kind] : kind_names(space)) {
    if (type == name) return kind;  // both interned, as a literal in the host's source is
  }
  return compare_kind(space, type);
}

NodeKind compare_kind(const Namespace& space, PyObject* type) {
  for (const auto& [name, kind] : kind_names(space)) {
    if (equal(type, name)) return kind;
  }
  return NodeKind::unknown;
}

Object NodeTable::path(const Namespace& space, NodeIndex index) const {
  std::vector<std::uint32_t> positions;
  for (NodeIndex at = index; nodes[at].parent != no_node; at = nodes[at].parent) {
    positions.push_back(nodes[at].position);
  }
  std::vector<Object> parts{space.names.root};
  for (auto position = positions.rbegin(); position != positions.rend(); ++position) {
    parts.push_back(as_text((".c" + std::to_string(*position)).c_str()));
  }
  return concatenate(parts);
}

Object NodeTable::state_key(const Namespace& space, NodeIndex index) const {
  return nodes[index].state_key.empty() ? path(space, index) : nodes[index].state_key;
}

}  // namespace quernbrook::graph_prep
