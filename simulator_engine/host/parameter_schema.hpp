#pragma once

#include <utility>

#include "host/namespace.hpp"

// Reading of a registry entry's parameter schema.
namespace quernbrook::host {

/// The names, in schema order, of the parameters that literal children fill: a list of str.
Object config_parameter_names(const Namespace& space, PyObject* entry);

/// The set of parameter names that an entry's schema knows.
Object schema_names(const Namespace& space, PyObject* entry);

/// The constant _CONFIG_CHILD_TYPES: the kinds of children that can be configuration.
Object make_config_child_types(const Namespace& space);

extern PyMethodDef parameter_schema_functions[];

}  // namespace quernbrook::host
