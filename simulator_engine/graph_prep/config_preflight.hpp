#pragma once

#include "host/graph_node.hpp"

// The two checks of function configuration. They look alike and differ on purpose: the first sees
// what the nodes say, before any road is tried; the second what their literal children add.
namespace quernbrook::graph_prep {

/// Checks every node's shape and explicit configuration, a parent before its children.
void preflight_explicit_config(const Namespace& space, PyObject* context, PyObject* graph);

/// Checks the merged configuration of one function node.
void validate_merged_config(const Namespace& space, PyObject* context, PyObject* function_name,
                            PyObject* config, const host::NodePath& path);

}  // namespace quernbrook::graph_prep
