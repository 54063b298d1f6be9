#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "host/namespace.hpp"

// A graph as a flat table. A node's index is its place in post-order: children stand before their
// parents and the root is last. Inside a run a node is its index; paths are texts for people,
// messages and keys, and are spelt when somebody needs one.
namespace quernbrook::graph_prep {

using NodeIndex = std::uint32_t;
inline constexpr NodeIndex no_node = std::numeric_limits<NodeIndex>::max();

enum class NodeKind : std::uint8_t {
  leaf,  // "feature" and "aggregation" are the same to a run
  float_literal,
  int_literal,
  string_literal,
  bool_literal,
  filtration,
  reduction,
  rotation,
  unknown,
  compared,  // the kind is no plain str: whoever needs it compares it anew
};

/// The kind that a node's type value names; `compared` for anything but a plain str.
NodeKind kind_of(const Namespace& space, PyObject* type);
/// The kind by `type == name` in the order of the enumeration, whatever `type` is.
NodeKind compare_kind(const Namespace& space, PyObject* type);

struct Node {
  Object path;  // empty until somebody spelt it
  Object type;
  Object value;
  Object canonical_id;  // None where the node has none
  NodeKind kind = NodeKind::unknown;
  NodeIndex parent = no_node;
  std::uint32_t position = 0;  // among the parent's children
  std::uint32_t first_child = 0;
  std::uint32_t child_count = 0;
  Object literal;                       // of a float node
  Object feature_index;                 // of a leaf: its key in the sequence of features
  Py_ssize_t plain_feature_index = -1;  // the same, if it is a plain, non-negative int
  Object graph_node;                    // of a filtration: the node itself
  Object child_sequence;                // as the graph node holds it; empty without children
  // Of a function node:
  Object config;
  Object state_key;  // empty where the path is the key
  Object instance;
  NodeIndex filtration_child = no_node;  // of a reduction: its first filtration child
  bool is_reduction = false;
  bool is_bound = false;
};

/// `node.type == kind`, compared anew where the kind is no plain str.
bool is_kind(const Namespace& space, const Node& node, NodeKind kind);

/// Looks the leaf's feature name up in the context's feature index.
void set_feature_index(const Namespace& space, Node& node, PyObject* name, PyObject* context);

struct NodeTable {
  std::vector<Node> nodes;
  NodeIndex root = no_node;
  std::vector<NodeIndex> leaves;     // in the order of their feature look-ups
  std::vector<NodeIndex> functions;  // in the order of their instances
  /// The children of all nodes; a node's span lies at `first_child`.
  std::vector<NodeIndex> children;
  /// Parallel to `children`: nonzero where the child was consumed as configuration.
  std::vector<std::uint8_t> is_config_child;

  std::span<const NodeIndex> children_of(const Node& node) const {
    return {children.data() + node.first_child, node.child_count};
  }
  /// The node's path, "root.c0.c2".
  Object path(const Namespace& space, NodeIndex index) const;
  /// Spells the paths of all nodes, each on from its parent's: one by one they would take longer.
  void spell_paths(const Namespace& space);
  /// The key of the node's function state.
  Object state_key(const Namespace& space, NodeIndex index) const;
};

}  // namespace quernbrook::graph_prep
