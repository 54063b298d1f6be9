#pragma once

#include "graph_prep/node_table.hpp"

namespace quernbrook::graph_prep {

/// The nodes below and including `root` in depth-first post-order, children in their order. A node
/// with several parents appears once under each.
std::vector<NodeIndex> execution_order(const NodeTable& table, NodeIndex root);

}  // namespace quernbrook::graph_prep
