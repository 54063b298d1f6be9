#include "graph_prep/known_record.hpp"

#include <utility>

#include "graph_prep/function_instance.hpp"
#include "python/protocol.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::Names;

namespace {

/// A dict in which to look a text up runs no foreign code.
bool is_plain_dict(PyObject* object) {
  return object != nullptr && PyDict_CheckExact(object) && has_string_keys(object);
}

/// The same for a set.
bool is_plain_set(PyObject* object) { return PySet_CheckExact(object) && has_string_items(object); }

/// The entry of a plain dict, borrowed; null where it has none.
PyObject* entry(PyObject* dict, PyObject* key) { return PyDict_GetItemWithError(dict, key); }

}  // namespace

std::optional<KnownRecord> KnownRecord::of(const Namespace& space, PyObject* record,
                                           const NodeTable& table) {
  constexpr std::size_t most_nodes = 32 * 1024;
  if (!Observations::are_possible || table.nodes.size() > most_nodes) return std::nullopt;
  KnownRecord known;
  if (!known.observe(space, record, table)) return std::nullopt;
  known.children_ = table.children;
  known.leaves_ = table.leaves;
  known.functions_ = table.functions;
  known.root_ = table.root;
  return known;
}

/// Notes the record, provided that it is plain and still says what is in the table.
bool KnownRecord::observe(const Namespace& space, PyObject* record, const NodeTable& table) {
  const Names& names = space.names;
  if (!is_plain_dict(record)) return false;
  observations_.note_dict(record);
  const auto table_of = [&](PyObject* name) {
    PyObject* dict = entry(record, name);
    if (!is_plain_dict(dict)) return Object();
    observations_.note_dict(dict);
    return Object::share(dict);
  };
  const Object node_info = table_of(names.node_info);
  const Object float_values = table_of(names.float_values);
  const Object filtration_nodes = table_of(names.filtration_nodes);
  const Object reduction_nodes = table_of(names.reduction_nodes);
  const Object feature_names = table_of(names.feature_ref_names);
  const Object state_keys = table_of(names.state_keys);
  for (const Object* dict : {&node_info, &float_values, &filtration_nodes, &reduction_nodes,
                             &feature_names, &state_keys}) {
    if (dict->empty()) return false;
  }

  if (PyDict_GET_SIZE(node_info.get()) != std::ssize(table.nodes)) return false;
  nodes_.reserve(table.nodes.size());
  Py_ssize_t place = 0;
  PyObject* path = nullptr;
  PyObject* value = nullptr;
  for (const Node& node : table.nodes) {
    if (!PyDict_Next(node_info, &place, &path, &value) || path != node.path) return false;
    if (!observe_node(space, value, table, node)) return false;
    if (entry(float_values, path) != node.literal.get()) return false;
    if (entry(filtration_nodes, path) != node.graph_node.get()) return false;
    if (!observe_reduction(space, entry(reduction_nodes, path), table, node)) return false;
  }
  place = 0;
  for (const NodeIndex leaf : table.leaves) {
    if (!PyDict_Next(feature_names, &place, &path, &value)) return false;
    if (path != table.nodes[leaf].path || !PyUnicode_CheckExact(value)) return false;
    leaf_names_.push_back(value);
  }
  if (PyDict_GET_SIZE(feature_names.get()) != std::ssize(table.leaves)) return false;
  place = 0;
  for (const NodeIndex function : table.functions) {
    if (!PyDict_Next(state_keys, &place, &path, &value)) return false;
    if (path != table.nodes[function].path || value != table.nodes[function].state_key) {
      return false;
    }
  }
  return PyDict_GET_SIZE(state_keys.get()) == std::ssize(table.functions);
}

bool KnownRecord::observe_node(const Namespace& space, PyObject* info, const NodeTable& table,
                               const Node& node) {
  const Names& names = space.names;
  if (!is_plain_dict(info) || node.kind == NodeKind::compared) return false;
  observations_.note_dict(info);
  if (entry(info, names.type) != node.type || entry(info, names.node) != node.value ||
      entry(info, names.canonical_id) != node.canonical_id) {
    return false;
  }
  PyObject* paths = entry(info, names.children_paths);
  if (paths == nullptr || !PyList_CheckExact(paths)) return false;
  const auto children = table.children_of(node);
  if (PyList_GET_SIZE(paths) != std::ssize(children)) return false;
  for (Py_ssize_t position = 0; position < std::ssize(children); ++position) {
    const Node& child = table.nodes[children[static_cast<std::size_t>(position)]];
    if (PyList_GET_ITEM(paths, position) != child.path) return false;
  }
  observations_.note_items(paths);
  PyObject* config_children = entry(info, names.config_child_paths);
  if (config_children != nullptr && !is_plain_set(config_children)) return false;
  nodes_.push_back({.path = node.path,
                    .type = node.type,
                    .value = node.value,
                    .canonical_id = node.canonical_id,
                    .literal = node.literal,
                    .graph_node = node.graph_node,
                    .config = node.config,
                    .state_key = node.state_key,
                    .config_children = config_children,
                    .kind = node.kind,
                    .first_child = node.first_child,
                    .child_count = node.child_count,
                    .filtration_child = node.filtration_child,
                    .is_reduction = node.is_reduction});
  return true;
}

bool KnownRecord::observe_reduction(const Namespace& space, PyObject* reduction,
                                    const NodeTable& table, const Node& node) {
  if (!node.is_reduction) return reduction == nullptr;
  if (!is_plain_dict(reduction)) return false;
  observations_.note_dict(reduction);
  PyObject* path = entry(reduction, space.names.filtration_path);
  PyObject* expected =
      node.filtration_child == no_node ? Py_None : table.nodes[node.filtration_child].path.get();
  return path == expected && entry(reduction, space.names.config) == node.config.get();
}

Node KnownRecord::node_of(const KnownNode& known) {
  Node node;
  node.path = Object::share(known.path);
  node.type = Object::share(known.type);
  node.value = Object::share(known.value);
  node.canonical_id = Object::share(known.canonical_id);
  node.literal = Object::share(known.literal);
  node.graph_node = Object::share(known.graph_node);
  node.config = Object::share(known.config);
  node.state_key = Object::share(known.state_key);
  node.kind = known.kind;
  node.first_child = known.first_child;
  node.child_count = known.child_count;
  node.filtration_child = known.filtration_child;
  node.is_reduction = known.is_reduction;
  return node;
}

std::optional<NodeTable> KnownRecord::read(const Namespace& space, PyObject* record,
                                           PyObject* feature_index,
                                           const CollectionInputs& inputs) {
  if (!feature_keys_.of(feature_index) || !bound_keys_.of(inputs.bound_instances)) return {};
  if (!PyDict_CheckExact(record) || !observations_.hold()) return {};

  NodeTable table;
  table.nodes.reserve(nodes_.size());
  for (const KnownNode& known : nodes_) table.nodes.push_back(node_of(known));
  table.root = root_;
  table.leaves = leaves_;
  table.functions = functions_;
  table.children = children_;
  table.is_config_child.resize(children_.size(), 0);
  for (const KnownNode& known : nodes_) {
    if (known.config_children == nullptr || PySet_GET_SIZE(known.config_children) == 0) continue;
    if (!has_string_items(known.config_children)) return {};
    for (std::size_t slot = known.first_child; slot < known.first_child + known.child_count;
         ++slot) {
      PyObject* path = table.nodes[table.children[slot]].path;
      table.is_config_child[slot] = contains(known.config_children, path) ? 1 : 0;
    }
  }
  std::vector<Object> leaf_names;
  leaf_names.reserve(leaf_names_.size());
  for (PyObject* name : leaf_names_) leaf_names.push_back(Object::share(name));

  // From here on errors may be raised, and what is known may go.
  for (std::size_t leaf = 0; leaf < leaf_names.size(); ++leaf) {
    set_feature_index(space, table.nodes[table.leaves[leaf]], leaf_names[leaf], inputs.context);
  }
  for (const NodeIndex function : table.functions) {
    Node& node = table.nodes[function];
    take_bound_instance(space, inputs, node, node.path);
  }
  return table;
}

}  // namespace quernbrook::graph_prep
