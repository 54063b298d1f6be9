#include "graph_prep/execution_order.hpp"

#include "python/error.hpp"

namespace quernbrook::graph_prep {

namespace {

/// Only the tables that a host altered can have one: a way down that is longer than all nodes.
[[noreturn]] void refuse_cycle() {
  python::raise_text(PyExc_RecursionError,
                     "maximum recursion depth exceeded: a node of the graph is its own descendant");
}

}  // namespace

std::vector<NodeIndex> execution_order(const NodeTable& table, NodeIndex root) {
  struct Frame {
    NodeIndex node;
    std::uint32_t next_child;
  };
  std::vector<NodeIndex> order;
  order.reserve(table.nodes.size());
  std::vector<Frame> frames{{root, 0}};
  while (!frames.empty()) {
    Frame& frame = frames.back();
    const auto children = table.children_of(table.nodes[frame.node]);
    if (frame.next_child < children.size()) {
      if (frames.size() == table.nodes.size()) refuse_cycle();
      frames.push_back({children[frame.next_child++], 0});
    } else {
      order.push_back(frame.node);
      frames.pop_back();
    }
  }
  return order;
}

}  // namespace quernbrook::graph_prep
