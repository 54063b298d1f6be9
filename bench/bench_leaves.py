"""Leaves and literals: by themselves, and many of them under one function that does nothing."""

from __future__ import annotations

from collections.abc import Callable
from functools import cache
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from support.graphs import feature, number, rotation
from support.runs import make_context

from bench import evaluators
from bench.functions import Registry, bound
from bench.parts import BOUND, KINDS
from bench.workloads import COLUMNS, context_of, gather, masks, random_matrix

ROWS = 5000
ROWS_OF_REFERENCE = 200
# Of the functions over many leaves.
ROWS_OF_MANY = 500
ROWS_OF_MANY_IN_REFERENCE = 50
FEATURES = 20
# Naming a feature that the graph lacks marks nothing, but only the row loop reads marks, so the
# road that hands out the whole matrix declines.
ROADS: dict[str, dict[str, Any]] = {
    "whole matrix": {},
    "row loop": {"data_nan_features": ["no such feature"]},
}

universes = pytest.mark.parametrize("universe", [False, True], ids=["no universe", "universe"])
counts = pytest.mark.parametrize("children", [20, 200])
kinds = pytest.mark.parametrize("kind", KINDS)
contenders = pytest.mark.parametrize("contender", evaluators.NAMES)


def with_universe(universe: bool) -> str:
    return f"{'with' if universe else 'without'} universe"


def is_reference(contender: str) -> bool:
    return contender in (evaluators.PLAIN, evaluators.COMPILED)


# --- a leaf by itself ----------------------------------------------------------------------------


def leaf_workload(road: str, universe: bool) -> str:
    return f"leaf, {road}, {with_universe(universe)}"


@contenders
@universes
@pytest.mark.parametrize("road", ROADS)
def test_leaf(measure: Callable[..., None], universe: bool, road: str, contender: str) -> None:
    evaluator, graph = evaluators.load(contender), feature("a")
    rows = ROWS_OF_REFERENCE if road == "row loop" and is_reference(contender) else ROWS
    context = context_of(evaluator, rows, universe=masks(rows) if universe else None)
    measure(
        lambda: evaluator.evaluate(graph, context, **ROADS[road]),
        workload=leaf_workload(road, universe),
        contender=contender,
        count=rows,
        unit="ns a row",
    )


@pytest.mark.parametrize("road", ROADS)
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


# --- a function over many leaves -----------------------------------------------------------------


@cache
def features() -> dict[str, np.ndarray]:
    return {f"feature {k}": random_matrix(ROWS_OF_MANY, seed=k) for k in range(FEATURES)}


def leaf_names(children: int) -> list[str]:
    """The features in turn."""
    return [f"feature {k % FEATURES}" for k in range(children)]


def over_leaves(children: int) -> FunctionGraphNode:
    return rotation("native first", *map(feature, leaf_names(children)))


def leaves_workload(children: int, universe: bool, kind: str) -> str:
    return f"function over {children} leaves, {with_universe(universe)}, {kind}"


def run_of(evaluator: Any, graph: Any, context: Any, kind: str) -> Callable[[], Any]:
    # A bound run keeps every node's rows unless told not to.
    context._collect_node_outputs = False
    instances = bound(graph) if kind == BOUND else None
    return lambda: evaluator.evaluate(graph, context, bound_function_instances=instances)


@contenders
@universes
@kinds
@counts
def test_many_leaves(
    measure: Callable[..., None], children: int, kind: str, universe: bool, contender: str
) -> None:
    evaluator = evaluators.load(contender)
    rows = ROWS_OF_MANY_IN_REFERENCE if is_reference(contender) else ROWS_OF_MANY
    context = make_context(
        evaluator,
        {name: matrix[:rows] for name, matrix in features().items()},
        universe=masks(rows) if universe else None,
        registry=Registry(),
    )
    measure(
        run_of(evaluator, over_leaves(children), context, kind),
        workload=leaves_workload(children, universe, kind),
        contender=contender,
        count=children * rows,
        unit="ns a leaf and row",
    )


@universes
@kinds
@counts
def test_many_leaves_in_numpy(
    measure: Callable[..., None], children: int, kind: str, universe: bool
) -> None:
    """The leaves' rows gathered by one call for each time row, and masked by two more."""
    rows = [[features()[name][t] for name in leaf_names(children)] for t in range(ROWS_OF_MANY)]
    mask = masks(ROWS_OF_MANY)

    def gather_and_mask() -> None:
        for t, parts in enumerate(rows):
            block = np.stack(parts)
            block[:, (mask[t] == 0.0) | np.isnan(mask[t])] = np.nan

    measure(
        gather_and_mask if universe else gather(rows),
        workload=leaves_workload(children, universe, kind),
        contender="NumPy, rows and mask" if universe else "copy of the rows",
        floor=True,
        count=children * ROWS_OF_MANY,
        unit="ns a leaf and row",
    )


# --- a function over many literals ---------------------------------------------------------------


def literals_workload(children: int, kind: str) -> str:
    return f"function over {children} literals, {kind}"


@contenders
@kinds
@counts
def test_many_literals(
    measure: Callable[..., None], children: int, kind: str, contender: str
) -> None:
    evaluator = evaluators.load(contender)
    rows = ROWS_OF_MANY_IN_REFERENCE if is_reference(contender) else ROWS_OF_MANY
    graph = rotation("native first", *(number(float(k)) for k in range(children)))
    measure(
        run_of(evaluator, graph, context_of(evaluator, rows, registry=Registry()), kind),
        workload=literals_workload(children, kind),
        contender=contender,
        count=children * rows,
        unit="ns a literal and row",
    )


@kinds
@counts
def test_filling_of_rows(measure: Callable[..., None], children: int, kind: str) -> None:
    values, block = np.arange(float(children))[:, np.newaxis], np.empty((children, COLUMNS))
    measure(
        lambda: np.copyto(block, values),
        workload=literals_workload(children, kind),
        contender="filling of the rows",
        floor=True,
        count=children,
        unit="ns a literal and row",
        iterations=500,
    )
