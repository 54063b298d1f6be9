"""The first tick after a checkpoint: one row, with states for every function."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import SavedState, default_registry
from support.graphs import feature, integer, rotation

from bench import evaluators
from bench.functions import Registry, chain_of, function_nodes
from bench.parts import BOUND, KINDS
from bench.workloads import COLUMNS, context_of, random_matrix

UNIT = "µs a tick"
WINDOW = 20
MEAN = "longitudinal_mean"
HOST_CALLS = "the host's own calls"


def rolling_means(functions: int) -> FunctionGraphNode:
    graph = feature("a")
    for _ in range(functions):
        graph = rotation(MEAN, graph, integer(WINDOW))
    return graph


class Case:
    """A graph, its registry, and the states of a run that ended before."""

    def __init__(self, rolling: bool, functions: int) -> None:
        self.registry: Any = default_registry() if rolling else Registry()
        self.config = {"window": WINDOW} if rolling else {}
        self.graph = rolling_means(functions) if rolling else chain_of("count", functions)
        rows = random_matrix(WINDOW).tolist()
        window = {"count": 10 * WINDOW, "window": WINDOW, "buffer": rows}
        state: Any = SavedState(MEAN, window) if rolling else {"count": 10 * WINDOW}
        self.states = {path: state for path, _ in function_nodes(self.graph)}

    def restored(self) -> dict[str, Any]:
        """An instance from every state, as the host itself would make them to bind them."""
        return {
            path: self.registry.create_instance_from_state(
                node.node, self.states[path], **self.config
            )
            for path, node in function_nodes(self.graph)
        }


# What a state costs the host itself: next to nothing, or the rows of a window.
CASES = {
    "chain of 20 counting functions": (False, 20),
    "chain of 200 counting functions": (False, 200),
    f"chain of 20 rolling means of {WINDOW} rows": (True, 20),
}
ITERATIONS = {name: 1 if rolling else 10 for name, (rolling, _) in CASES.items()}

cases = pytest.mark.parametrize("name", CASES)
kinds = pytest.mark.parametrize("kind", KINDS)


def workload(name: str, kind: str) -> str:
    return f"restore of a {name}, {kind}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@kinds
@cases
def test_first_tick(measure: Callable[..., None], name: str, kind: str, contender: str) -> None:
    evaluator, case = evaluators.load(contender), Case(*CASES[name])
    context = context_of(evaluator, rows=1, registry=case.registry)
    # A bound run keeps every node's rows unless told not to, a run from a registry doesn't.
    context._collect_node_outputs = False
    instances = case.restored() if kind == BOUND else None

    def tick() -> Any:
        # A process that has just begun finds no tables on its graphs.
        evaluator.invalidate_graph_evaluation_caches(case.graph)
        return evaluator.evaluate(
            case.graph, context, case.states, True, bound_function_instances=instances
        )

    assert tick().states.keys() == case.states.keys()
    measure(
        tick,
        workload=workload(name, kind),
        contender=contender,
        count=1,
        unit=UNIT,
        iterations=ITERATIONS[name],
    )


@kinds
@cases
def test_host_calls(measure: Callable[..., None], name: str, kind: str) -> None:
    """The instances made from their states where the run does that, called, asked for states."""
    case, row = Case(*CASES[name]), np.zeros(COLUMNS)
    instances = case.restored()

    def tick() -> Any:
        called = instances if kind == BOUND else case.restored()
        for instance in called.values():
            instance(row)
        return {path: instance.get_state() for path, instance in called.items()}

    measure(
        tick,
        workload=workload(name, kind),
        contender=HOST_CALLS,
        floor=True,
        count=1,
        unit=UNIT,
        iterations=ITERATIONS[name],
    )
