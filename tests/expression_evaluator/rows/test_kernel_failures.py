"""Where functions that opted in fail: the row, the node, the text and the cause of plain ones."""

from __future__ import annotations

import itertools

import numpy as np
import pytest
from support.graphs import feature, number, rotation
from support.guise_runs import GuiseRun, all_in, plain_answer
from support.opted_in import TRAP
from support.runs import counting_matrix

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
ROWS = 7
A, B = feature("a"), feature("b")
GUISES = [("kernel",), ("block",), ("kernel", "block"), ("plain", "kernel"), ("block", "plain")]
GRAPH = rotation("total.top", rotation("running", A, number(1.0)), rotation("running.second", B), B)


def trapped(rows: int, columns: int, **traps: int | None) -> dict[str, np.ndarray]:
    """Features "a" and "b" with a trap each in the first column of a row."""
    features = {name: counting_matrix(rows, columns) for name in "ab"}
    for name, row in traps.items():
        if row is not None:
            features[name][row, 0] = TRAP
    return features


@pytest.mark.parametrize("promise", [False, True], ids=["", "reads ahead"])
@pytest.mark.parametrize("guises", GUISES, ids="+".join)
@pytest.mark.parametrize("columns", [2, 6_000, 20_000])
def test_at_every_row_of_every_function(evaluator, guises, columns, promise):
    pairs = itertools.product((*range(ROWS), None), repeat=2)
    for first, second in pairs if columns == 2 else [(0, 3), (6, 3), (5, None), (None, 6)]:
        features = trapped(ROWS, columns, a=first, b=second)
        attributes = {"_reads_rows_ahead": promise}
        for bound in (False, True) if columns == 2 else (False,):
            options = {"bound": bound, "attributes": attributes}
            run = GuiseRun(evaluator, GRAPH, all_in(GRAPH, *guises), features, **options)
            expected = plain_answer(GRAPH, features, **options)
            assert ("error" in expected) == (first is not None or second is not None)
            assert run() == expected


@pytest.mark.parametrize("guises", GUISES, ids="+".join)
def test_the_rows_before_can_be_run_again(evaluator, guises):
    """A failed run leaves nothing behind that the next would meet."""
    for row in range(ROWS):
        features = trapped(ROWS, 2, a=row)
        run = GuiseRun(evaluator, GRAPH, all_in(GRAPH, *guises), features)
        twin = GuiseRun(evaluator, GRAPH, {}, features)
        assert run() == twin()
        for one in (run, twin):
            one.context.features = tuple(matrix[:row] for matrix in features.values())
        assert run() == twin()


@pytest.mark.parametrize("guises", GUISES, ids="+".join)
def test_behind_a_mark_of_missing_data(evaluator, guises):
    graph = rotation("total.top", rotation("running", A, B), rotation("gaps", A))
    for row in range(ROWS):
        features = trapped(ROWS, 2, b=row)
        expected = plain_answer(graph, features, nan_features=["a"])
        run = GuiseRun(evaluator, graph, all_in(graph, *guises), features)
        assert run(nan_features=["a"]) == expected
