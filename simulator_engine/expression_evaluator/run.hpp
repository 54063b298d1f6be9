#pragma once

#include <cstdint>
#include <vector>

#include "graph_prep/node_table.hpp"
#include "host/namespace.hpp"
#include "python/numpy_api.hpp"
#include "python/string_keys.hpp"

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

  // Marks of missing data, for the caller and by node.
  Object nan_source;
  std::vector<std::uint8_t> is_data_nan;
  bool tracks_data_nan = false;
  Object missing_row;  // a row of NaNs once there was one to store

  /// Of the pool of signals.
  mutable python::StringKeys pool_keys;

  /// Grows whenever foreign code may have run: what was read from the host before may be stale.
  std::uint64_t foreign_code_count = 0;

  std::vector<Object> filtrations;  // results by node; empty until resolved
  Object warmup_rows;               // leading rows of the weights to blank, an int
};

/// A new row of NaNs.
Object nan_row(const Run& run);

/// KeyError for a node that is missing in one of the run's tables.
[[noreturn]] void raise_missing_path(const Run& run, graph_prep::NodeIndex node);

/// Evaluates the graph: the phases of a run, in their order.
Object evaluate_run(Run& run);

}  // namespace quernbrook::evaluation
