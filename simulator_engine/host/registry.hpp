#pragma once

#include "host/namespace.hpp"
#include "python/protocol.hpp"

// What the module asks of a registry of functions. The context's attribute is read at each use.
namespace quernbrook::host {

inline Object registry_of(const Namespace& space, PyObject* context) {
  return python::attribute(context, space.names.registry);
}

/// `registry.has(name)`: the name is known and can be created.
bool registry_has(const Namespace& space, PyObject* registry, PyObject* name);
Object registry_entry(const Namespace& space, PyObject* registry, PyObject* name);

/// True when the context's registry is there and has the function.
bool registry_can_instantiate(const Namespace& space, PyObject* context, PyObject* function_name);

/// `context.registry.create_instance(name, **config)`.
Object create_instance(const Namespace& space, PyObject* context, PyObject* function_name,
                       PyObject* config);
/// Restores the instance where the state holds data, else creates a fresh one.
Object create_instance_from_state(const Namespace& space, PyObject* context,
                                  PyObject* function_name, PyObject* state, PyObject* config);

}  // namespace quernbrook::host
