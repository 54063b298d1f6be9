#include "graph_prep/collection_record.hpp"

#include <array>
#include <utility>

#include "graph_prep/function_instance.hpp"
#include "graph_prep/known_record.hpp"
#include "graph_prep/path_index.hpp"
#include "graph_prep/recent.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/sequence_iterator.hpp"
#include "python/string_keys.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::Names;

namespace {

void set(PyObject* dict, PyObject* key, PyObject* value) {
  checked(PyDict_SetItem(dict, key, value));
}

Object new_dict() { return Object::own(PyDict_New()); }

/// The dictionaries of a record under construction.
struct Record {
  Object node_info = new_dict();
  Object feature_ref_names = new_dict();
  Object float_values = new_dict();
  Object state_keys = new_dict();
  Object filtration_nodes = new_dict();
  Object reduction_nodes = new_dict();
};

class RecordWriter {
 public:
  /// The table's paths have been spelt.
  RecordWriter(const Namespace& space, const NodeTable& table)
      : names_(space.names), table_(table) {}

  Object write() {
    for (NodeIndex index = 0; index < table_.nodes.size(); ++index) write_node(index);
    for (const NodeIndex leaf : table_.leaves) {
      set(record_.feature_ref_names, path(leaf), table_.nodes[leaf].value);
    }
    for (const NodeIndex function : table_.functions) {
      const Object& key = table_.nodes[function].state_key;
      set(record_.state_keys, path(function), key.empty() ? path(function) : key);
    }
    Object record = new_dict();
    set(record, names_.node_info, record_.node_info);
    set(record, names_.feature_ref_names, record_.feature_ref_names);
    set(record, names_.float_values, record_.float_values);
    set(record, names_.state_keys, record_.state_keys);
    set(record, names_.filtration_nodes, record_.filtration_nodes);
    set(record, names_.reduction_nodes, record_.reduction_nodes);
    return record;
  }

 private:
  void write_node(NodeIndex index) {
    const Node& node = table_.nodes[index];
    const Object& path = node.path;
    const Object info = new_dict();
    set(info, names_.type, node.type);
    set(info, names_.node, node.value);
    set(info, names_.canonical_id, node.canonical_id);
    set(info, names_.children_paths, children_paths(node));
    set(info, names_.children,
        node.child_sequence.empty() ? Object::own(PyList_New(0)) : node.child_sequence);
    if (!node.config.empty()) {
      set(info, names_.config, node.config);
      set(info, names_.config_child_paths, config_child_paths(node));
    }
    set(record_.node_info, path, info);
    if (!node.literal.empty()) set(record_.float_values, path, node.literal);
    if (!node.graph_node.empty()) set(record_.filtration_nodes, path, node.graph_node);
    if (node.is_reduction) set(record_.reduction_nodes, path, reduction(node));
  }

  const Object& path(NodeIndex index) const { return table_.nodes[index].path; }

  Object children_paths(const Node& node) const {
    Object paths = Object::own(PyList_New(0));
    for (const NodeIndex child : table_.children_of(node)) {
      checked(PyList_Append(paths, path(child)));
    }
    return paths;
  }

  Object config_child_paths(const Node& node) const {
    Object paths = Object::own(PySet_New(nullptr));
    for (std::uint32_t place = 0; place < node.child_count; ++place) {
      const std::size_t slot = node.first_child + place;
      if (table_.is_config_child[slot] != 0) {
        checked(PySet_Add(paths, path(table_.children[slot])));
      }
    }
    return paths;
  }

  Object reduction(const Node& node) const {
    Object entry = new_dict();
    set(entry, names_.filtration_path,
        node.filtration_child == no_node ? Py_None : path(node.filtration_child).get());
    set(entry, names_.config, node.config);
    return entry;
  }

  const Names& names_;
  const NodeTable& table_;
  Record record_;
};

/// `table[key]`, or empty where a dict has no such key.
Object member_or_empty(PyObject* table, PyObject* key) {
  if (PyDict_CheckExact(table)) return dict_item(table, key);
  return contains(table, key) ? item(table, key) : Object();
}

/// `table[key]`.
Object member(PyObject* table, PyObject* key) {
  Object value = PyDict_CheckExact(table) ? dict_item(table, key) : item(table, key);
  if (value.empty()) raise_key_error(key);
  return value;
}

/// Runs `body(key, value)` for every entry of an exact dict, in order.
template <class Body>
void for_each_dict_item(const Object& dict, Body&& body) {
  const Py_ssize_t size = PyDict_GET_SIZE(dict.get());
  PyObject* key;
  PyObject* value;
  Py_ssize_t position = 0;
  while (PyDict_Next(dict, &position, &key, &value)) {
    body(Object::share(key), Object::share(value));
    if (PyDict_GET_SIZE(dict.get()) != size) {
      raise_text(PyExc_RuntimeError, "dictionary changed size during iteration");
    }
  }
}

/// Runs `body(key, table[key])` for every key, in order.
template <class Body>
void for_each_item(const Object& table, Body&& body) {
  if (PyDict_CheckExact(table.get())) return for_each_dict_item(table, body);
  SequenceIterator keys(table);
  for (Object key = keys.next(); !key.empty(); key = keys.next()) {
    Object value = member(table, key);
    body(std::move(key), std::move(value));
  }
}

class RecordReader {
 public:
  RecordReader(const Namespace& space, PyObject* record, const CollectionInputs& inputs)
      : space_(space),
        names_(space.names),
        inputs_(inputs),
        node_info_(item(record, names_.node_info)),
        float_values_(item(record, names_.float_values)),
        state_keys_(item(record, names_.state_keys)),
        filtration_nodes_(item(record, names_.filtration_nodes)),
        reduction_nodes_(item(record, names_.reduction_nodes)),
        feature_ref_names_(item(record, names_.feature_ref_names)),
        indices_(0) {}

  NodeTable read() {
    number_nodes();
    for (NodeIndex index = 0; index < infos_.size(); ++index) {
      read_node(table_.nodes[index], infos_[index]);
    }
    for_each(float_values_, [](Node& node, Object value) { node.literal = std::move(value); });
    for_each(filtration_nodes_,
             [](Node& node, Object value) { node.graph_node = std::move(value); });
    for_each(reduction_nodes_,
             [&](Node& node, const Object& entry) { read_reduction(node, entry); });
    table_.root = index_of(names_.root);
    read_features();
    read_functions();
    return std::move(table_);
  }

 private:
  /// Nodes are numbered in the order of `node_info`, whatever it is.
  void number_nodes() {
    // What another mapping says of its length need not be true.
    const bool is_dict = PyDict_CheckExact(node_info_.get());
    const auto count = static_cast<std::size_t>(is_dict ? PyDict_GET_SIZE(node_info_.get()) : 0);
    table_.nodes.reserve(count);
    table_.children.reserve(count);
    table_.is_config_child.reserve(count);
    infos_.reserve(count);
    for_each_item(node_info_, [&](Object path, Object info) {
      table_.nodes.emplace_back().path = std::move(path);
      infos_.push_back(std::move(info));
    });
    indices_ = PathIndex(table_.nodes.size());
    for (NodeIndex index = 0; index < table_.nodes.size(); ++index) {
      indices_.add(table_.nodes[index].path, index);
    }
  }

  NodeIndex index_of(PyObject* path) {
    const NodeIndex index = indices_.find(path);
    if (index == no_node) raise_key_error(path);
    return index;
  }

  /// Runs `body` for every node that the table has an entry for.
  template <class Body>
  void for_each(const Object& table, Body&& body) {
    for_each_item(table, [&](const Object& path, Object value) {
      const NodeIndex index = indices_.find(path);
      if (index != no_node) body(table_.nodes[index], std::move(value));
    });
  }

  void read_node(Node& node, PyObject* info) {
    Object children_paths;
    Object config_child_paths;
    if (is_as_written(info)) {
      node.type = Object::share(members_[0]);
      node.value = Object::share(members_[1]);
      node.canonical_id = Object::share(members_[2]);
      children_paths = Object::share(members_[3]);
      config_child_paths = Object::share(members_[6]);
    } else {
      node.type = member(info, names_.type);
      node.value = member(info, names_.node);
      node.canonical_id = member(info, names_.canonical_id);
      children_paths = member(info, names_.children_paths);
      config_child_paths = member_or_empty(info, names_.config_child_paths);
    }
    node.kind = kind_of(space_, node.type);
    read_children(node, children_paths, config_child_paths);
  }

  /// Finds the members of an entry that still has the keys of RecordWriter in their order.
  bool is_as_written(PyObject* info) {
    if (!PyDict_CheckExact(info)) return false;
    const Py_ssize_t size = PyDict_GET_SIZE(info);
    if (size != 5 && size != 7) return false;
    PyObject* const keys[] = {
        names_.type,     names_.node,   names_.canonical_id,      names_.children_paths,
        names_.children, names_.config, names_.config_child_paths};
    members_.fill(nullptr);
    PyObject* key;
    PyObject* value;
    Py_ssize_t position = 0;
    std::size_t place = 0;
    while (PyDict_Next(info, &position, &key, &value)) {
      if (key != keys[place]) return false;
      members_[place++] = value;
    }
    return true;
  }

  void read_children(Node& node, const Object& paths, const Object& config_paths) {
    const bool has_config = !config_paths.empty() && (!PySet_CheckExact(config_paths.get()) ||
                                                      PySet_GET_SIZE(config_paths.get()) > 0);
    node.first_child = static_cast<std::uint32_t>(table_.children.size());
    SequenceIterator children(paths);
    for (Object child = children.next(); !child.empty(); child = children.next()) {
      table_.children.push_back(index_of(child));
      table_.is_config_child.push_back(has_config && contains(config_paths, child) ? 1 : 0);
      ++node.child_count;
    }
  }

  void read_reduction(Node& node, PyObject* entry) {
    node.is_reduction = true;
    node.config = item(entry, names_.config);
    const Object filtration_path = item(entry, names_.filtration_path);
    if (truth(filtration_path)) node.filtration_child = indices_.find(filtration_path);
  }

  void read_features() {
    for_each_item(feature_ref_names_, [&](const Object& path, const Object& name) {
      // A name that stands at no node is only looked up.
      Node nowhere;
      const NodeIndex index = indices_.find(path);
      set_feature_index(space_, index == no_node ? nowhere : table_.nodes[index], name,
                        inputs_.context);
      if (index != no_node) table_.leaves.push_back(index);
    });
  }

  void read_functions() {
    table_.functions.reserve(table_.nodes.size());
    for_each_item(state_keys_, [&](const Object& path, Object key) {
      const NodeIndex index = index_of(path);
      Node& node = table_.nodes[index];
      node.state_key = std::move(key);
      take_bound_instance(space_, inputs_, node, path);
      table_.functions.push_back(index);
    });
  }

  const Namespace& space_;
  const Names& names_;
  const CollectionInputs& inputs_;
  Object node_info_;
  Object float_values_;
  Object state_keys_;
  Object filtration_nodes_;
  Object reduction_nodes_;
  Object feature_ref_names_;
  PathIndex indices_;
  NodeTable table_;
  std::vector<Object> infos_;         // the entries of `node_info`, by node
  std::array<PyObject*, 7> members_;  // of the entry under way, borrowed
};

}  // namespace

Object make_collection_record(const Namespace& space, NodeTable& table) {
  table.spell_paths(space);
  return RecordWriter(space, table).write();
}

NodeTable load_collection_record(const Namespace& space, PyObject* record,
                                 const CollectionInputs& inputs) {
  static Recent<KnownRecord> known_records;
  const Object feature_index = silent_attribute(inputs.context, space.names.feature_index);
  if (feature_index.empty() || !PyDict_CheckExact(inputs.bound_instances)) {
    return RecordReader(space, record, inputs).read();
  }
  if (KnownRecord* known = known_records.find(record); known != nullptr) {
    if (auto table = known->read(space, record, feature_index, inputs)) return std::move(*table);
  }
  NodeTable table = RecordReader(space, record, inputs).read();
  if (auto known = KnownRecord::of(space, record, table)) {
    known_records.add(record, std::move(*known));
  }
  return table;
}

}  // namespace quernbrook::graph_prep
