"""Marks of missing data: what a run costs that follows them from node to node."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from support.graphs import feature, rotation
from support.runs import make_context

from bench import evaluators
from bench.functions import Registry, bound, bush, chain
from bench.parts import BARE, BOUND, KINDS, PARTS, ROW_COPY, bare_calls, row_copies
from bench.workloads import COLUMNS, feature_matrix

FUNCTIONS = 20
ROWS = 2000
ROWS_OF_REFERENCE = 100
UNIT = "ns a function and row"
NAN_CHECK = "NaN check by NumPy"


def over_both() -> FunctionGraphNode:
    """A chain whose functions have a feature without mark beside what comes from below."""
    graph = feature("a")
    for _ in range(FUNCTIONS):
        graph = rotation("first", graph, feature("b"))
    return graph


# The feature "a" is missing.
GRAPHS = {
    "marks through a chain": chain(FUNCTIONS),
    "marks through a bush": bush(FUNCTIONS),
    "marks that a whole feature stops": over_both(),
}

graphs = pytest.mark.parametrize("name", GRAPHS)
kinds = pytest.mark.parametrize("kind", KINDS)


def workload(name: str, kind: str) -> str:
    return f"{name}, {FUNCTIONS} functions, {kind}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@graphs
@kinds
def test_evaluation(measure: Callable[..., None], kind: str, name: str, contender: str) -> None:
    evaluator, graph = evaluators.load(contender), GRAPHS[name]
    is_reference = contender in (evaluators.PLAIN, evaluators.COMPILED)
    rows = ROWS_OF_REFERENCE if is_reference else ROWS
    matrix = feature_matrix(rows, COLUMNS)
    context = make_context(evaluator, {"a": matrix, "b": matrix}, registry=Registry())
    # A bound run keeps every node's rows unless told not to.
    context._collect_node_outputs = False
    instances = bound(graph) if kind == BOUND else None
    measure(
        lambda: evaluator.evaluate(
            graph, context, bound_function_instances=instances, data_nan_features=["a"]
        ),
        workload=workload(name, kind),
        contender=contender,
        count=FUNCTIONS * rows,
        unit=UNIT,
    )


@pytest.mark.parametrize("contender", [BARE, ROW_COPY, NAN_CHECK])
@graphs
@kinds
def test_part(measure: Callable[..., None], kind: str, name: str, contender: str) -> None:
    if contender == BARE:
        run = bare_calls(GRAPHS[name], kind, ROWS)
    elif contender == ROW_COPY:
        run = row_copies(FUNCTIONS, ROWS)
    else:
        run = nan_checks
    measure(
        run,
        workload=workload(name, kind),
        contender=contender,
        floor=True,
        part=PARTS.get(contender, ""),
        count=FUNCTIONS * ROWS,
        unit=UNIT,
    )


def nan_checks() -> None:
    """One row for each function, with as few calls as there are time rows."""
    missing = np.full((FUNCTIONS, COLUMNS), np.nan)
    for _ in range(ROWS):
        np.isnan(missing).all(axis=1)
