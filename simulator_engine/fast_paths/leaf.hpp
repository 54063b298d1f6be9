#pragma once

#include "host/namespace.hpp"

// The road of a graph that is a single leaf.
namespace quernbrook::fast_paths {

/// True for the kinds "feature" and "aggregation".
bool is_leaf_kind(const Namespace& space, PyObject* kind);

extern PyMethodDef leaf_functions[];

}  // namespace quernbrook::fast_paths
