#pragma once

#include "python/text.hpp"

// The attribute and member names that the module reads or writes, interned once a module.
#define QUERNBROOK_NAMES(NAME)            \
  NAME(RLock)                             \
  NAME(_collect_node_outputs)             \
  NAME(_collect_nodes_cache)              \
  NAME(_collect_states)                   \
  NAME(_evaluation_lock)                  \
  NAME(_node_identities)                  \
  NAME(_precomputed_node_nan_source)      \
  NAME(_precomputed_node_outputs)         \
  NAME(_reads_rows_ahead)                 \
  NAME(_skip_evaluation_shape_validation) \
  NAME(_state_identity)                   \
  NAME(aggregation)                       \
  NAME(arity)                             \
  NAME(asarray)                           \
  NAME(ascontiguousarray)                 \
  NAME(astype)                            \
  NAME(canonical_id)                      \
  NAME(cause)                             \
  NAME(children)                          \
  NAME(children_paths)                    \
  NAME(class_name)                        \
  NAME(column_labels)                     \
  NAME(config)                            \
  NAME(config_child_paths)                \
  NAME(copy)                              \
  NAME(count)                             \
  NAME(create_instance)                   \
  NAME(create_instance_from_state)        \
  NAME(current_day_index)                 \
  NAME(data)                              \
  NAME(data_nan)                          \
  NAME(decode)                            \
  NAME(dtype)                             \
  NAME(dumps)                             \
  NAME(encode)                            \
  NAME(epoch)                             \
  NAME(error)                             \
  NAME(extraction_buffer)                 \
  NAME(factor_epoch)                      \
  NAME(factor_model)                      \
  NAME(factor_model_version_id)           \
  NAME(factory)                           \
  NAME(family)                            \
  NAME(feature)                           \
  NAME(feature_index)                     \
  NAME(feature_ref_names)                 \
  NAME(features)                          \
  NAME(filter_diagnostics)                \
  NAME(filtration)                        \
  NAME(filtration_nodes)                  \
  NAME(filtration_path)                   \
  NAME(float64)                           \
  NAME(float_values)                      \
  NAME(function_name)                     \
  NAME(function_states)                   \
  NAME(function_version)                  \
  NAME(get)                               \
  NAME(get_entry)                         \
  NAME(get_function_version)              \
  NAME(get_state)                         \
  NAME(gross_returns)                     \
  NAME(has)                               \
  NAME(has_factory)                       \
  NAME(implementation)                    \
  NAME(import_module)                     \
  NAME(index)                             \
  NAME(invert)                            \
  NAME(is_empty)                          \
  NAME(isfinite)                          \
  NAME(isnan)                             \
  NAME(issubset)                          \
  NAME(items)                             \
  NAME(keys)                              \
  NAME(latitudinal_rank)                  \
  NAME(liquidity_feature_hashes)          \
  NAME(liquidity_features)                \
  NAME(loads)                             \
  NAME(longitudinal_mean)                 \
  NAME(longitudinal_std)                  \
  NAME(longitudinal_zscore)               \
  NAME(mean)                              \
  NAME(metaparameters)                    \
  NAME(module_path)                       \
  NAME(name)                              \
  NAME(nan)                               \
  NAME(nan_source)                        \
  NAME(ndim)                              \
  NAME(node)                              \
  NAME(node_info)                         \
  NAME(node_outputs)                      \
  NAME(ones)                              \
  NAME(numerical_multiply)                \
  NAME(param_schema)                      \
  NAME(passing_count)                     \
  NAME(passing_ids)                       \
  NAME(pnl)                               \
  NAME(pnl_column)                        \
  NAME(pool_id)                           \
  NAME(pop)                               \
  NAME(reduction)                         \
  NAME(reduction_nodes)                   \
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
  NAME(state_keys)                        \
  NAME(stateful)                          \
  NAME(states)                            \
  NAME(string)                            \
  NAME(sum)                               \
  NAME(transform_pipeline)                \
  NAME(transforms_already_combined)       \
  NAME(type)                              \
  NAME(uint8)                             \
  NAME(universe)                          \
  NAME(universe_mask)                     \
  NAME(universe_tag)                      \
  NAME(update)                            \
  NAME(useful_signals)                    \
  NAME(value)                             \
  NAME(values)                            \
  NAME(virtualization)                    \
  NAME(weighted_by_sharpe)                \
  NAME(weighted_by_turnover)              \
  NAME(weighted_by_vol)                   \
  NAME(weights)                           \
  NAME(where)                             \
  NAME(window)

// Names that C++ keeps for itself, or whose spelling is no C++ identifier to use.
#define QUERNBROOK_SPELLED_NAMES(NAME)                       \
  NAME(bool_, "bool")                                        \
  NAME(class_, "__class__")                                  \
  NAME(dict_, "__dict__")                                    \
  NAME(default_, "default")                                  \
  NAME(float_, "float")                                      \
  NAME(int_, "int")                                          \
  NAME(module_, "__module__")                                \
  NAME(call_, "__call__")                                    \
  NAME(getattr_, "__getattr__")                              \
  NAME(getattribute_, "__getattribute__")                    \
  NAME(row_kernel_, "__quernbrook_row_kernel__")             \
  NAME(row_block_, "__quernbrook_row_block__")               \
  NAME(reduction_kernel_, "__quernbrook_reduction_kernel__") \
  NAME(enter_, "__enter__")                                  \
  NAME(exit_, "__exit__")                                    \
  NAME(n_alloc, "N_alloc")                                   \
  NAME(a, "A")                                               \
  NAME(empty, "")

// What runs look up in the module's namespace when they need it.
#define QUERNBROOK_GLOBALS(NAME)           \
  NAME(EmptyFiltrationError)               \
  NAME(EmptyPoolError)                     \
  NAME(EvaluationContext)                  \
  NAME(EvaluationError)                    \
  NAME(EvaluationResult)                   \
  NAME(EvaluationShapeError)               \
  NAME(FILTRATION_NODE_TYPES)              \
  NAME(FilterNode)                         \
  NAME(FiltrationInstance)                 \
  NAME(FiltrationResolutionError)          \
  NAME(FiltrationResult)                   \
  NAME(FunctionExecutionError)             \
  NAME(FunctionGraphNode)                  \
  NAME(FunctionState)                      \
  NAME(SchemaError)                        \
  NAME(StageData)                          \
  NAME(_CONFIG_CHILD_TYPES)                \
  NAME(_LONGITUDINAL_FAST_MIN_ROWS)        \
  NAME(_LONGITUDINAL_FAST_NAMES)           \
  NAME(_annotate_state_identities)         \
  NAME(_apply_universe_mask)               \
  NAME(_attach_stage_data_feature_leaves)  \
  NAME(_can_use_leaf_fast_path)            \
  NAME(_can_use_longitudinal_fast_path)    \
  NAME(_can_use_rank_multiply_fast_path)   \
  NAME(_can_use_simple_rank_fast_path)     \
  NAME(_compute_graph_warmup_rows)         \
  NAME(_describe_dict_filter)              \
  NAME(_dict_to_filter_node)               \
  NAME(_evaluate_leaf_fast)                \
  NAME(_evaluate_longitudinal_fast)        \
  NAME(_evaluate_longitudinal_fast_node)   \
  NAME(_evaluate_rank_multiply_fast)       \
  NAME(_evaluate_simple_rank_fast)         \
  NAME(_evaluate_unlocked)                 \
  NAME(_feature_matrix_for_fast_path)      \
  NAME(_get_int_window_child)              \
  NAME(_get_warmup_count_for_instance)     \
  NAME(_graph_cache_get)                   \
  NAME(_graph_cache_set)                   \
  NAME(_logger)                            \
  NAME(_rolling_longitudinal_fast)         \
  NAME(_validate_evaluation_shapes)        \
  NAME(combine_signal_and_transforms)      \
  NAME(deepcopy)                           \
  NAME(extract_feature_leaf_names)         \
  NAME(importlib)                          \
  NAME(invalidate_graph_evaluation_caches) \
  NAME(json)                               \
  NAME(np)                                 \
  NAME(threading)

namespace quernbrook::host {

struct Names {
#define NAME(text) python::Object text = python::interned(#text);
  QUERNBROOK_NAMES(NAME)
  QUERNBROOK_GLOBALS(NAME)
#undef NAME
#define NAME(member, text) python::Object member = python::interned(text);
  QUERNBROOK_SPELLED_NAMES(NAME)
#undef NAME
};

}  // namespace quernbrook::host
