"""Bound instances: made once, from a checkpoint or anew, and kept from tick to tick."""

from __future__ import annotations

import copy
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host.entries import name_of
from quernbrook.reference_host.trees import functions_by_path
from quernbrook.reference_host.warmup import warmup_rows
from quernbrook.simulator_engine._combine import combine_signal_and_transforms
from quernbrook.simulator_engine._graph_helpers import extract_feature_leaf_names
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError

if TYPE_CHECKING:
    from quernbrook.simulator_engine.expression_evaluator import EvaluationResult


@dataclass(eq=False)
class BoundGraph:
    """A graph with its transforms laid around it, and an instance for each of its functions.

    graph: what a tick evaluates; contexts need no pipeline any more.
    instances: by path in `graph`, as ``bound_function_instances`` takes them.
    state_keys: the key of each instance's state, by path: those of runs with the pipeline.
    warmup_rows: how many of the rows to come a whole run would still blank.

    Two runs at once must not use it.
    """

    graph: FunctionGraphNode
    instances: dict[str, Any]
    state_keys: dict[str, str]
    warmup_rows: int

    def __post_init__(self) -> None:
        # The states stand in the instances. Their keys keep a run off the road that would compute
        # long chains of rolling functions without them.
        self._no_states = {self.state_keys[path]: None for path, _ in self._stateful()}

    def evaluate(
        self, context: Any, data_nan_features: Iterable[str] | None = None
    ) -> EvaluationResult:
        """Evaluate the next rows, those of `context`, and advance the instances.

        The weights are, bit for bit, those rows of one whole run: warm-up rows that are left are
        blanked. A pipeline in `context` is left alone: ``transforms_already_combined`` is set.
        Raises what a run raises; the instances then stay as far as they got.
        """
        from quernbrook.simulator_engine.expression_evaluator import evaluate

        context.transforms_already_combined = True
        result = evaluate(
            self.graph,
            context,
            self._no_states,
            bound_function_instances=self.instances,
            data_nan_features=data_nan_features,
        )
        if self.warmup_rows > 0:
            result.weights[: self.warmup_rows] = np.nan
            self.warmup_rows -= min(self.warmup_rows, len(result.weights))
        return result

    def states(self) -> dict[str, Any]:
        """Return the state of every stateful instance by its key, as a run returns them."""
        return {self.state_keys[path]: instance.get_state() for path, instance in self._stateful()}

    def _stateful(self) -> list[tuple[str, Any]]:
        return [item for item in self.instances.items() if item[1].stateful]


def bind_instances(
    graph: FunctionGraphNode,
    registry: RegistryProtocol,
    states: Mapping[str, Any] | None = None,
    context: Any = None,
) -> BoundGraph:
    """Make an instance for every function of `graph`, once for all ticks to come.

    `states` are those of a checkpoint or of a run's result; None begins anew. `context` is read
    for its ``transform_pipeline``, ``metaparameters`` and ``pool_id``. Pass one that no run has
    been given yet, for a run empties its pipeline; None will do for a graph without one.

    Neither the fields of `graph` nor `context` are changed. Raises EvaluationError for states that
    don't fit the graph, with their keys, and what a run raises for functions and configuration.
    """
    from quernbrook.simulator_engine.expression_evaluator import (
        evaluate,
        invalidate_graph_evaluation_caches,
    )

    # A root of its own keeps tables of its own.
    graph = copy.copy(merge_transforms(graph, registry, context))
    invalidate_graph_evaluation_caches(graph)
    functions = functions_by_path(graph)
    keys = {path: getattr(node, "_state_identity", path) for path, node in functions.items()}
    # The evaluator makes the instances itself, in a run over no rows.
    witness = _witness(registry)
    no_rows = _context_without_rows(graph, witness)
    filled = None if states is None else {key: states.get(key, {}) for key in keys.values()}
    evaluate(graph, no_rows, filled)
    instances = dict(zip(functions, witness.made, strict=True))
    if states is not None:
        _require_fitting_states(functions, instances, keys, states)
    for path, node in functions.items():
        _require_arity(path, node, instances[path])
    # Leaves its tables on the graph, so that no tick reads graph and registry again.
    evaluate(graph, no_rows, bound_function_instances=instances)
    rows = warmup_rows(graph, registry)
    seen = max(
        (_count(instance) for instance in instances.values() if instance.stateful), default=0
    )
    return BoundGraph(graph, instances, keys, max(rows - seen, 0))


def merge_transforms(
    graph: FunctionGraphNode, registry: RegistryProtocol, context: Any
) -> FunctionGraphNode:
    """Return the graph that a run with `context` evaluates, its functions' state keys kept.

    That is `graph` itself where `context` is None or holds no pipeline to be merged.
    """
    if context is None or not is_merge_pending(context):
        return graph
    signal = copy.deepcopy(graph)
    for path, node in functions_by_path(signal).items():
        node._state_identity = path
    return combine_signal_and_transforms(
        signal, context.transform_pipeline, context.metaparameters, registry, context
    )


def is_merge_pending(context: Any) -> bool:
    """Whether a run with `context` lays transforms around its graph."""
    return bool(context.transform_pipeline) and not getattr(
        context, "transforms_already_combined", False
    )


class _Witness:
    """A registry that remembers the instances it made, in order."""

    def __init__(self, registry: RegistryProtocol) -> None:
        self._registry = registry
        self.made: list[Any] = []

    def __getattr__(self, name: str) -> Any:
        return getattr(self._registry, name)

    def has_factory(self, name: str) -> bool:
        # Otherwise a fast road may do without instances.
        return True

    def create_instance(self, name: str, /, **config: Any) -> Any:
        self.made.append(self._registry.create_instance(name, **config))
        return self.made[-1]

    def create_instance_from_state(self, name: str, restore_state: Any, /, **config: Any) -> Any:
        self.made.append(self._registry.create_instance_from_state(name, restore_state, **config))
        return self.made[-1]


def _witness(registry: RegistryProtocol) -> Any:
    # A registry's typed states are looked up in the module of its class.
    module = type(registry).__module__
    return type("Witness", (_Witness,), {"__module__": module})(registry)


def _context_without_rows(graph: FunctionGraphNode, registry: Any) -> Any:
    from quernbrook.simulator_engine.expression_evaluator import EvaluationContext

    # A run needs a feature, also for a graph of literals.
    names = sorted(extract_feature_leaf_names(graph)) or ["unused"]
    context: Any = EvaluationContext(
        tuple(np.empty((0, 1)) for _ in names),
        {name: i for i, name in enumerate(names)},
        registry=registry,
    )
    context._collect_states = False
    return context


def _require_fitting_states(
    functions: Mapping[str, FunctionGraphNode],
    instances: Mapping[str, Any],
    keys: Mapping[str, str],
    states: Mapping[str, Any],
) -> None:
    missing = [
        f"'{keys[path]}' ({node.node})"
        for path, node in functions.items()
        if instances[path].stateful and keys[path] not in states
    ]
    surplus = [f"'{key}'" for key in set(states).difference(keys.values())]
    faults = []
    if missing:
        faults.append(f"no state for {', '.join(missing)}")
    if surplus:
        faults.append(f"no function for the states {', '.join(sorted(surplus))}")
    if faults:
        raise EvaluationError(f"The states don't fit the graph: {'; '.join(faults)}")


def _require_arity(path: str, node: FunctionGraphNode, instance: Any) -> None:
    """Without the attribute, whatever its value, a bound rotation gets its literals as rows."""
    if node.type != "rotation" or hasattr(instance, "arity"):
        return
    try:
        instance.arity = None
    except AttributeError as error:
        raise FunctionExecutionError(
            f"Function '{node.node}' at node '{path}' can't be bound: give "
            f"{name_of(type(instance))} an attribute 'arity'; without one, its literals would "
            "reach it as rows"
        ) from error


def _count(instance: Any) -> int:
    """The rows that an instance has seen, as it tells them itself."""
    state = instance.get_state()
    data = getattr(state, "state_data", state)
    try:
        return int(data.get("count", 0)) if data else 0
    except (TypeError, ValueError):
        return 0
