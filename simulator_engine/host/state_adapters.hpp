#pragma once

#include "host/namespace.hpp"

// States come as FunctionState, as raw dicts or as the typed states of a registry's module.
namespace quernbrook::host {

/// The payload of a state, never None: its `state_data`, or the state itself.
Object function_state_data(const Namespace& space, PyObject* state);

/// The form of the state that the registry's restore takes.
Object state_for_registry_restore(const Namespace& space, PyObject* registry,
                                  PyObject* function_name, PyObject* state);

extern PyMethodDef state_adapter_functions[];

}  // namespace quernbrook::host
