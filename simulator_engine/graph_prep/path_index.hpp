#pragma once

#include <vector>

#include "graph_prep/node_table.hpp"

namespace quernbrook::graph_prep {

/// Finds nodes by their paths. The texts of one record mostly are the same objects wherever they
/// stand, so that identity answers first and equality only where it has to. The paths must outlive
/// the index.
class PathIndex {
 public:
  explicit PathIndex(std::size_t most);

  void add(PyObject* path, NodeIndex index);
  /// The node at the path, or no_node.
  NodeIndex find(PyObject* path);

 private:
  struct Entry {
    PyObject* path = nullptr;
    NodeIndex index = no_node;
  };
  std::size_t place_of(PyObject* path) const noexcept;
  NodeIndex find_equal(PyObject* path);

  std::vector<Entry> entries_;  // open addressing, at most half full
  Object by_equality_;          // a dict, made when it is first needed
};

}  // namespace quernbrook::graph_prep
