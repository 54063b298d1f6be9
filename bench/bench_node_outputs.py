"""Runs that keep the rows of every node, beside the same runs without."""

from __future__ import annotations

from collections.abc import Callable

import pytest

from bench import evaluators
from bench.functions import Registry, bound, chain
from bench.parts import BOUND, KINDS
from bench.workloads import COLUMNS, context_of, random_matrix

# Functions to rows: every node takes a matrix of them.
ROWS = {20: 1000, 200: 100}
UNIT = "ns a function and row"
COLLECTED = {True: "outputs collected", False: "outputs dropped"}

sizes = pytest.mark.parametrize("functions", ROWS)
kinds = pytest.mark.parametrize("kind", KINDS)


def workload(functions: int, kind: str, collected: bool) -> str:
    return f"chain of {functions} functions, {kind}, {COLLECTED[collected]}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@pytest.mark.parametrize("collected", COLLECTED, ids=list(COLLECTED.values()))
@kinds
@sizes
def test_evaluation(
    measure: Callable[..., None], functions: int, kind: str, collected: bool, contender: str
) -> None:
    evaluator, graph, rows = evaluators.load(contender), chain(functions), ROWS[functions]
    context = context_of(evaluator, rows, registry=Registry())
    context._collect_node_outputs = collected
    instances = bound(graph) if kind == BOUND else None
    measure(
        lambda: evaluator.evaluate(graph, context, bound_function_instances=instances),
        workload=workload(functions, kind, collected),
        contender=contender,
        count=functions * rows,
        unit=UNIT,
        rounds=7,
    )


@kinds
@sizes
def test_copy(measure: Callable[..., None], functions: int, kind: str) -> None:
    """New matrices of the nodes' rows, a copy each."""
    nodes, matrix = functions + 1, random_matrix(ROWS[functions], COLUMNS)
    measure(
        lambda: [matrix.copy() for _ in range(nodes)],
        workload=workload(functions, kind, collected=True),
        contender="copy of the outputs",
        floor=True,
        count=functions * ROWS[functions],
        unit=UNIT,
        rounds=7,
    )
