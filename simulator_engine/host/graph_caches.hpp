#pragma once

#include "host/namespace.hpp"

// What is kept on graph nodes themselves, so that it lives as long as the graph.
namespace quernbrook::host {

/// The slot's value, or None.
Object graph_cache_get(const Namespace& space, PyObject* graph, PyObject* key);
/// Writes the slot; a node that refuses the write is not cached on.
void graph_cache_set(const Namespace& space, PyObject* graph, PyObject* key, PyObject* value);

extern PyMethodDef graph_cache_functions[];

}  // namespace quernbrook::host
