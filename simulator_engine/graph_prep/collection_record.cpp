#include "graph_prep/collection_record.hpp"

#include <initializer_list>
#include <utility>

#include "graph_prep/function_instance.hpp"
#include "graph_prep/path_index.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/protocol.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::Names;

namespace {

/// The dictionaries of a record, its members in the order in which they stand there.
struct Record {
  struct Member {
    Object Record::* table;
    Object Names::* name;
  };
  static const std::initializer_list<Member> members;

  Object node_info;
  Object feature_ref_names;
  Object float_values;
  Object state_keys;
  Object filtration_nodes;
  Object reduction_nodes;
};

const std::initializer_list<Record::Member> Record::members{
    {&Record::node_info, &Names::node_info},
    {&Record::feature_ref_names, &Names::feature_ref_names},
    {&Record::float_values, &Names::float_values},
    {&Record::state_keys, &Names::state_keys},
    {&Record::filtration_nodes, &Names::filtration_nodes},
    {&Record::reduction_nodes, &Names::reduction_nodes},
};

class RecordWriter {
 public:
  /// The table's paths have been spelt.
  RecordWriter(const Namespace& space, const NodeTable& table)
      : names_(space.names), table_(table) {
    for (const auto& [member, _] : Record::members) record_.*member = new_dict();
  }

  Object write() {
    for (NodeIndex index = 0; index < table_.nodes.size(); ++index) write_node(index);
    for (const NodeIndex leaf : table_.leaves) {
      set_dict_item(record_.feature_ref_names, path(leaf), table_.nodes[leaf].value);
    }
    for (const NodeIndex function : table_.functions) {
      const Object& key = table_.nodes[function].state_key;
      set_dict_item(record_.state_keys, path(function), key.empty() ? path(function) : key);
    }
    Object record = new_dict();
    // The features' names stand second, and are read last.
    set_dict_item(record, names_.node_info, record_.node_info);
    set_dict_item(record, names_.feature_ref_names, record_.feature_ref_names);
    for (const auto& [member, name] : Record::members) {
      set_dict_item(record, names_.*name, record_.*member);
    }
    return record;
  }

 private:
  void write_node(NodeIndex index) {
    const Node& node = table_.nodes[index];
    const Object& path = node.path;
    const Object info = new_dict();
    set_dict_item(info, names_.type, node.type);
    set_dict_item(info, names_.node, node.value);
    set_dict_item(info, names_.canonical_id, node.canonical_id);
    set_dict_item(info, names_.children_paths, children_paths(node));
    set_dict_item(info, names_.children,
                  node.child_sequence.empty() ? new_list() : node.child_sequence);
    if (!node.config.empty()) {
      set_dict_item(info, names_.config, node.config);
      set_dict_item(info, names_.config_child_paths, config_child_paths(node));
    }
    set_dict_item(record_.node_info, path, info);
    if (!node.literal.empty()) set_dict_item(record_.float_values, path, node.literal);
    if (!node.graph_node.empty()) set_dict_item(record_.filtration_nodes, path, node.graph_node);
    if (node.is_reduction) set_dict_item(record_.reduction_nodes, path, reduction(node));
  }

  const Object& path(NodeIndex index) const { return table_.nodes[index].path; }

  Object children_paths(const Node& node) const {
    Object paths = new_list();
    for (const NodeIndex child : table_.children_of(node)) {
      append(paths, path(child));
    }
    return paths;
  }

  Object config_child_paths(const Node& node) const {
    Object paths = new_set();
    for (std::uint32_t place = 0; place < node.child_count; ++place) {
      const std::size_t slot = node.first_child + place;
      if (table_.is_config_child[slot] != 0) {
        add_to_set(paths, path(table_.children[slot]));
      }
    }
    return paths;
  }

  Object reduction(const Node& node) const {
    Object entry = new_dict();
    set_dict_item(entry, names_.filtration_path,
                  node.filtration_child == no_node ? Py_None : path(node.filtration_child).get());
    set_dict_item(entry, names_.config, node.config);
    return entry;
  }

  const Names& names_;
  const NodeTable& table_;
  Record record_;
};

/// `table[key]`, or empty where a dict has no such key.
Object member_or_empty(PyObject* table, PyObject* key) {
  if (is_exact_dict(table)) return dict_item(table, key);
  return contains(table, key) ? item(table, key) : Object();
}

/// `table[key]`.
Object member(PyObject* table, PyObject* key) {
  Object value = is_exact_dict(table) ? dict_item(table, key) : item(table, key);
  if (value.empty()) raise_key_error(key);
  return value;
}

/// Runs `body(key, table[key])` for every key, in order.
template <class Body>
void for_each_item(const Object& table, Body&& body) {
  if (is_exact_dict(table)) return each_entry(table, body);
  for (const Object& key : Items(table)) body(key, member(table, key));
}

class RecordReader {
 public:
  RecordReader(const Namespace& space, PyObject* record, const CollectionInputs& inputs)
      : space_(space), names_(space.names), inputs_(inputs), indices_(0) {
    // The features' names are asked for last.
    for (const auto& [member, name] : Record::members) {
      if (member != &Record::feature_ref_names) record_.*member = item(record, names_.*name);
    }
    record_.feature_ref_names = item(record, names_.feature_ref_names);
  }

  NodeTable read() {
    number_nodes();
    for (NodeIndex index = 0; index < infos_.size(); ++index) {
      read_node(table_.nodes[index], infos_[index]);
    }
    for_each(record_.float_values,
             [](Node& node, Object value) { node.literal = std::move(value); });
    for_each(record_.filtration_nodes,
             [](Node& node, Object value) { node.graph_node = std::move(value); });
    for_each(record_.reduction_nodes,
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
    const bool is_dict = is_exact_dict(record_.node_info);
    const auto count = static_cast<std::size_t>(is_dict ? dict_size(record_.node_info) : 0);
    table_.nodes.reserve(count);
    table_.children.reserve(count);
    table_.is_config_child.reserve(count);
    infos_.reserve(count);
    for_each_item(record_.node_info, [&](Object path, Object info) {
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
    node.type = member(info, names_.type);
    node.value = member(info, names_.node);
    node.canonical_id = member(info, names_.canonical_id);
    const Object children_paths = member(info, names_.children_paths);
    const Object config_child_paths = member_or_empty(info, names_.config_child_paths);
    node.kind = kind_of(space_, node.type);
    read_children(node, children_paths, config_child_paths);
  }

  void read_children(Node& node, const Object& paths, const Object& config_paths) {
    const bool has_config =
        !config_paths.empty() && (!is_exact_set(config_paths) || set_size(config_paths) > 0);
    node.first_child = static_cast<std::uint32_t>(table_.children.size());
    for (const Object& child : Items(paths)) {
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
    for_each_item(record_.feature_ref_names, [&](const Object& path, const Object& name) {
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
    for_each_item(record_.state_keys, [&](const Object& path, Object key) {
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
  Record record_;
  PathIndex indices_;
  NodeTable table_;
  std::vector<Object> infos_;  // the entries of `node_info`, by node
};

}  // namespace

Object make_collection_record(const Namespace& space, NodeTable& table) {
  table.spell_paths(space);
  return RecordWriter(space, table).write();
}

NodeTable load_collection_record(const Namespace& space, PyObject* record,
                                 const CollectionInputs& inputs) {
  return RecordReader(space, record, inputs).read();
}

}  // namespace quernbrook::graph_prep
