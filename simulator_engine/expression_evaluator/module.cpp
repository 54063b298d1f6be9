#include <initializer_list>

#include "expression_evaluator/context.hpp"
#include "expression_evaluator/evaluate.hpp"
#include "expression_evaluator/function_state.hpp"
#include "expression_evaluator/result.hpp"
#include "expression_evaluator/run/shape_validation.hpp"
#include "fast_paths/eligibility.hpp"
#include "fast_paths/leaf.hpp"
#include "fast_paths/longitudinal.hpp"
#include "fast_paths/rank.hpp"
#include "filtration/filter_tree.hpp"
#include "filtration/weight_extraction.hpp"
#include "graph_prep/warmup_rows.hpp"
#include "host/graph_caches.hpp"
#include "host/graph_node.hpp"
#include "host/namespace.hpp"
#include "host/parameter_schema.hpp"
#include "host/state_adapters.hpp"
#include "host/universe.hpp"
#include "python/containers.hpp"
#include "python/module.hpp"
#include "python/numbers.hpp"
#include "python/numpy_api.hpp"
#include "python/protocol.hpp"
#include "python/text.hpp"
#include "stages/stage_data.hpp"
#include "stages/stage_options.hpp"
#include "stages/transform_merge.hpp"

// The module's surface, and its life.
namespace quernbrook {
namespace {

using namespace python;

PyMethodDef* const functions[] = {
    evaluation::evaluate_functions,     evaluation::shape_validation_functions,
    fast_paths::eligibility_functions,  fast_paths::leaf_functions,
    fast_paths::longitudinal_functions, fast_paths::rank_functions,
    filtration::filter_tree_functions,  filtration::weight_extraction_functions,
    graph_prep::warmup_functions,       host::graph_cache_functions,
    host::graph_node_functions,         host::parameter_schema_functions,
    host::state_adapter_functions,      host::universe_functions,
    stages::stage_data_functions,       stages::stage_option_functions,
    stages::transform_merge_functions,
};

void add_classes(PyObject* module, const Namespace& space) {
  set_attribute(module, space.names.EvaluationContext, evaluation::make_context_class(module));
  set_attribute(module, space.names.EvaluationResult, evaluation::make_result_class(module));
  set_attribute(module, space.names.FunctionState, evaluation::make_function_state_class(module));
}

void add_constants(PyObject* module, const Namespace& space) {
  set_attribute(module, space.names._CONFIG_CHILD_TYPES, host::make_config_child_types(space));
  set_attribute(module, space.names.FILTRATION_NODE_TYPES,
                filtration::make_filtration_node_types());
  set_attribute(module, space.names._LONGITUDINAL_FAST_MIN_ROWS,
                integer(fast_paths::longitudinal_min_rows));
  set_attribute(module, space.names._LONGITUDINAL_FAST_NAMES,
                fast_paths::make_longitudinal_names(space));
}

Object keywords(std::initializer_list<const char*> names) {
  const Object list = new_list();
  for (const char* name : names) append(list, interned(name));
  return tuple_of_list(list);
}

void add_keywords(Namespace& space) {
  space.axis_keyword = keywords({"axis"});
  space.context_keyword = keywords({"context"});
  space.data_nan_keyword = keywords({"data_nan_features"});
  space.dtype_keyword = keywords({"dtype"});
  space.evaluation_keywords = keywords(
      {"function_states", "is_cold_start", "bound_function_instances", "data_nan_features"});
  space.filter_keywords = keywords({"function_name", "params", "children"});
  space.filtration_result_keywords =
      keywords({"passing_ids", "signal_count", "total_pool_size", "filter_diagnostics"});
  space.rank_multiply_keywords = keywords({"bound_function_instances", "data_nan_features"});
  space.result_keywords = keywords({"nan_source", "node_outputs"});
  space.signal_pnl_keyword = keywords({"signal_pnl"});
  space.state_failure_keywords = keywords({"instance_id", "node_id", "function_name"});
  space.state_keywords = keywords({"name", "state_data"});
  space.typed_state_keywords = keywords({"function_name", "function_version", "data"});
}

void fill_module(PyObject* module, Namespace& space) {
  space.globals = module_globals(module);
  add_keywords(space);
  host::import_names(module);
  add_classes(module, space);
  add_constants(module, space);
  for (PyMethodDef* table : functions) add_functions(module, table);
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute_module<Namespace, fill_module>)},
    {0, nullptr},
};

PyModuleDef definition = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "expression_evaluator",
    .m_doc =
        "Expression evaluator implementation (MVP).\n"
        "\n"
        "Executes validated expression graphs against feature data, row by row or in\n"
        "whole-matrix form, and produces a (T, N_alloc) weights matrix together with the\n"
        "states of all stateful functions.",
    .m_size = sizeof(Namespace*),
    .m_methods = nullptr,
    .m_slots = slots,
    .m_traverse = traverse_module<Namespace>,
    .m_clear = nullptr,
    .m_free = free_module<Namespace>,
};

}  // namespace
}  // namespace quernbrook

PyMODINIT_FUNC PyInit_expression_evaluator() {
  return quernbrook::python::import_numpy() ? quernbrook::python::define(quernbrook::definition)
                                            : nullptr;
}
