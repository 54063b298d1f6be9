#include "host/graph_node.hpp"

#include "python/containers.hpp"
#include "python/dict_insides.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

bool is_node(const Namespace& space, PyObject* node) {
  const Object node_class = space.global(space.names.FunctionGraphNode);
  return reinterpret_cast<PyObject*>(type_of(node)) == node_class || is_instance(node, node_class);
}

}  // namespace

void require_node_instance(const Namespace& space, PyObject* node, const NodePath& path) {
  if (is_node(space, node)) return;
  const Object text =
      message("Graph node '", path.text(), "' must be FunctionGraphNode; got ", type_name(node));
  raise(space.global(space.names.SchemaError), text);
}

bool has_field(const Namespace& space, PyObject* node, PyObject* key) {
  require_node_instance(space, node, LabelPath("field-check"));
  return has_attribute(node, key);
}

Object optional_field(const Namespace& space, PyObject* node, PyObject* key) {
  require_node_instance(space, node, LabelPath("field-check"));
  Object value = plain_attribute(node, key);
  if (value.empty() && has_attribute(node, key)) value = attribute(node, key);
  return value;
}

Object require_field(const Namespace& space, PyObject* node, PyObject* key, const NodePath& path) {
  Object value = optional_field(space, node, key);
  if (value.empty()) {
    raise(space.evaluation_error(),
          message("Graph node '", path.text(), "' missing required key: ", key));
  }
  return value;
}

Object children_of(const Namespace& space, PyObject* node) {
  require_node_instance(space, node, LabelPath("children"));
  Object children = plain_attribute(node, space.names.children);
  if (children.empty()) children = attribute(node, space.names.children);
  return truth(children) ? children : new_list();
}

Object explicit_config(const Namespace& space, PyObject* node) {
  require_node_instance(space, node, LabelPath("config"));
  Object config = plain_attribute(node, space.names.config);
  if (!config.empty()) return config;
  config = attribute(node, space.names.config);
  return config.is_none() ? config : attribute(node, space.names.config);
}

Object config_of(const Namespace& space, PyObject* node) {
  const Object config = explicit_config(space, node);
  if (config.is_none()) return new_dict();
  return dict_of(config);
}

bool NodeReader::is_plain(PyObject* node) {
  PyTypeObject* type = type_of(node);
  if (type == plain_class_ && only_plain_values_) return true;
  const Names& names = space_.names;
  const Object node_class = space_.global(names.FunctionGraphNode);
  if (reinterpret_cast<PyObject*>(type) != node_class) return false;
  for (PyObject* name :
       {names.type.get(), names.node.get(), names.config.get(), names.children.get()}) {
    if (!has_plain_attribute(type, name)) return false;
  }
  plain_class_ = type;
  return true;
}

Object NodeReader::plain_field(PyObject* node, PyObject* key) {
  return is_plain(node) ? own_attribute(node, key) : Object();
}

void NodeReader::require_instance(PyObject* node, const NodePath& path) {
  if (is_plain(node)) return;
  foreign_code_ran();
  require_node_instance(space_, node, path);
}

Object NodeReader::require(PyObject* node, PyObject* key, const NodePath& path) {
  Object value = plain_field(node, key);
  if (value.empty()) {
    foreign_code_ran();
    value = require_field(space_, node, key, path);
  }
  // What is done with any other value may run the host's code at any time from now on.
  if (!is_plain_value(value)) only_plain_values_ = false;
  return value;
}

Object NodeReader::optional_field(PyObject* node, PyObject* key) {
  if (is_plain(node) && find_on_type(type_of(node), key).empty()) {
    Object value = own_attribute(node, key);
    if (!value.empty()) return value;
  }
  foreign_code_ran();
  return host::optional_field(space_, node, key);
}

Object NodeReader::children(PyObject* node) {
  Object children = plain_field(node, space_.names.children);
  if (children.is_none()) return {};
  if (!children.empty() && is_exact_sequence(children)) {
    return items_of(children).empty() ? Object() : children;
  }
  only_plain_values_ = false;
  return children_of(space_, node);
}

Object NodeReader::config(PyObject* node) {
  const Object config = plain_field(node, space_.names.config);
  if (config.is_none()) return config;
  if (!config.empty() && is_exact_dict(config) && has_string_keys(config)) {
    return copy_of_dict(config);
  }
  foreign_code_ran();
  const Object any = config.empty() ? explicit_config(space_, node) : config;
  return any.is_none() ? any : dict_of(any);
}

namespace {

Object require_graph_node_instance(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_require_graph_node_instance", {"node", "path"}};
  const auto [node, path] = parameters.bind(arguments);
  require_node_instance(space, node, SpeltPath(path));
  return Object::borrow(node);
}

Object graph_has_field(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_graph_has_field", {"node", "key"}};
  const auto [node, key] = parameters.bind(arguments);
  return boolean(has_field(space, node, key));
}

Object require_graph_field(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<3> parameters{"_require_graph_field", {"node", "key", "path"}};
  const auto [node, key, path] = parameters.bind(arguments);
  return require_field(space, node, key, SpeltPath(path));
}

Object require_graph_type_value(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_require_graph_type_value", {"node", "path"}};
  const auto [node, path] = parameters.bind(arguments);
  return type_value(space, node, SpeltPath(path));
}

Object require_graph_node_value(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_require_graph_node_value", {"node", "path"}};
  const auto [node, path] = parameters.bind(arguments);
  return node_value(space, node, SpeltPath(path));
}

Object graph_children(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_graph_children", {"node"}};
  const auto [node] = parameters.bind(arguments);
  return children_of(space, node);
}

Object graph_config_dict(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<1> parameters{"_graph_config_dict", {"node"}};
  const auto [node] = parameters.bind(arguments);
  return config_of(space, node);
}

}  // namespace

PyMethodDef graph_node_functions[] = {
    function_definition<require_graph_node_instance>(
        "_require_graph_node_instance",
        "_require_graph_node_instance($module, /, node, path)\n--\n\n"
        "Return the node, or raise SchemaError if it is no FunctionGraphNode."),
    function_definition<graph_has_field>(
        "_graph_has_field",
        "_graph_has_field($module, /, node, key)\n--\n\n"
        "Tell whether the graph node has the attribute, also one that holds None."),
    function_definition<require_graph_field>(
        "_require_graph_field",
        "_require_graph_field($module, /, node, key, path)\n--\n\n"
        "Return a required graph-node field or fail before evaluation proceeds."),
    function_definition<require_graph_type_value>(
        "_require_graph_type_value",
        "_require_graph_type_value($module, /, node, path)\n--\n\n"
        "Return the node's kind; EvaluationError if it has none."),
    function_definition<require_graph_node_value>(
        "_require_graph_node_value",
        "_require_graph_node_value($module, /, node, path)\n--\n\n"
        "Return the node's name or literal value; EvaluationError if it has none."),
    function_definition<graph_children>(
        "_graph_children",
        "_graph_children($module, /, node)\n--\n\n"
        "Return the node's own child sequence, or a new empty list if it has no children."),
    function_definition<graph_config_dict>(
        "_graph_config_dict",
        "_graph_config_dict($module, /, node)\n--\n\n"
        "Return a new dict with the node's explicit configuration."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace quernbrook::host
