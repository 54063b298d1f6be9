"""A live tick: one row through bound instances, with the graph's tables in their cache."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest

from bench import evaluators
from bench.functions import Passing, bound, chain
from bench.parts import BARE
from bench.workloads import context_of, random_matrix

UNIT = "µs a tick"
ITERATIONS = {1: 200, 20: 50, 200: 10}
sizes = pytest.mark.parametrize("functions", ITERATIONS)


def workload(functions: int) -> str:
    return f"tick of a chain of {functions} function{'s' if functions > 1 else ''}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@sizes
def test_tick(measure: Callable[..., None], functions: int, contender: str) -> None:
    evaluator, graph = evaluators.load(contender), chain(functions)
    context, instances = context_of(evaluator, rows=1), bound(graph)

    def tick() -> Any:
        return evaluator.evaluate(graph, context, bound_function_instances=instances)

    tick()
    assert graph._collect_nodes_cache is not None
    measure(
        tick,
        workload=workload(functions),
        contender=contender,
        count=1,
        unit=UNIT,
        rounds=25,
        iterations=ITERATIONS[functions] if contender == evaluators.MODULE else 5,
    )


@sizes
def test_bare_calls(measure: Callable[..., None], functions: int) -> None:
    instances, row = [Passing() for _ in range(functions)], random_matrix(1)[0]

    def tick() -> None:
        result = row
        for instance in instances:
            result = instance(result)

    measure(
        tick,
        workload=workload(functions),
        contender=BARE,
        floor=True,
        count=1,
        unit=UNIT,
        rounds=25,
        iterations=ITERATIONS[functions],
    )
