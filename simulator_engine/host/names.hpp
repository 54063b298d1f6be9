#pragma once

#include "python/object.hpp"

// The attribute and member names that the module reads or writes, interned once a module.
#define QUERNBROOK_NAMES(NAME)            \
  NAME(_collect_node_outputs)             \
  NAME(_collect_nodes_cache)              \
  NAME(_collect_states)                   \
  NAME(_evaluation_lock)                  \
  NAME(_node_identities)                  \
  NAME(_precomputed_node_nan_source)      \
  NAME(_precomputed_node_outputs)         \
  NAME(_skip_evaluation_shape_validation) \
  NAME(_state_identity)                   \
  NAME(RLock)                             \
  NAME(aggregation)                       \
  NAME(arity)                             \
  NAME(asarray)                           \
  NAME(ascontiguousarray)                 \
  NAME(astype)                            \
  NAME(bound_function_instances)          \
  NAME(canonical_id)                      \
  NAME(children)                          \
  NAME(column_labels)                     \
  NAME(config)                            \
  NAME(context)                           \
  NAME(copy)                              \
  NAME(count)                             \
  NAME(create_instance)                   \
  NAME(create_instance_from_state)        \
  NAME(current_day_index)                 \
  NAME(data)                              \
  NAME(data_nan_features)                 \
  NAME(decode)                            \
  NAME(dtype)                             \
  NAME(dumps)                             \
  NAME(encode)                            \
  NAME(epoch)                             \
  NAME(extraction_buffer)                 \
  NAME(factor_epoch)                      \
  NAME(factor_model)                      \
  NAME(factor_model_version_id)           \
  NAME(family)                            \
  NAME(feature)                           \
  NAME(feature_index)                     \
  NAME(features)                          \
  NAME(filtration)                        \
  NAME(float64)                           \
  NAME(function_name)                     \
  NAME(function_states)                   \
  NAME(function_version)                  \
  NAME(get)                               \
  NAME(get_entry)                         \
  NAME(get_function_version)              \
  NAME(has)                               \
  NAME(import_module)                     \
  NAME(invert)                            \
  NAME(is_cold_start)                     \
  NAME(isfinite)                          \
  NAME(isnan)                             \
  NAME(items)                             \
  NAME(keys)                              \
  NAME(liquidity_feature_hashes)          \
  NAME(liquidity_features)                \
  NAME(loads)                             \
  NAME(metaparameters)                    \
  NAME(name)                              \
  NAME(nan)                               \
  NAME(nan_source)                        \
  NAME(node)                              \
  NAME(node_outputs)                      \
  NAME(param_schema)                      \
  NAME(pnl)                               \
  NAME(pnl_column)                        \
  NAME(pool_id)                           \
  NAME(pop)                               \
  NAME(reduction)                         \
  NAME(registers)                         \
  NAME(registry)                          \
  NAME(reshape)                           \
  NAME(root)                              \
  NAME(rotation)                          \
  NAME(shape)                             \
  NAME(signal_pnl_vectors)                \
  NAME(stage_data)                        \
  NAME(stat_name)                         \
  NAME(state_data)                        \
  NAME(stateful)                          \
  NAME(states)                            \
  NAME(string)                            \
  NAME(transform_pipeline)                \
  NAME(transforms_already_combined)       \
  NAME(type)                              \
  NAME(uint8)                             \
  NAME(universe)                          \
  NAME(update)                            \
  NAME(universe_mask)                     \
  NAME(universe_tag)                      \
  NAME(useful_signals)                    \
  NAME(values)                            \
  NAME(virtualization)                    \
  NAME(weighted_by_sharpe)                \
  NAME(weighted_by_turnover)              \
  NAME(weighted_by_vol)                   \
  NAME(weights)                           \
  NAME(window)                            \
  NAME(where)

// Names that C++ keeps for itself, or whose spelling is no C++ identifier to use.
#define QUERNBROOK_SPELLED_NAMES(NAME) \
  NAME(bool_, "bool")                  \
  NAME(class_, "__class__")            \
  NAME(dict_, "__dict__")              \
  NAME(enter, "__enter__")             \
  NAME(exit, "__exit__")               \
  NAME(float_, "float")                \
  NAME(int_, "int")                    \
  NAME(module_, "__module__")          \
  NAME(call_, "__call__")              \
  NAME(n_alloc, "N_alloc")             \
  NAME(a, "A")                         \
  NAME(empty, "")

// What runs look up in the module's namespace when they need it.
#define QUERNBROOK_GLOBALS(NAME)             \
  NAME(EvaluationContext)                    \
  NAME(EvaluationError)                      \
  NAME(EvaluationResult)                     \
  NAME(EvaluationShapeError)                 \
  NAME(FunctionExecutionError)               \
  NAME(FunctionGraphNode)                    \
  NAME(FunctionState)                        \
  NAME(SchemaError)                          \
  NAME(StageData)                            \
  NAME(_CONFIG_CHILD_TYPES)                  \
  NAME(_apply_universe_mask)                 \
  NAME(_can_use_leaf_fast_path)              \
  NAME(_evaluate_leaf_fast)                  \
  NAME(_evaluate_unlocked)                   \
  NAME(_registry_function_state_class)       \
  NAME(_validate_evaluation_shapes)          \
  NAME(importlib)                            \
  NAME(json)                                 \
  NAME(np)                                   \
  NAME(threading)

namespace quernbrook::host {

struct Names {
#define NAME(text) python::Object text = python::Object::own(PyUnicode_InternFromString(#text));
  QUERNBROOK_NAMES(NAME)
  QUERNBROOK_GLOBALS(NAME)
#undef NAME
#define NAME(member, text) \
  python::Object member = python::Object::own(PyUnicode_InternFromString(text));
  QUERNBROOK_SPELLED_NAMES(NAME)
#undef NAME
};

}  // namespace quernbrook::host
