#pragma once

#include <cstdint>
#include <vector>

#include "expression_evaluator/rows/data_nan.hpp"
#include "graph_prep/node_table.hpp"
#include "host/namespace.hpp"
#include "python/dict_insides.hpp"

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

  // The context's features and their dimensions, T and N_alloc, as the host's shape gives them.
  Object features;
  Object row_count;
  Object column_count;
  // The same as the row loop takes them.
  Object row_shape;  // the tuple (N_alloc,)
  npy_intp rows = 0;
  npy_intp columns = 0;

  // The tables of the general road.
  bool uses_collection_cache = false;
  Object cached_record;  // the tables kept on the graph, or None
  graph_prep::NodeTable table;
  std::vector<graph_prep::NodeIndex> order;
  Object bound_instances;                 // the caller's mapping itself, or a new dict
  Object precomputed_outputs;             // by canonical id
  Object precomputed_nan_source;          // by canonical id
  std::vector<Object> node_outputs;       // one matrix a node where they are collected
  bool owns_precomputed_outputs = false;  // the host gave none
  bool collects_node_outputs = false;

  Object registers;          // (nodes, N_alloc)
  Object weights;            // (T, N_alloc)
  Object extraction_buffer;  // (signals, N_alloc), or None
  Object states;             // dict of state key to state

  DataNan data_nan;
  /// Of the pool of signals.
  python::StringKeys pool_keys;

  std::vector<Object> filtrations;  // results by node; empty until resolved
  Object warmup_rows;               // leading rows of the weights to blank, an int
};

/// A new row of NaNs.
Object nan_row(const Run& run);

/// KeyError for a node that is missing in one of the run's tables.
[[noreturn]] void raise_missing_path(const Run& run, graph_prep::NodeIndex node);

}  // namespace quernbrook::evaluation
