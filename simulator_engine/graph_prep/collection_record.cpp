#include "graph_prep/collection_record.hpp"

#include <utility>

#include "graph_prep/function_instance.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/sequence_iterator.hpp"
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
  RecordWriter(const Namespace& space, const NodeTable& table)
      : names_(space.names), table_(table), paths_(table.paths(space)) {}

  Object write() {
    for (NodeIndex index = 0; index < table_.nodes.size(); ++index) write_node(index);
    for (const NodeIndex leaf : table_.leaves) {
      set(record_.feature_ref_names, paths_[leaf], table_.nodes[leaf].value);
    }
    for (const NodeIndex function : table_.functions) {
      const Object& key = table_.nodes[function].state_key;
      set(record_.state_keys, paths_[function], key.empty() ? paths_[function] : key);
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
    const Object& path = paths_[index];
    const Object info = new_dict();
    set(info, names_.type, node.type);
    set(info, names_.node, node.value);
    set(info, names_.canonical_id, node.canonical_id);
    set(info, names_.children_paths, children_paths(node));
    set(info, names_.children, node.child_sequence);
    if (!node.config.empty()) {
      set(info, names_.config, node.config);
      set(info, names_.config_child_paths, config_child_paths(node));
    }
    set(record_.node_info, path, info);
    if (!node.literal.empty()) set(record_.float_values, path, node.literal);
    if (!node.graph_node.empty()) set(record_.filtration_nodes, path, node.graph_node);
    if (node.is_reduction) set(record_.reduction_nodes, path, reduction(node));
  }

  Object children_paths(const Node& node) const {
    Object paths = Object::own(PyList_New(0));
    for (const NodeIndex child : table_.children_of(node)) {
      checked(PyList_Append(paths, paths_[child]));
    }
    return paths;
  }

  Object config_child_paths(const Node& node) const {
    Object paths = Object::own(PySet_New(nullptr));
    for (std::uint32_t place = 0; place < node.child_count; ++place) {
      const std::size_t slot = node.first_child + place;
      if (table_.is_config_child[slot] != 0) {
        checked(PySet_Add(paths, paths_[table_.children[slot]]));
      }
    }
    return paths;
  }

  Object reduction(const Node& node) const {
    Object entry = new_dict();
    set(entry, names_.filtration_path,
        node.filtration_child == no_node ? Py_None : paths_[node.filtration_child].get());
    set(entry, names_.config, node.config);
    return entry;
  }

  const Names& names_;
  const NodeTable& table_;
  std::vector<Object> paths_;
  Record record_;
};

class RecordReader {
 public:
  RecordReader(const Namespace& space, PyObject* record, const CollectionInputs& inputs)
      : space_(space), names_(space.names), inputs_(inputs) {
    node_info_ = item(record, names_.node_info);
    float_values_ = item(record, names_.float_values);
    state_keys_ = item(record, names_.state_keys);
    filtration_nodes_ = item(record, names_.filtration_nodes);
    reduction_nodes_ = item(record, names_.reduction_nodes);
    feature_ref_names_ = item(record, names_.feature_ref_names);
  }

  NodeTable read() {
    number_nodes();
    for (NodeIndex index = 0; index < table_.nodes.size(); ++index) read_node(index);
    table_.root = index_of(names_.root);
    read_features();
    read_functions();
    return std::move(table_);
  }

 private:
  /// Nodes are numbered in the order of `node_info`, whatever it is.
  void number_nodes() {
    indices_ = new_dict();
    SequenceIterator paths(node_info_);
    for (Object path = paths.next(); !path.empty(); path = paths.next()) {
      set(indices_, path, integer(static_cast<Py_ssize_t>(table_.nodes.size())));
      Node node;
      node.path = path;
      table_.nodes.push_back(std::move(node));
    }
  }

  NodeIndex index_of(PyObject* path) const {
    const Object index = dict_item(indices_, path);
    if (index.empty()) raise_key_error(path);
    return static_cast<NodeIndex>(PyLong_AsSsize_t(index));
  }

  void read_node(NodeIndex index) {
    Node& node = table_.nodes[index];
    const Object info = item(node_info_, node.path);
    node.type = item(info, names_.type);
    node.value = item(info, names_.node);
    node.canonical_id = item(info, names_.canonical_id);
    node.kind = kind_of(space_, node.type);
    read_children(node, info);
    if (contains(float_values_, node.path)) node.literal = item(float_values_, node.path);
    if (contains(filtration_nodes_, node.path)) {
      node.graph_node = item(filtration_nodes_, node.path);
    }
    if (contains(reduction_nodes_, node.path)) read_reduction(node);
  }

  void read_children(Node& node, PyObject* info) {
    const Object paths = item(info, names_.children_paths);
    Object config_paths;
    if (contains(info, names_.config_child_paths)) {
      config_paths = item(info, names_.config_child_paths);
    }
    node.first_child = static_cast<std::uint32_t>(table_.children.size());
    SequenceIterator children(paths);
    for (Object child = children.next(); !child.empty(); child = children.next()) {
      table_.children.push_back(index_of(child));
      const bool is_config = !config_paths.empty() && contains(config_paths, child);
      table_.is_config_child.push_back(is_config ? 1 : 0);
      ++node.child_count;
    }
  }

  void read_reduction(Node& node) const {
    const Object entry = item(reduction_nodes_, node.path);
    node.is_reduction = true;
    node.config = item(entry, names_.config);
    const Object path = item(entry, names_.filtration_path);
    if (truth(path) && contains(indices_, path)) node.filtration_child = index_of(path);
  }

  void read_features() {
    SequenceIterator paths(feature_ref_names_);
    for (Object path = paths.next(); !path.empty(); path = paths.next()) {
      const NodeIndex index = index_of(path);
      const Object name = item(feature_ref_names_, path);
      set_feature_index(space_, table_.nodes[index], name, inputs_.context);
      table_.leaves.push_back(index);
    }
  }

  void read_functions() {
    SequenceIterator paths(state_keys_);
    for (Object path = paths.next(); !path.empty(); path = paths.next()) {
      const NodeIndex index = index_of(path);
      Node& node = table_.nodes[index];
      node.state_key = item(state_keys_, path);
      take_bound_instance(space_, inputs_, node, path);
      table_.functions.push_back(index);
    }
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
  Object indices_;  // dict of path to node index
  NodeTable table_;
};

}  // namespace

Object make_collection_record(const Namespace& space, const NodeTable& table) {
  return RecordWriter(space, table).write();
}

NodeTable load_collection_record(const Namespace& space, PyObject* record,
                                 const CollectionInputs& inputs) {
  return RecordReader(space, record, inputs).read();
}

}  // namespace quernbrook::graph_prep
