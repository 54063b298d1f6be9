"""However a run is cut, and however long its strips are, the rows are the same."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.graphs import feature, rotation
from support.guise_runs import GuiseRun, all_in, bits, plain_answer
from support.runs import counting_matrix

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
A, B = feature("a"), feature("b")
GUISES = [("kernel",), ("block",), ("kernel", "block"), ("plain", "kernel"), ("block", "plain")]
STATEFUL = rotation("running", rotation("running.below", A, B), rotation("total", B))
WIDE = {"a": counting_matrix(11) % 7, "b": counting_matrix(11, start=0.1) % 5}


def whole_run() -> Any:
    return plain_answer(STATEFUL, WIDE)


@pytest.mark.parametrize("cut", range(len(WIDE["a"]) + 1))
@pytest.mark.parametrize("guises", GUISES, ids="+".join)
def test_cut_anywhere_and_restored(evaluator, guises, cut):
    parts = [
        {name: matrix[:cut] for name, matrix in WIDE.items()},
        {name: matrix[cut:] for name, matrix in WIDE.items()},
    ]
    states: Any = None
    weights = b""
    for part in parts:
        observed = GuiseRun(evaluator, STATEFUL, all_in(STATEFUL, *guises), part)(states)
        states = dict(observed["states"])
        weights += observed["weights"][2]
    expected = whole_run()
    assert weights == expected["weights"][2]
    assert list(states.items()) == expected["states"]


@pytest.mark.parametrize("guises", GUISES, ids="+".join)
def test_tick_by_tick(evaluator, guises):
    """The same instances from row to row; calls from outside in between are seen."""
    run = GuiseRun(evaluator, STATEFUL, all_in(STATEFUL, *guises), WIDE, bound=True)
    twins = GuiseRun(evaluator, STATEFUL, {}, WIDE, bound=True)
    for row in range(len(WIDE["a"])):
        for one in (run, twins):
            one.context.features = tuple(matrix[row : row + 1] for matrix in WIDE.values())
        assert run() == twins()
        if row % 3 == 0:
            extra = np.array([1.0, -2.0, float(row)])
            for path in ("root", "root.c0"):
                assert run.bound is not None and twins.bound is not None
                assert bits(run.bound[path](extra)) == bits(twins.bound[path](extra))


@pytest.mark.parametrize("columns", [1, 3, 500, 3_000, 5_000, 11_000, 17_000, 40_000])
@pytest.mark.parametrize("guises", GUISES[:3], ids="+".join)
def test_strips_of_every_length(evaluator, guises, columns):
    rows = 9
    random = np.random.default_rng(columns)
    features = {name: random.normal(size=(rows, columns)) for name in "ab"}
    for bound in (False, True):
        expected = plain_answer(STATEFUL, features, bound=bound)
        run = GuiseRun(evaluator, STATEFUL, all_in(STATEFUL, *guises), features, bound=bound)
        assert run() == expected
        assert all(sum(calls) == rows for calls in run.calls)


@pytest.mark.parametrize("guise", ["kernel", "block"])
def test_long_runs_are_computed_in_few_calls(evaluator, guise):
    """Otherwise nothing here would say anything of strips."""
    lengths = set()
    for columns in (2, 2_000, 20_000, 60_000):
        features = {name: np.ones((7, columns)) for name in "ab"}
        for bound in (False, True):
            run = GuiseRun(evaluator, STATEFUL, all_in(STATEFUL, guise), features, bound=bound)
            run()
            assert all(sum(calls) == 7 for calls in run.calls)
            lengths.update(length for calls in run.calls for length in calls)
            if columns == 2:
                assert run.calls == [[7]] * 3
    assert 1 in lengths
    assert lengths & {2, 3, 4, 5, 6}
