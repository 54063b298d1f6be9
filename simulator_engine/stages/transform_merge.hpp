#pragma once

#include "host/namespace.hpp"

namespace quernbrook::stages {

/// Lays the context's transforms around a copy of the graph, whose functions keep the state keys
/// of the bare graph, and empties the pipeline. Returns the merged graph.
Object merge_transforms(const Namespace& space, PyObject* graph, PyObject* context);

/// The function _annotate_state_identities.
extern PyMethodDef transform_merge_functions[];

}  // namespace quernbrook::stages
