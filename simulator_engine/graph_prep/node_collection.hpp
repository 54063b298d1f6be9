#pragma once

#include "graph_prep/node_table.hpp"

namespace quernbrook::graph_prep {

/// What collection takes from the run.
struct CollectionInputs {
  PyObject* context;
  PyObject* function_states;  // or None
  PyObject* bound_argument;   // the caller's bound instances, or None
  PyObject* bound_instances;  // the same, or an empty dict
};

/// Walks the graph once, children first: folds configuration children into their functions and
/// creates, restores or takes over every function instance.
NodeTable collect_nodes(const Namespace& space, PyObject* graph, const CollectionInputs& inputs);

}  // namespace quernbrook::graph_prep
