#pragma once

#include <vector>

#include "graph_prep/node_table.hpp"
#include "host/namespace.hpp"
#include "python/numpy_api.hpp"

namespace quernbrook::evaluation {

/// The variables of one run. They die with it.
struct Run {
  explicit Run(const Namespace& namespace_of_module) : space(namespace_of_module) {}

  const Namespace& space;

  // The arguments of evaluate().
  Object graph;
  Object context;
  Object function_states;  // or None
  Object is_cold_start;
  Object bound_argument;  // or None
  Object data_nan_features;

  // The context's features and their dimensions, as the host's shape gives them and as numbers.
  Object features;
  Object row_count;
  Object column_count;
  Object row_shape;  // the tuple (N_alloc,)
  npy_intp rows = 0;
  npy_intp columns = 0;

  // The tables of the general road.
  graph_prep::NodeTable table;
  std::vector<graph_prep::NodeIndex> order;
  Object bound_instances;              // the caller's mapping itself, or a new dict
  Object precomputed_outputs;          // by canonical id
  Object precomputed_nan_source;       // by canonical id
  std::vector<Object> node_outputs;    // one matrix a node where they are collected
  bool owns_precomputed_outputs = false;  // the host gave none
  bool collects_node_outputs = false;

  Object registers;  // (nodes, N_alloc)
  Object weights;    // (T, N_alloc)
  Object states;     // dict of state key to state
  Object nan_source;

  graph_prep::NodeIndex root() const {
    return static_cast<graph_prep::NodeIndex>(table.nodes.size() - 1);
  }
};

/// KeyError for a node that is missing in one of the run's tables.
[[noreturn]] void raise_missing_path(const Run& run, graph_prep::NodeIndex node);

/// Evaluates the graph: the phases of a run, in their order.
Object evaluate_run(Run& run);

}  // namespace quernbrook::evaluation
