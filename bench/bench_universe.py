"""The universe: the mask that leaves get, and the mask that a run leaves on its context."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from support.graphs import feature

from bench import evaluators
from bench.workloads import COLUMNS, context_of, masks, random_matrix

ROWS = 5000
UNIT = "ns a cell"
# Less work is done often in a round.
ITERATIONS = {1: 2000, ROWS: 1}
CONTEXT_WORKLOAD = f"leaf and the context's first mask, {ROWS:,} x {COLUMNS}"

sizes = pytest.mark.parametrize("rows", ITERATIONS)


def mask_workload(rows: int) -> str:
    return f"mask of {rows:,} x {COLUMNS}"


@pytest.mark.parametrize("contender", evaluators.NAMES)
@sizes
def test_mask(measure: Callable[..., None], rows: int, contender: str) -> None:
    apply = evaluators.load(contender)._apply_universe_mask
    data, universe = random_matrix(rows), masks(rows)
    measure(
        lambda: apply(data, universe),
        workload=mask_workload(rows),
        contender=contender,
        count=rows * COLUMNS,
        unit=UNIT,
        iterations=ITERATIONS[rows],
    )


@sizes
def test_mask_copy(measure: Callable[..., None], rows: int) -> None:
    measure(
        random_matrix(rows).copy,
        workload=mask_workload(rows),
        contender="copy of the matrix",
        floor=True,
        count=rows * COLUMNS,
        unit=UNIT,
        iterations=ITERATIONS[rows],
    )


@pytest.mark.parametrize("contender", evaluators.NAMES)
def test_context_mask(measure: Callable[..., None], contender: str) -> None:
    evaluator, graph = evaluators.load(contender), feature("a")
    context = context_of(evaluator, ROWS, universe=masks(ROWS))

    def run() -> Any:
        # It serves all later runs, unless it is taken away.
        context.universe_mask = None
        return evaluator.evaluate(graph, context)

    measure(
        run,
        workload=CONTEXT_WORKLOAD,
        contender=contender,
        count=ROWS * COLUMNS,
        unit=UNIT,
    )


def test_context_mask_formulation(measure: Callable[..., None]) -> None:
    data, universe = random_matrix(ROWS), masks(ROWS)

    def both_masks() -> Any:
        context_mask = (np.isfinite(universe) & (universe != 0.0)).astype(np.uint8)
        return context_mask, np.where((universe == 0.0) | np.isnan(universe), np.nan, data)

    measure(
        both_masks,
        workload=CONTEXT_WORKLOAD,
        contender="NumPy, whole matrix",
        count=ROWS * COLUMNS,
        unit=UNIT,
    )
