"""The run's own phases: inputs, checks of the tables, registers, buffers, publication."""

import numpy as np

import reference_evaluator as module

from ..graph_prep.execution_order import topo_sort
from .data_nan import seed_data_nan
from .run_state import Run


def validate_shapes(run: Run) -> None:
    context = run.context
    if not getattr(context, "_skip_evaluation_shape_validation", False):
        module._validate_evaluation_shapes(
            context.features, context.universe, context.useful_signals
        )


def take_dimensions(run: Run) -> None:
    run.features = run.context.features
    if len(run.features) == 0:
        raise module.EvaluationError("No features provided")
    run.T = run.features[0].shape[0]
    run.N_alloc = run.features[0].shape[1]


def check_feature_shapes(run: Run) -> None:
    for feature_path, feature_idx in run.feature_refs.items():
        feature_shape = run.features[feature_idx].shape
        if feature_shape == (run.T, run.N_alloc):
            continue
        parent_name = None
        for candidate_info in run.node_info.values():
            if (
                "children_paths" in candidate_info
                and feature_path in candidate_info["children_paths"]
            ):
                parent_name = candidate_info["node"]
                break
        feature_name = run.node_info[feature_path]["node"]
        if parent_name:
            raise module.EvaluationShapeError(
                f"Function '{parent_name}' input feature '{feature_name}' has shape "
                f"{feature_shape}, expected ({run.T}, {run.N_alloc})"
            )
        raise module.EvaluationShapeError(
            f"Feature '{feature_name}' has shape {feature_shape}, expected ({run.T}, {run.N_alloc})"
        )


def check_state_keys(run: Run) -> None:
    if run.function_states is None:
        return
    message = "Function state keys do not match graph tree structure"
    provided_keys = set(run.function_states.keys())
    if not provided_keys.issubset(set(run.state_keys.values())):
        raise module.EvaluationError(message)
    stateful_paths = {
        run.state_keys.get(path, path)
        for path, instance in run.func_instances.items()
        if instance.stateful
    }
    missing = stateful_paths - provided_keys
    if missing:
        raise module.EvaluationError(message)


def number_registers_and_order(run: Run) -> None:
    for path in run.node_info:
        run.reg_map[path] = run.next_reg
        run.next_reg += 1
    topo_sort(run, "root")
    run.context.registers = np.zeros((run.next_reg, run.N_alloc), dtype=np.float64)


def take_warmup_figure(run: Run) -> None:
    if run.bound_instances:
        run.total_root_warmup_rows = 0
    else:
        run.total_root_warmup_rows = module._compute_graph_warmup_rows(
            run.graph, run.context.registry
        )
    run.root_warmup_rows = run.total_root_warmup_rows


def create_buffers(run: Run) -> None:
    context, T, N_alloc = run.context, run.T, run.N_alloc
    run.output_weights = np.zeros((T, N_alloc), dtype=np.float64)
    run.local_registers = np.zeros((run.next_reg, N_alloc), dtype=np.float64)
    if context.useful_signals:
        A_max = len(context.useful_signals)
        run.local_extraction_buffer = np.zeros((A_max, N_alloc), dtype=np.float64)
    seed_data_nan(run)
    collect_node_outputs = getattr(
        context,
        "_collect_node_outputs",
        bool(run.bound_instances) or bool(run.precomputed_node_outputs),
    )
    if collect_node_outputs:
        run.node_outputs = {
            path: np.zeros((T, N_alloc), dtype=np.float64) for path in run.node_info
        }


def publish(run: Run) -> None:
    run.context.registers = run.local_registers
    if run.local_extraction_buffer is not None:
        run.context.extraction_buffer = run.local_extraction_buffer


def blank_warmup_rows(run: Run) -> None:
    run.output_weights = np.ascontiguousarray(run.output_weights, dtype=np.float64)
    if run.root_warmup_rows > 0:
        run.output_weights[: min(run.root_warmup_rows, run.T), :] = np.nan
