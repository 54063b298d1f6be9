#pragma once

#include "graph_prep/node_collection.hpp"
#include "host/graph_node.hpp"

namespace quernbrook::graph_prep {

/// Takes the function node's instance from the caller, restores it or creates it, in this order.
void choose_instance(const Namespace& space, const CollectionInputs& inputs, Node& node,
                     const host::NodePath& path);

/// Takes the instance that the caller bound to `path`; it must be there.
void take_bound_instance(const Namespace& space, const CollectionInputs& inputs, Node& node,
                         PyObject* path);

}  // namespace quernbrook::graph_prep
