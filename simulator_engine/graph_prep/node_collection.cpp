#include "graph_prep/node_collection.hpp"

#include <utility>

#include "graph_prep/config_preflight.hpp"
#include "graph_prep/function_instance.hpp"
#include "host/graph_walk.hpp"
#include "host/parameter_schema.hpp"
#include "host/registry.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/items.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::NodePath;

namespace {

struct Frame {
  Object graph_node;
  Object type;
  Object value;
  Object child_sequence;
  Items children;
  std::size_t first_finished;  // where the node's finished children begin
};

/// Sorts a function's literal children into its configuration.
class ConfigChildren {
 public:
  ConfigChildren(const Namespace& space, host::NodeReader& reader, PyObject* function_name,
                 PyObject* parameter_names, PyObject* config)
      : space_(space),
        reader_(reader),
        function_name_(function_name),
        parameter_names_(parameter_names),
        config_(config) {}

  /// Takes the child if it is configuration, else leaves it to be an input of the function.
  bool take(PyObject* child, const NodePath& path) {
    const host::Names& names = space_.names;
    const Object kind = reader_.type_value(child, path);
    const Object types = space_.global(names._CONFIG_CHILD_TYPES);
    if (!is_any_set(types)) reader_.foreign_code_ran();
    if (!contains(types, kind)) return false;
    const Object value = reader_.node_value(child, path);
    if (next_parameter_ < items_of(parameter_names_).size()) {
      set(items_of(parameter_names_)[next_parameter_++], value);
      return true;
    }
    if (equal(kind, names.int_)) {
      set(names.window, value);
      return true;
    }
    if (equal(kind, names.string)) {
      if (first_string_.empty()) first_string_ = value;
      return true;
    }
    if (equal(kind, names.bool_)) {
      set(names.invert, value);
      return true;
    }
    return false;
  }

  /// The first string names a statistic or a PnL column; further ones are dropped.
  void finish() {
    if (first_string_.empty()) return;
    const host::Names& names = space_.names;
    const bool names_statistic = equal(function_name_, names.weighted_by_vol) ||
                                 equal(function_name_, names.weighted_by_sharpe) ||
                                 equal(function_name_, names.weighted_by_turnover);
    set(names_statistic ? names.stat_name : names.pnl_column, first_string_);
  }

 private:
  void set(PyObject* key, PyObject* value) { set_dict_item(config_, key, value); }

  const Namespace& space_;
  host::NodeReader& reader_;
  PyObject* function_name_;
  PyObject* parameter_names_;
  PyObject* config_;
  std::size_t next_parameter_ = 0;
  Object first_string_;
};

class Collector {
 public:
  Collector(const Namespace& space, const CollectionInputs& inputs)
      : space_(space), inputs_(inputs), reader_(space) {}

  Frame enter(PyObject* node, const NodePath& path) {
    Object type = reader_.type_value(node, path);
    Object value = reader_.node_value(node, path);
    Object children = reader_.children(node);
    return Frame{Object::borrow(node), std::move(type), std::move(value), children,
                 Items(children),      finished_.size()};
  }

  /// Writes the node's record. All of its children have theirs.
  void leave(const Frame& frame, const NodePath& path) {
    const auto index = static_cast<NodeIndex>(table_.nodes.size());
    Node node;
    node.type = frame.type;
    node.value = frame.value;
    node.canonical_id = reader_.optional_field(frame.graph_node, space_.names.canonical_id);
    if (node.canonical_id.empty()) node.canonical_id = Object::none();
    node.child_sequence = frame.child_sequence;
    node.kind = kind_of(space_, node.type);
    adopt_children(node, frame.first_finished);

    const NodeKind kind =
        node.kind == NodeKind::compared ? compare_kind(space_, node.type) : node.kind;
    switch (kind) {
      case NodeKind::leaf:
        set_feature_index(space_, node, node.value, inputs_.context);
        reader_.foreign_code_ran();
        table_.leaves.push_back(index);
        break;
      case NodeKind::float_literal:
        node.literal = real_number(as_double(node.value));
        break;
      case NodeKind::filtration:
        node.graph_node = frame.graph_node;
        break;
      case NodeKind::rotation:
      case NodeKind::reduction:
        complete_function(node, frame, path);
        table_.functions.push_back(index);
        if (kind == NodeKind::reduction) find_filtration(node, frame, path);
        break;
      default:
        break;
    }
    finished_.push_back(index);
    table_.nodes.push_back(std::move(node));
    table_.root = index;
  }

  NodeTable take_table() { return std::move(table_); }

 private:
  void complete_function(Node& node, const Frame& frame, const NodePath& path) {
    // A stamp is the key that the node had before transforms were laid around its graph.
    node.state_key = reader_.optional_field(frame.graph_node, space_.names._state_identity);
    node.config = reader_.config(frame.graph_node);
    if (node.config.is_none()) node.config = new_dict();
    const Object parameter_names = named_parameters(node.value);
    reader_.foreign_code_ran();
    ConfigChildren config(space_, reader_, node.value, parameter_names, node.config);
    Items children(frame.child_sequence);
    for (const Object& child : children) {
      const Py_ssize_t position = children.position();
      if (config.take(child, host::ChildPath(path, position)) && position < node.child_count) {
        table_.is_config_child[node.first_child + static_cast<std::size_t>(position)] = 1;
      }
    }
    config.finish();
    validate_merged_config(space_, inputs_.context, node.value, node.config, path);
    choose_instance(space_, inputs_, node, path);
    reader_.foreign_code_ran();
  }

  Object named_parameters(PyObject* function_name) const {
    const Object registry = host::registry_of(space_, inputs_.context);
    if (registry.is_none() || !host::registry_has(space_, registry, function_name)) {
      return new_list();
    }
    Object names = new_list();
    // A registry without a readable schema still has its functions.
    attempt({PyExc_Exception}, [&] {
      const Object entry = host::registry_entry(space_, registry, function_name);
      names = host::config_parameter_names(space_, entry);
    });
    return names;
  }

  void find_filtration(Node& node, const Frame& frame, const NodePath& path) {
    node.is_reduction = true;
    Items children(frame.child_sequence);
    for (const Object& child : children) {
      const Py_ssize_t position = children.position();
      const Object kind = reader_.type_value(child, host::ChildPath(path, position));
      if (!equal(kind, space_.names.filtration)) continue;
      if (position < node.child_count) {
        node.filtration_child = table_.children_of(node)[static_cast<std::size_t>(position)];
      }
      return;
    }
  }

  /// Moves the finished nodes from `first` on below the node that comes next.
  void adopt_children(Node& node, std::size_t first) {
    const auto index = static_cast<NodeIndex>(table_.nodes.size());
    node.first_child = static_cast<std::uint32_t>(table_.children.size());
    node.child_count = static_cast<std::uint32_t>(finished_.size() - first);
    for (std::uint32_t position = 0; position < node.child_count; ++position) {
      const NodeIndex child = finished_[first + position];
      table_.nodes[child].parent = index;
      table_.nodes[child].position = position;
      table_.children.push_back(child);
    }
    table_.is_config_child.resize(table_.children.size(), 0);
    finished_.resize(first);
  }

  const Namespace& space_;
  const CollectionInputs& inputs_;
  host::NodeReader reader_;
  NodeTable table_;
  std::vector<NodeIndex> finished_;  // nodes whose parents are still open, in order
};

}  // namespace

NodeTable collect_nodes(const Namespace& space, PyObject* graph, const CollectionInputs& inputs) {
  Collector collector(space, inputs);
  const auto enter = [&](PyObject* node, const NodePath& path) {
    return collector.enter(node, path);
  };
  const auto leave = [&](const Frame& frame, const NodePath& path) {
    collector.leave(frame, path);
  };
  host::walk_graph(graph, space.names.root, enter, leave);
  return collector.take_table();
}

}  // namespace quernbrook::graph_prep
