#pragma once

#include "host/namespace.hpp"

// Filter subtrees of a graph: their conversion for the filtration library, and their description.
namespace quernbrook::filtration {

/// The constant FILTRATION_NODE_TYPES: the kinds of nodes that are filter operators.
Object make_filtration_node_types();

extern PyMethodDef filter_tree_functions[];

}  // namespace quernbrook::filtration
