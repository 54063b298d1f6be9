#pragma once

#include <optional>
#include <vector>

#include "graph_prep/node_collection.hpp"
#include "graph_prep/node_table.hpp"
#include "python/observations.hpp"
#include "python/string_keys.hpp"

namespace quernbrook::graph_prep {

/// The table of a record that was read before. It borrows everything from the record, which is
/// unchanged as long as the observations hold.
class KnownRecord {
 public:
  /// What can be known of a record whose table has just been read: nothing unless it is made of
  /// plain dicts, lists, sets and texts, as it is until a host puts others in.
  static std::optional<KnownRecord> of(const Namespace& space, PyObject* record,
                                       const NodeTable& table);

  /// The table anew, with the features and instances of this run; none where the record has changed
  /// or reading it may run foreign code.
  std::optional<NodeTable> read(const Namespace& space, PyObject* record, PyObject* feature_index,
                                const CollectionInputs& inputs);

  std::size_t bytes() const noexcept {
    return observations_.bytes() + nodes_.size() * (sizeof(KnownNode) + sizeof(NodeIndex));
  }

 private:
  struct KnownNode {
    PyObject* path;
    PyObject* type;
    PyObject* value;
    PyObject* canonical_id;
    PyObject* literal;  // or null, as all below
    PyObject* graph_node;
    PyObject* config;
    PyObject* state_key;
    PyObject* config_children;  // the set of their paths
    NodeKind kind;
    std::uint32_t first_child;
    std::uint32_t child_count;
    NodeIndex filtration_child;
    bool is_reduction;
  };

  bool observe(const Namespace& space, PyObject* record, const NodeTable& table);
  bool observe_node(const Namespace& space, PyObject* info, const NodeTable& table,
                    const Node& node);
  bool observe_reduction(const Namespace& space, PyObject* entry, const NodeTable& table,
                         const Node& node);
  static Node node_of(const KnownNode& known);

  std::vector<KnownNode> nodes_;
  std::vector<NodeIndex> children_;
  std::vector<NodeIndex> leaves_;
  std::vector<PyObject*> leaf_names_;
  std::vector<NodeIndex> functions_;
  NodeIndex root_ = no_node;
  python::Observations observations_;
  python::StringKeys feature_keys_;
  python::StringKeys bound_keys_;
};

}  // namespace quernbrook::graph_prep
