"""All faults of a run, those of its graph and those of its data."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import Fault, FunctionRegistry, check_graph
from quernbrook.simulator_engine._types import SimulatorEngineError
from quernbrook.workbench.explanation.functions import Function
from quernbrook.workbench.explanation.inputs import Inputs, evaluator, state_key
from quernbrook.workbench.graphs import FUNCTIONS, LEAVES


def graph_faults(
    graph: Node, context: Any, registry: Any, bound: Any, states: Any, missing: Any
) -> list[Fault]:
    """Those that the host's check finds. It knows parameters from its own registry alone: with
    another, or none, unknown names are found, but no faults of configuration."""
    known = registry if isinstance(registry, FunctionRegistry) else FunctionRegistry()
    return check_graph(
        graph,
        known,
        context,
        states,
        bound_function_instances=bound,
        data_nan_features=missing,
    )


def without_needless(faults: list[Fault], run: Inputs, road: str | None) -> list[Fault]:
    """Leave out functions that this run doesn't ask the registry for: bound ones, those of a fast
    road, and those that another kind of registry knows."""
    needless = set()
    for path, node in run.nodes.items():
        if node.type not in FUNCTIONS:
            continue
        is_known = run.registry is not None and bool(run.registry.has(node.node))
        is_bound = run.bound is not None and run.bound.get(path) is not None
        if is_known or is_bound or road not in ("rows", None):
            text = f"the registry has no function '{node.node}'"
            needless.add((state_key(node, path), text))
    return [fault for fault in faults if (fault.path, fault.text) not in needless]


def data_faults(context: Any) -> Iterator[Fault]:
    """Features, universe and signals that don't fit each other."""
    if getattr(context, "_skip_evaluation_shape_validation", False):
        return
    arguments = context.features, context.universe, context.useful_signals
    try:
        evaluator._validate_evaluation_shapes(*arguments)
    except (SimulatorEngineError, AttributeError, TypeError, ValueError) as error:
        yield Fault("context", str(error))


def feature_faults(run: Inputs) -> Iterator[Fault]:
    """Stage data are not among what `data_faults` compares."""
    for path, node in run.nodes.items():
        if node.type not in LEAVES or node.node not in run.context.feature_index:
            continue
        shape = run.context.features[run.context.feature_index[node.node]].shape
        if shape != run.shape:
            yield Fault(path, f"feature '{node.node}' has shape {shape}, expected {run.shape}")


def instance_faults(functions: Mapping[str, Function], told: list[Fault]) -> Iterator[Fault]:
    """Instances that can't be had, where the check hasn't told so."""
    known = {fault.path for fault in told}
    for path, function in functions.items():
        if function.fault is not None and path not in known:
            yield function.fault
