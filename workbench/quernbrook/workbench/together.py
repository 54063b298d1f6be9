"""Many graphs over one context in one run.

Parts that graphs have in common (the same functions with the same configuration over the same
features) are computed once for all of them, a strip of rows at a time: no matrix of an intermediate
result is made.
"""

from __future__ import annotations

import re
from collections.abc import Mapping
from copy import copy
from dataclasses import dataclass
from typing import Any, TypeVar

import numpy as np
from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.warmup import warmup_rows
from quernbrook.simulator_engine.expression_evaluator import (
    EvaluationContext,
    EvaluationResult,
    evaluate,
)

try:
    from quernbrook.row_kernels import RowFiling
except ImportError:
    RowFiling = None  # type: ignore[assignment, misc]

Key = TypeVar("Key")

_FILING = "row_filing"
# Each graph is a level of the chain, and levels count against the interpreter's recursion limit.
_MOST_AT_ONCE = 250


def evaluate_together(
    graphs: Mapping[Key, Node], context: EvaluationContext
) -> dict[Key, EvaluationResult]:
    """Evaluate all graphs over the context; the results are those of one `evaluate` each.

    Weights are float64 of shape (T, N_alloc), states stand under each graph's own keys. Graphs that
    can't go together run one by one: those with a transform pipeline, with function states on the
    context, alone, without the distribution quernbrook-row-kernels, and all of them where one
    fails, so that its error is the one that it has by itself.

    Raises what `evaluate` raises for the first graph that fails.
    """
    if RowFiling is None or len(graphs) < 2 or context.transform_pipeline:
        return _one_by_one(graphs, context)
    results: dict[Key, EvaluationResult] = {}
    items = list(graphs.items())
    for start in range(0, len(items), _MOST_AT_ONCE):
        results |= _evaluate_chain(dict(items[start : start + _MOST_AT_ONCE]), context)
    return results


def _evaluate_chain(
    graphs: Mapping[Key, Node], context: EvaluationContext
) -> dict[Key, EvaluationResult]:
    shape = context.features[0].shape
    filed = {key: np.empty(shape) for key in graphs}
    try:
        joint = evaluate(_chain(graphs), _with_filing(context, filed.values()))
    except Exception:  # noqa: BLE001 - by itself, the graph at fault tells its own
        return _one_by_one(graphs, context)
    by_graph = _states_by_graph(joint.states, len(graphs))
    return {
        key: EvaluationResult(_blank_warmup(filed[key], graph, context), states)
        for (key, graph), states in zip(graphs.items(), by_graph, strict=True)
    }


def _one_by_one(
    graphs: Mapping[Key, Node], context: EvaluationContext
) -> dict[Key, EvaluationResult]:
    return {key: evaluate(graph, context) for key, graph in graphs.items()}


def _chain(graphs: Mapping[Any, Node]) -> Node:
    """Each graph's rows are filed as soon as they are there, so that few are held at once."""
    chain: Node | None = None
    for place, graph in enumerate(graphs.values()):
        name = f"{_FILING}_{place}"
        chain = Node("rotation", name, [graph] if chain is None else [chain, graph])
    assert chain is not None
    return chain


@dataclass
class _FilingRegistry:
    """The registry of the context, with a function for each graph's matrix."""

    registry: Any
    filings: dict[str, Any]

    def has(self, name: str) -> bool:
        return name in self.filings or self.registry.has(name)

    def has_factory(self, name: str) -> bool:
        return name in self.filings or self.registry.has_factory(name)

    def get_entry(self, name: str) -> Any:
        return None if name in self.filings else self.registry.get_entry(name)

    def create_instance(self, name: str, /, **config: Any) -> Any:
        if name in self.filings:
            return self.filings[name]
        return self.registry.create_instance(name, **config)

    def create_instance_from_state(self, name: str, state: Any, /, **config: Any) -> Any:
        return self.registry.create_instance_from_state(name, state, **config)


def _with_filing(context: EvaluationContext, matrices: Any) -> EvaluationContext:
    """A context with the same inputs, so that nothing of the joint run is left on the caller's."""
    joint = copy(context)
    filings = {f"{_FILING}_{place}": RowFiling(matrix) for place, matrix in enumerate(matrices)}
    joint.registry = _FilingRegistry(context.registry, filings)
    return joint


def _states_by_graph(states: Mapping[str, Any], count: int) -> list[dict[str, Any]]:
    """The states of each graph under the keys that they have when it runs by itself."""
    by_graph: list[dict[str, Any]] = [{} for _ in range(count)]
    # The last graph hangs on the root, the one before it a step further down, and so on; the first
    # is at the end of all steps.
    steps_down = re.compile(rf"root((?:\.c0){{0,{count}}})(\.c1)?")
    for key, state in states.items():
        found = steps_down.match(key)
        assert found is not None
        steps = len(found[1]) // len(".c0")
        if steps == count:
            by_graph[0]["root" + key[found.end(1) :]] = state
        else:
            by_graph[count - 1 - steps]["root" + key[found.end() :]] = state
    return by_graph


def _blank_warmup(
    weights: NDArray[np.float64], graph: Node, context: EvaluationContext
) -> NDArray[np.float64]:
    if context.registry is not None:
        weights[: warmup_rows(graph, context.registry)] = np.nan
    return weights
