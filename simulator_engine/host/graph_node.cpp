#include "host/graph_node.hpp"

#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/string_keys.hpp"
#include "python/text.hpp"

namespace quernbrook::host {

using namespace python;

namespace {

bool is_node(const Namespace& space, PyObject* node) {
  const Object node_class = space.global(space.names.FunctionGraphNode);
  return reinterpret_cast<PyObject*>(Py_TYPE(node)) == node_class || is_instance(node, node_class);
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
  return truth(children) ? children : Object::own(PyList_New(0));
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
  if (config.is_none()) return Object::own(PyDict_New());
  return Object::own(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), config));
}

bool is_plain_node_class(const Namespace& space, PyTypeObject* type) {
  const Names& names = space.names;
  if (type->tp_dictoffset <= 0) return false;
  for (PyObject* name :
       {names.type.get(), names.node.get(), names.config.get(), names.children.get()}) {
    if (!has_plain_attribute(type, name)) return false;
  }
  return true;
}

bool NodeReader::is_plain(PyObject* node) {
  PyTypeObject* type = Py_TYPE(node);
  if (type == type_ && is_current_ && only_plain_values_) return true;
  const Object node_class = space_.global(space_.names.FunctionGraphNode);
  if (reinterpret_cast<PyObject*>(type) != node_class) return false;
  // A class that was not touched since has its version still.
  if (type != type_ || version_ == 0 || version_of(type) != version_) {
    if (!is_plain_node_class(space_, type)) return false;
    type_ = type;
    version_ = version_of(type);
  }
  is_current_ = true;
  return true;
}

Object NodeReader::plain_field(PyObject* node, PyObject* key) {
  if (!is_plain(node)) return {};
  PyObject* attributes = dictionary_of(node);
  return attributes == nullptr ? Object() : attributes_.item(attributes, key);
}

void NodeReader::note(PyObject* node) {
  if (observations_ == nullptr) return;
  PyObject* attributes = dictionary_of(node);
  if (attributes != nullptr && has_string_keys(attributes)) {
    observations_->note_instance(node);
  } else {
    observations_ = nullptr;
  }
}

void NodeReader::require_instance(PyObject* node, const NodePath& path) {
  if (is_plain(node)) {
    note(node);
    return;
  }
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
  if (!PyUnicode_CheckExact(value.get()) && !PyLong_CheckExact(value.get()) &&
      !PyFloat_CheckExact(value.get()) && !PyBool_Check(value.get())) {
    met_odd_value();
  }
  return value;
}

Object NodeReader::optional_field(PyObject* node, PyObject* key) {
  if (is_plain(node) && find_on_type(Py_TYPE(node), key) == nullptr) return plain_field(node, key);
  foreign_code_ran();
  return host::optional_field(space_, node, key);
}

Object NodeReader::children(PyObject* node) {
  Object children = plain_field(node, space_.names.children);
  if (observations_ != nullptr) observations_->finish_instance();
  if (children.is_none()) return {};
  if (!children.empty() &&
      (PyList_CheckExact(children.get()) || PyTuple_CheckExact(children.get()))) {
    if (observations_ != nullptr) observations_->note_items(children);
    return PySequence_Fast_GET_SIZE(children.get()) > 0 ? children : Object();
  }
  met_odd_value();
  return children_of(space_, node);
}

Object NodeReader::config(PyObject* node) {
  const Object config = plain_field(node, space_.names.config);
  if (config.is_none()) return config;
  if (!config.empty() && PyDict_CheckExact(config.get()) && has_string_keys(config)) {
    if (observations_ != nullptr) observations_->note_dict(config);
    return Object::own(PyDict_Copy(config));
  }
  foreign_code_ran();
  const Object any = config.empty() ? explicit_config(space_, node) : config;
  if (any.is_none()) return any;
  return Object::own(PyObject_CallOneArg(reinterpret_cast<PyObject*>(&PyDict_Type), any));
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
