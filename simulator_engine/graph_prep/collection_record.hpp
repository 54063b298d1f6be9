#pragma once

#include "graph_prep/node_collection.hpp"

// The tables of a graph as plain dictionaries, kept on its root between runs with bound instances.
namespace quernbrook::graph_prep {

/// The record of a table that was just collected.
Object make_collection_record(const Namespace& space, NodeTable& table);

/// The table that a record holds, as its host left it, with this run's columns and instances.
NodeTable load_collection_record(const Namespace& space, PyObject* record,
                                 const CollectionInputs& inputs);

}  // namespace quernbrook::graph_prep
