#include "host/graph_node.hpp"

#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

void require_node_instance(const Namespace& space, PyObject* node, const NodePath& path) {
  if (is_instance(node, space.global(space.names.FunctionGraphNode))) return;
  const Object text =
      message("Graph node '", path.text(), "' must be FunctionGraphNode; got ", type_name(node));
  raise(space.global(space.names.SchemaError), text);
}

bool has_field(const Namespace& space, PyObject* node, PyObject* key) {
  require_node_instance(space, node, LabelPath("field-check"));
  return has_attribute(node, key);
}

Object require_field(const Namespace& space, PyObject* node, PyObject* key, const NodePath& path) {
  if (!has_field(space, node, key)) {
    const Object text = message("Graph node '", path.text(), "' missing required key: ", key);
    raise(space.evaluation_error(), text);
  }
  return attribute(node, key);
}

Object children_of(const Namespace& space, PyObject* node) {
  require_node_instance(space, node, LabelPath("children"));
  Object children = attribute(node, space.names.children);
  return truth(children) ? children : Object::own(PyList_New(0));
}

Object config_of(const Namespace& space, PyObject* node) {
  require_node_instance(space, node, LabelPath("config"));
  if (attribute(node, space.names.config).is_none()) return Object::own(PyDict_New());
  const Object config = attribute(node, space.names.config);
  return Object::own(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), config));
}

namespace {

Object require_graph_node_instance(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_require_graph_node_instance", {"node", "path"}};
  const auto [node, path] = parameters.bind(arguments);
  require_node_instance(space, node, SpeltPath(path));
  return Object::share(node);
}

Object graph_has_field(Namespace& space, const CallArguments& arguments) {
  static constexpr Parameters<2> parameters{"_graph_has_field", {"node", "key"}};
  const auto [node, key] = parameters.bind(arguments);
  return Object::own(PyBool_FromLong(has_field(space, node, key)));
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
