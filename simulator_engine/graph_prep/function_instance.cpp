#include "graph_prep/function_instance.hpp"

#include "host/registry.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::graph_prep {

using namespace python;
using host::NodePath;

namespace {

[[noreturn]] void refuse(const Namespace& space, const Object& text) {
  raise(space.global(space.names.FunctionExecutionError), text);
}

Object registry_instance(const Namespace& space, const CollectionInputs& inputs, const Node& node,
                         const NodePath& path) {
  if (inputs.function_states != Py_None) {
    const Object key = node.state_key.empty() ? path.text() : node.state_key;
    if (contains(inputs.function_states, key)) {
      const Object state = item(inputs.function_states, key);
      return host::create_instance_from_state(space, inputs.context, node.value, state,
                                              node.config);
    }
  }
  return host::create_instance(space, inputs.context, node.value, node.config);
}

/// Adopts the instance bound to `path`; false if there is none.
bool adopt_bound_instance(const Namespace& space, const CollectionInputs& inputs, Node& node,
                          PyObject* path) {
  if (is_exact_dict(inputs.bound_instances)) {
    node.instance = dict_item(inputs.bound_instances, path);
    if (node.instance.empty()) return false;
  } else {
    if (!contains(inputs.bound_instances, path)) return false;
    node.instance = item(inputs.bound_instances, path);
  }
  if (node.instance.is_none()) {
    refuse(space, message("Bound function instance is None for node '", path, "' (function '",
                          node.value, "')"));
  }
  node.is_bound = true;
  return true;
}

[[noreturn]] void refuse_missing(const Namespace& space, const Node& node, PyObject* path) {
  refuse(space, message("Bound function instance missing for path '", path, "' (function '",
                        node.value, "')"));
}

}  // namespace

void choose_instance(const Namespace& space, const CollectionInputs& inputs, Node& node,
                     const NodePath& path) {
  // Nothing is bound in an empty dict, so that its paths need no spelling.
  const bool may_be_bound =
      !is_exact_dict(inputs.bound_instances) || dict_size(inputs.bound_instances) > 0;
  if (may_be_bound && adopt_bound_instance(space, inputs, node, path.text())) return;
  if (inputs.bound_argument != Py_None) refuse_missing(space, node, path.text());
  if (!host::registry_can_instantiate(space, inputs.context, node.value)) {
    refuse(space,
           message("Function '", node.value, "' at node '", path.text(),
                   "' is not bound and cannot be instantiated from the evaluation registry"));
  }
  node.instance = registry_instance(space, inputs, node, path);
}

void take_bound_instance(const Namespace& space, const CollectionInputs& inputs, Node& node,
                         PyObject* path) {
  if (!adopt_bound_instance(space, inputs, node, path)) refuse_missing(space, node, path);
}

}  // namespace quernbrook::graph_prep
