#include "expression_evaluator/run/phases.hpp"

#include <algorithm>
#include <limits>

#include "expression_evaluator/rows/row_loop.hpp"
#include "expression_evaluator/run/cold_start.hpp"
#include "expression_evaluator/run/fast_roads.hpp"
#include "expression_evaluator/run/instance_lifecycle.hpp"
#include "graph_prep/collection_record.hpp"
#include "graph_prep/config_preflight.hpp"
#include "graph_prep/execution_order.hpp"
#include "graph_prep/node_collection.hpp"
#include "host/universe.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/containers.hpp"
#include "python/error.hpp"
#include "python/numbers.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"
#include "stages/transform_merge.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using host::Names;

namespace {

void merge_transforms(Run& run) {
  const Names& names = run.space.names;
  if (!truth(attribute(run.context, names.transform_pipeline)) ||
      truth(attribute_or(run.context, names.transforms_already_combined, Py_False))) {
    return;
  }
  run.graph = stages::merge_transforms(run.space, run.graph, run.context);
}

void attach_stage_data(Run& run) {
  call(run.space.global(run.space.names._attach_stage_data_feature_leaves), run.graph, run.context);
}

void validate_shapes(Run& run) {
  const Names& names = run.space.names;
  if (truth(attribute_or(run.context, names._skip_evaluation_shape_validation, Py_False))) return;
  const Object validate = run.space.global(names._validate_evaluation_shapes);
  const Object features = attribute(run.context, names.features);
  const Object universe = attribute(run.context, names.universe);
  const Object useful_signals = attribute(run.context, names.useful_signals);
  call(validate, features, universe, useful_signals);
}

void fix_dimensions(Run& run) {
  const Names& names = run.space.names;
  run.features = attribute(run.context, names.features);
  if (length(run.features) == 0) {
    raise(run.space.evaluation_error(), as_text("No features provided"));
  }
  const auto dimension = [&](int axis) {
    const Object first = item(run.features, integer(0));
    if (is_plain_matrix(first)) return integer(python::dimension(first, axis));
    return item(attribute(first, names.shape), integer(axis));
  };
  run.row_count = dimension(0);
  run.column_count = dimension(1);
}

void build_universe_mask(Run& run) {
  PyObject* name = run.space.names.universe_mask;
  if (!attribute(run.context, name).is_none()) return;
  set_attribute(run.context, name,
                host::universe_mask(run.space, run.context, run.row_count, run.column_count));
}

void prepare_tables(Run& run) {
  const Names& names = run.space.names;
  run.bound_instances = or_new_dict(run.bound_argument);
  const Object outputs = attribute_or(run.context, names._precomputed_node_outputs, Py_None);
  run.owns_precomputed_outputs = outputs.is_none();
  run.precomputed_outputs = or_new_dict(outputs);
  run.precomputed_nan_source =
      or_new_dict(attribute_or(run.context, names._precomputed_node_nan_source, Py_None));
}

/// Only runs with bound instances use the record on the graph, and only on a graph that no
/// transforms are about to be laid around.
void decide_on_cache(Run& run) {
  const Namespace& space = run.space;
  const Names& names = space.names;
  run.cached_record = Object::none();
  run.uses_collection_cache =
      is_instance(run.graph, space.global(names.FunctionGraphNode)) &&
      !run.bound_argument.is_none() &&
      (!truth(attribute(run.context, names.transform_pipeline)) ||
       truth(attribute_or(run.context, names.transforms_already_combined, Py_False)));
  if (run.uses_collection_cache) {
    run.cached_record =
        call(space.global(names._graph_cache_get), run.graph, names._collect_nodes_cache);
  }
}

void fill_tables(Run& run) {
  const graph_prep::CollectionInputs inputs{.context = run.context,
                                            .function_states = run.function_states,
                                            .bound_argument = run.bound_argument,
                                            .bound_instances = run.bound_instances};
  if (!run.cached_record.is_none()) {
    run.table = graph_prep::load_collection_record(run.space, run.cached_record, inputs);
    return;
  }
  run.table = graph_prep::collect_nodes(run.space, run.graph, inputs);
  if (run.uses_collection_cache) {
    const Names& names = run.space.names;
    call(run.space.global(names._graph_cache_set), run.graph, names._collect_nodes_cache,
         graph_prep::make_collection_record(run.space, run.table));
  }
}

/// The function node, or other parent, that names itself in a complaint about the leaf.
Object parent_name(const Run& run, NodeIndex leaf) {
  for (const Node& node : run.table.nodes) {
    for (const NodeIndex child : run.table.children_of(node)) {
      if (child == leaf) return node.value;
    }
  }
  return Object::none();
}

void check_feature_shapes(Run& run) {
  const Object expected = tuple_of(run.row_count, run.column_count);
  const bool expects_plain = is_exact_int(run.row_count) && is_exact_int(run.column_count);
  const npy_intp rows = expects_plain ? plain_index(run.row_count) : -1;
  const npy_intp columns = expects_plain ? plain_index(run.column_count) : -1;
  for (const NodeIndex index : run.table.leaves) {
    const Node& node = run.table.nodes[index];
    const Object feature = item(run.features, node.feature_index);
    if (expects_plain && is_plain_matrix(feature, rows, columns)) continue;
    const Object shape = attribute(feature, run.space.names.shape);
    if (!not_equal(shape, expected)) continue;
    const Object type = run.space.global(run.space.names.EvaluationShapeError);
    const Object parent = parent_name(run, index);
    if (truth(parent)) {
      raise(type, message("Function '", parent, "' input feature '", node.value, "' has shape ",
                          shape, ", expected (", run.row_count, ", ", run.column_count, ")"));
    }
    raise(type, message("Feature '", node.value, "' has shape ", shape, ", expected (",
                        run.row_count, ", ", run.column_count, ")"));
  }
}

[[noreturn]] void refuse_state_keys(const Run& run) {
  raise(run.space.evaluation_error(),
        as_text("Function state keys do not match graph tree structure"));
}

void check_state_keys(Run& run) {
  if (run.function_states.is_none()) return;
  const Object provided = set_of(call_method(run.function_states, run.space.names.keys));
  const Object known = new_set();
  run.table.spell_paths(run.space);
  for (const NodeIndex index : run.table.functions) {
    add_to_set(known, run.table.state_key(run.space, index));
  }
  if (!compare(provided, known, Py_LE)) refuse_state_keys(run);

  const Object stateful = new_set();
  for (const NodeIndex index : run.table.functions) {
    if (truth(attribute(run.table.nodes[index].instance, run.space.names.stateful))) {
      add_to_set(stateful, run.table.state_key(run.space, index));
    }
  }
  if (!compare(stateful, provided, Py_LE)) refuse_state_keys(run);
}

npy_intp register_count(const Run& run) { return static_cast<npy_intp>(run.table.nodes.size()); }

void order_nodes(Run& run) {
  run.order = graph_prep::execution_order(run.table, run.table.root);
  run.filtrations.resize(run.table.nodes.size());
  run.row_shape = tuple_of(run.column_count);
  run.columns = array_size(run.column_count);
  set_attribute(run.context, run.space.names.registers, zeros(register_count(run), run.columns));
}

void compute_warmup_rows(Run& run) {
  run.warmup_rows = integer(0);
  if (truth(run.bound_instances)) return;
  const Object compute = run.space.global(run.space.names._compute_graph_warmup_rows);
  run.warmup_rows = call(compute, run.graph, attribute(run.context, run.space.names.registry));
}

void prepare_extraction_buffer(Run& run) {
  PyObject* name = run.space.names.useful_signals;
  run.extraction_buffer = Object::none();
  if (truth(attribute(run.context, name))) {
    run.extraction_buffer = zeros(length(attribute(run.context, name)), run.columns);
  }
}

void prepare_buffers(Run& run) {
  run.rows = array_size(run.row_count);
  // The row loop writes every row of these.
  run.weights = uninitialised(run.rows, run.columns);
  // Whatever goes row by row finds zeros there.
  run.registers = uninitialised(register_count(run), run.columns);
  prepare_extraction_buffer(run);
  run.data_nan.seed(run);
  const bool by_default = truth(run.bound_instances) || truth(run.precomputed_outputs);
  run.collects_node_outputs = truth(attribute_or(run.context, run.space.names._collect_node_outputs,
                                                 by_default ? Py_True : Py_False));
  if (!run.collects_node_outputs) return;
  run.node_outputs.reserve(run.table.nodes.size());
  for (std::size_t node = 0; node < run.table.nodes.size(); ++node) {
    run.node_outputs.push_back(uninitialised(run.rows, run.columns));
  }
}

void publish(Run& run) {
  set_attribute(run.context, run.space.names.registers, run.registers);
  if (!run.extraction_buffer.is_none()) {
    set_attribute(run.context, run.space.names.extraction_buffer, run.extraction_buffer);
  }
}

/// Only the weights lose their warm-up rows; the outputs of the nodes keep theirs.
void blank_warmup_rows(Run& run) {
  if (!compare(run.warmup_rows, integer(0), Py_GT)) return;
  // What a host's function made of the figure may be anything that a slice takes.
  const npy_intp rows = length_of_slice(smaller(run.warmup_rows, run.row_count), run.rows);
  std::fill_n(doubles(run.weights), rows * run.columns, std::numeric_limits<double>::quiet_NaN());
}

Object node_outputs_by_path(Run& run) {
  if (!run.collects_node_outputs) return Object::none();
  Object outputs = new_dict();
  run.table.spell_paths(run.space);
  for (NodeIndex index = 0; index < run.node_outputs.size(); ++index) {
    set_dict_item(outputs, run.table.nodes[index].path, run.node_outputs[index]);
  }
  return outputs;
}

Object make_result(Run& run) {
  const Object outputs = node_outputs_by_path(run);
  return call_named(run.space.global(run.space.names.EvaluationResult), run.space.result_keywords,
                    run.weights, run.states, run.data_nan.source(run), outputs);
}

}  // namespace

Object nan_row(const Run& run) {
  return filled_vector(run.columns, std::numeric_limits<double>::quiet_NaN());
}

void raise_missing_path(const Run& run, NodeIndex node) {
  raise_key_error(run.table.path(run.space, node));
}

Object evaluate_run(Run& run) {
  merge_transforms(run);                                                     // 1
  validate_shapes(run);                                                      // 2
  attach_stage_data(run);                                                    // 3
  fix_dimensions(run);                                                       // 4
  build_universe_mask(run);                                                  // 5
  graph_prep::preflight_explicit_config(run.space, run.context, run.graph);  // 6
  if (Object result = take_fast_road(run); !result.empty()) return result;   // 7
  prepare_tables(run);                                                       // 8
  decide_on_cache(run);                                                      // 9
  fill_tables(run);                                                          // 10
  check_feature_shapes(run);                                                 // 11
  check_state_keys(run);                                                     // 12
  order_nodes(run);                                                          // 13
  compute_warmup_rows(run);                                                  // 14
  prepare_buffers(run);                                                      // 15
  prefill_on_cold_start(run);                                                // 16
  deduct_rows_seen(run);                                                     // 17
  run_rows(run);                                                             // 18
  publish(run);                                                              // 19
  blank_warmup_rows(run);                                                    // 20
  collect_states(run);                                                       // 21
  return make_result(run);                                                   // 22
}

}  // namespace quernbrook::evaluation
