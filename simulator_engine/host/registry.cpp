#include "host/registry.hpp"

#include "host/state_adapters.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/protocol.hpp"

namespace quernbrook::host {

using namespace python;

bool registry_has(const Namespace& space, PyObject* registry, PyObject* name) {
  return truth(call_method(registry, space.names.has, name));
}

Object registry_entry(const Namespace& space, PyObject* registry, PyObject* name) {
  return call_method(registry, space.names.get_entry, name);
}

bool registry_can_instantiate(const Namespace& space, PyObject* context, PyObject* function_name) {
  if (registry_of(space, context).is_none()) return false;
  return registry_has(space, registry_of(space, context), function_name);
}

namespace {

/// `factory(*arguments, **config)`; the factory never sees the dict itself.
Object call_with_config(PyObject* factory, PyObject* arguments, PyObject* config) {
  const Object keywords = copy_of_dict(config);
  return call_with(factory, arguments, keywords);
}

}  // namespace

Object create_instance(const Namespace& space, PyObject* context, PyObject* function_name,
                       PyObject* config) {
  const Object factory = attribute(registry_of(space, context), space.names.create_instance);
  return call_with_config(factory, tuple_of(function_name), config);
}

Object create_instance_from_state(const Namespace& space, PyObject* context,
                                  PyObject* function_name, PyObject* state, PyObject* config) {
  if (!truth(function_state_data(space, state))) {
    return create_instance(space, context, function_name, config);
  }
  const Object restored =
      state_for_registry_restore(space, registry_of(space, context), function_name, state);
  const Object factory =
      attribute(registry_of(space, context), space.names.create_instance_from_state);
  return call_with_config(factory, tuple_of(function_name, restored), config);
}

}  // namespace quernbrook::host
