"""What the row loop costs beyond the calls that it makes and the rows that it copies.

The functions do nothing, so that a run's time is the calls, the copies and the loop itself. The
bare calls are those of the same instances with a vector that is already there, back to back
without interpreted code between them.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from typing import Any

import numpy as np
import pytest
from support.graphs import feature

from bench import evaluators
from bench.workloads import (
    BARE,
    COLUMNS,
    Passing,
    PassingFirst,
    Registry,
    argument_counts,
    bound,
    bush,
    chain,
    context_of,
    random_matrix,
    repeat_calls,
)

FUNCTIONS = 20
ROWS = 5000
FEW_ROWS = 200
GRAPHS = {"chain": chain, "bush": bush}
UNIT = "ns a function and row"
# Naming a feature that the graph lacks marks nothing, but only the row loop reads marks, so the
# road that hands out the whole matrix declines.
LEAF_ROADS: dict[str, dict[str, Any]] = {
    "whole matrix": {},
    "row loop": {"data_nan_features": ["no such feature"]},
}

run_kinds = pytest.mark.parametrize("kind", ["registry", "bound"])
graphs = pytest.mark.parametrize("shape", GRAPHS)


def rows_for(contender: str) -> int:
    return ROWS if contender == evaluators.MODULE else FEW_ROWS


def workload(shape: str, kind: str) -> str:
    return f"{shape} of {FUNCTIONS} functions, {kind}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@graphs
@run_kinds
def test_evaluation(measure: Callable[..., None], shape: str, kind: str, contender: str) -> None:
    graph, rows = GRAPHS[shape](FUNCTIONS), rows_for(contender)
    evaluator = evaluators.load(contender)
    context = context_of(evaluator, rows, registry=Registry())
    # A bound run keeps every node's rows unless told not to.
    context._collect_node_outputs = False
    instances = bound(graph) if kind == "bound" else None
    measure(
        lambda: evaluator.evaluate(graph, context, bound_function_instances=instances),
        workload=workload(shape, kind),
        contender=contender,
        count=FUNCTIONS * rows,
        unit=UNIT,
    )


@graphs
@run_kinds
def test_bare_calls(measure: Callable[..., None], shape: str, kind: str) -> None:
    graph, rows = GRAPHS[shape](FUNCTIONS), ROWS
    vector = random_matrix(1)[0]
    calls: list[tuple[Callable[..., Any], list[Any]]] = []
    for arguments in argument_counts(graph):
        # The bound method spares the look-up that calling the instance itself makes.
        call: Any = (Passing() if arguments == 1 else PassingFirst()).__call__
        if kind == "registry":
            call = partial(call, context=vector)
        calls.append((call, [vector] * arguments))

    def run() -> None:
        for call, arguments in calls:
            repeat_calls(call, arguments, rows)

    measure(
        run,
        workload=workload(shape, kind),
        contender=BARE,
        floor=True,
        count=FUNCTIONS * rows,
        unit=UNIT,
    )


@graphs
@run_kinds
def test_row_copy(measure: Callable[..., None], shape: str, kind: str) -> None:
    # As many rows as a run has registers, so that both stand in cache as they do in a run.
    source = random_matrix(FUNCTIONS)
    target = np.empty_like(source)
    measure(
        lambda: np.copyto(target, source),
        workload=workload(shape, kind),
        contender="copy of one row",
        floor=True,
        count=FUNCTIONS,
        unit=UNIT,
        rounds=25,
        iterations=1000,
    )


@pytest.mark.parametrize("contender", evaluators.NAMES)
@pytest.mark.parametrize("universe", [False, True], ids=["no universe", "universe"])
@pytest.mark.parametrize("road", LEAF_ROADS)
def test_leaf(measure: Callable[..., None], universe: bool, road: str, contender: str) -> None:
    evaluator, graph = evaluators.load(contender), feature("a")
    rows = ROWS if road == "whole matrix" else rows_for(contender)
    context = context_of(evaluator, rows, universe=masks(rows) if universe else None)
    measure(
        lambda: evaluator.evaluate(graph, context, **LEAF_ROADS[road]),
        workload=leaf_workload(road, universe),
        contender=contender,
        count=rows,
        unit="ns a row",
    )


@pytest.mark.parametrize("road", LEAF_ROADS)
def test_leaf_mask_formulation(measure: Callable[..., None], road: str) -> None:
    data, mask = random_matrix(ROWS), masks(ROWS)
    measure(
        lambda: np.where((mask == 0.0) | np.isnan(mask), np.nan, data),
        workload=leaf_workload(road, universe=True),
        contender="NumPy, whole matrix",
        count=ROWS,
        unit="ns a row",
    )


def test_leaf_copy(measure: Callable[..., None]) -> None:
    measure(
        random_matrix(ROWS).copy,
        workload=leaf_workload("row loop", universe=False),
        contender="copy of the matrix",
        floor=True,
        count=ROWS,
        unit="ns a row",
    )


def leaf_workload(road: str, universe: bool) -> str:
    return f"leaf, {road}, {'with' if universe else 'without'} universe"


def masks(rows: int) -> np.ndarray:
    """A universe with one cell in ten inactive."""
    return (np.random.default_rng(1).random((rows, COLUMNS)) < 0.9).astype(np.float64)
