"""The frame of a run: its phases, a line each."""

from typing import Any

import reference_evaluator as module

from ..graph_prep.config_preflight import preflight_explicit_graph_config
from ..stages.transform_merge import merge_transforms
from . import general_road, graph_caches, instance_lifecycle, universe
from .fast_roads import try_fast_roads
from .row_loop import run_rows
from .run_state import Run


def _evaluate_unlocked(
    graph: Any,
    context: Any,
    function_states: Any = None,
    is_cold_start: Any = False,
    *,
    bound_function_instances: Any = None,
    data_nan_features: Any = None,
) -> Any:
    run = Run(
        graph, context, function_states, is_cold_start, bound_function_instances, data_nan_features
    )
    merge_transforms(run)  # 1
    general_road.validate_shapes(run)  # 2
    module._attach_stage_data_feature_leaves(run.graph, context)  # 3
    general_road.take_dimensions(run)  # 4
    universe.build_universe_mask(run)  # 5
    preflight_explicit_graph_config(run, run.graph, "root")  # 6
    fast_result = try_fast_roads(run)  # 7
    if fast_result is not None:
        return fast_result
    run.create_tables()  # 8
    graph_caches.decide_collection_cache(run)  # 9
    graph_caches.fill_node_tables(run)  # 10
    general_road.check_feature_shapes(run)  # 11
    general_road.check_state_keys(run)  # 12
    general_road.number_registers_and_order(run)  # 13
    general_road.take_warmup_figure(run)  # 14
    general_road.create_buffers(run)  # 15
    instance_lifecycle.prefill_cold_start(run)  # 16
    instance_lifecycle.deduct_warmup(run)  # 17
    run_rows(run)  # 18
    general_road.publish(run)  # 19
    general_road.blank_warmup_rows(run)  # 20
    instance_lifecycle.collect_states(run)  # 21
    return module.EvaluationResult(  # 22
        run.output_weights,
        run.states_dict,
        nan_source=run.nan_source,
        node_outputs=run.node_outputs,
    )
