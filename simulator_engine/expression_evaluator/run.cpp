#include "expression_evaluator/run.hpp"

#include "expression_evaluator/row_loop.hpp"
#include "graph_prep/config_preflight.hpp"
#include "graph_prep/execution_order.hpp"
#include "graph_prep/node_collection.hpp"
#include "host/universe.hpp"
#include "python/array.hpp"
#include "python/call.hpp"
#include "python/error.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"

namespace quernbrook::evaluation {

using namespace python;
using graph_prep::Node;
using graph_prep::NodeIndex;
using host::Names;

namespace {

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
  const auto dimension = [&](Py_ssize_t place) {
    const Object first = item(run.features, integer(0));
    return item(attribute(first, names.shape), integer(place));
  };
  run.row_count = dimension(0);
  run.column_count = dimension(1);
  run.rows = index_value(run.row_count);
  run.columns = index_value(run.column_count);
  run.row_shape = Object::own(PyTuple_Pack(1, run.column_count.get()));
}

void build_universe_mask(Run& run) {
  PyObject* name = run.space.names.universe_mask;
  if (!attribute(run.context, name).is_none()) return;
  set_attribute(run.context, name,
                host::universe_mask(run.space, run.context, run.rows, run.columns));
}

Object fast_road_result(Run& run, PyObject* weights) {
  const Object states = Object::own(PyDict_New());
  return call(run.space.global(run.space.names.EvaluationResult), weights, states);
}

/// The result of the first fast road that takes the graph; empty if none does.
Object try_fast_roads(Run& run) {
  const Namespace& space = run.space;
  const Object leaf_is_open =
      call_named(space.global(space.names._can_use_leaf_fast_path), space.data_nan_keyword,
                 run.graph, run.context, run.function_states, run.data_nan_features);
  if (truth(leaf_is_open)) {
    const Object weights =
        call(space.global(space.names._evaluate_leaf_fast), run.graph, run.context);
    return fast_road_result(run, weights);
  }
  return {};
}

Object or_new_dict(const Object& mapping) {
  return mapping.is_none() ? Object::own(PyDict_New()) : mapping;
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

void collect_nodes(Run& run) {
  run.table = graph_prep::collect_nodes(run.space, run.graph,
                                        {.context = run.context,
                                         .function_states = run.function_states,
                                         .bound_argument = run.bound_argument,
                                         .bound_instances = run.bound_instances});
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
  const Object expected =
      Object::own(PyTuple_Pack(2, run.row_count.get(), run.column_count.get()));
  for (NodeIndex index = 0; index < run.table.nodes.size(); ++index) {
    const Node& node = run.table.nodes[index];
    if (node.feature_index.empty()) continue;
    const Object shape =
        attribute(item(run.features, node.feature_index), run.space.names.shape);
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
  const Object provided =
      Object::own(PySet_New(call_method(run.function_states, run.space.names.keys)));
  const Object known = Object::own(PySet_New(nullptr));
  const NodeIndex count = static_cast<NodeIndex>(run.table.nodes.size());
  for (NodeIndex index = 0; index < count; ++index) {
    if (run.table.nodes[index].is_function) {
      checked(PySet_Add(known, run.table.state_key(run.space, index)));
    }
  }
  if (!compare(provided, known, Py_LE)) refuse_state_keys(run);

  const Object stateful = Object::own(PySet_New(nullptr));
  for (NodeIndex index = 0; index < count; ++index) {
    const Node& node = run.table.nodes[index];
    if (node.is_function && truth(attribute(node.instance, run.space.names.stateful))) {
      checked(PySet_Add(stateful, run.table.state_key(run.space, index)));
    }
  }
  if (!compare(stateful, provided, Py_LE)) refuse_state_keys(run);
}

npy_intp register_count(const Run& run) { return static_cast<npy_intp>(run.table.nodes.size()); }

void order_nodes(Run& run) {
  run.order = graph_prep::execution_order(run.table, run.root());
  set_attribute(run.context, run.space.names.registers, zeros(register_count(run), run.columns));
}

void prepare_buffers(Run& run) {
  run.weights = zeros(run.rows, run.columns);
  run.registers = zeros(register_count(run), run.columns);
  run.nan_source = Object::own(PyDict_New());
  const bool by_default = truth(run.bound_instances) || truth(run.precomputed_outputs);
  run.collects_node_outputs = truth(attribute_or(
      run.context, run.space.names._collect_node_outputs, by_default ? Py_True : Py_False));
  if (!run.collects_node_outputs) return;
  run.node_outputs.reserve(run.table.nodes.size());
  for (std::size_t node = 0; node < run.table.nodes.size(); ++node) {
    run.node_outputs.push_back(zeros(run.rows, run.columns));
  }
}

void publish(Run& run) {
  set_attribute(run.context, run.space.names.registers, run.registers);
}

Object node_outputs_by_path(const Run& run) {
  if (!run.collects_node_outputs) return Object::none();
  Object outputs = Object::own(PyDict_New());
  for (NodeIndex index = 0; index < run.node_outputs.size(); ++index) {
    checked(PyDict_SetItem(outputs, run.table.path(run.space, index), run.node_outputs[index]));
  }
  return outputs;
}

Object make_result(Run& run) {
  const Object states = Object::own(PyDict_New());
  const Object outputs = node_outputs_by_path(run);
  return call_named(run.space.global(run.space.names.EvaluationResult),
                    run.space.result_keywords, run.weights, states, run.nan_source, outputs);
}

}  // namespace

void raise_missing_path(const Run& run, NodeIndex node) {
  raise_key_error(run.table.path(run.space, node));
}

Object evaluate_run(Run& run) {
  // 1: transform merge
  validate_shapes(run);  // 2
  // 3: stage data leaves
  fix_dimensions(run);                                                              // 4
  build_universe_mask(run);                                                         // 5
  graph_prep::preflight_explicit_config(run.space, run.context, run.graph);         // 6
  if (Object result = try_fast_roads(run); !result.empty()) return result;          // 7
  prepare_tables(run);                                                              // 8
  // 9: cache decision
  collect_nodes(run);         // 10
  check_feature_shapes(run);  // 11
  check_state_keys(run);      // 12
  order_nodes(run);           // 13
  // 14: warm-up figure
  prepare_buffers(run);  // 15
  // 16: cold-start pre-fill
  // 17: warm-up deduction
  run_rows(run);  // 18
  publish(run);   // 19
  // 20: warm-up rows of the weights
  // 21: states
  return make_result(run);  // 22
}

}  // namespace quernbrook::evaluation
