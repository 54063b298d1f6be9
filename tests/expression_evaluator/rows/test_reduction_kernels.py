"""Reductions with kernels, beside rotations in every guise and behind filters."""

from __future__ import annotations

import itertools
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import UsefulSignal
from support.graphs import feature, filtration, node, number, reduction, rotation, string
from support.guise_runs import GuiseRun, all_in, features_of, plain_answer
from support.opted_in import TRAP
from support.pools import LABELS, make_pool

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
ROWS = 4
FILTER = filtration("filtration", node("gt", "gt", [string("sharpe"), number(0.5)]))
REDUCTION = reduction("reduce")
GRAPHS = {
    "a reduction": REDUCTION,
    "two": rotation("total", reduction("reduce"), reduction("reduce.other")),
    "below a rotation": rotation("running", reduction("reduce"), feature("a")),
    "beside rotations": rotation(
        "total.top", rotation("total", feature("a"), feature("b")), reduction("reduce")
    ),
    "filtered": rotation("total", reduction("reduce", FILTER), reduction("reduce.other")),
    "PnL column": reduction("reduce", string("net_returns")),
    "no PnL": reduction("reduce", string("")),
}
GUISES = [("kernel",), ("block", "kernel"), ("plain", "kernel"), ("kernel", "plain")]


def pool_of(rows: int = ROWS, columns: int = 3) -> dict[str, Any]:
    pool = make_pool("cab", rows, columns)
    for place, signal in enumerate(pool.values()):
        signal.fields = {"sharpe": float(place)}
    return pool


SETTINGS: dict[str, dict[str, Any]] = {
    "registry": {},
    "bound": {"bound": True},
    "collected": {"attributes": {"_collect_node_outputs": True}},
    "universe": {"universe": np.eye(ROWS, 3)},
    "marks": {"nan_features": ["a", "b"]},
    "one signal": {"useful_signals": {"c": pool_of()["c"]}},
    "without PnL": {
        "useful_signals": {
            name: UsefulSignal(signal.weights, None, signal.fields)
            for name, signal in pool_of().items()
        }
    },
}


@pytest.mark.parametrize("promise", [False, True], ids=["", "reads ahead"])
@pytest.mark.parametrize("setting", SETTINGS.values(), ids=SETTINGS)
@pytest.mark.parametrize("guises", GUISES, ids="+".join)
@pytest.mark.parametrize("graph", GRAPHS.values(), ids=GRAPHS)
def test_every_setting(evaluator, graph, guises, setting, promise):
    options = {"useful_signals": pool_of(), "column_labels": LABELS, **setting}
    options["attributes"] = {**options.get("attributes", {}), "_reads_rows_ahead": promise}
    expected = plain_answer(graph, features_of(ROWS, 3), **options)
    marked = options.pop("nan_features", None)
    run = GuiseRun(evaluator, graph, all_in(graph, *guises), features_of(ROWS, 3), **options)
    assert run(nan_features=marked) == expected


@pytest.mark.parametrize("guises", GUISES, ids="+".join)
def test_restored_states(evaluator, guises):
    graph, options = GRAPHS["two"], {"useful_signals": pool_of(), "column_labels": LABELS}
    state = {"count": 2, "last": [1.0, 2.0, 3.0]}
    states = {"root.c0": state, "root.c1": state}
    expected = plain_answer(graph, features_of(ROWS, 3), states=states, **options)
    run = GuiseRun(evaluator, graph, all_in(graph, *guises), features_of(ROWS, 3), **options)
    assert run(states) == expected


def test_a_cold_start_calls_the_instance(evaluator):
    options: dict[str, Any] = {"useful_signals": pool_of(), "column_labels": LABELS}
    states = {"root": {"count": 1, "window": 3}}
    expected = plain_answer(REDUCTION, features_of(ROWS, 3), states=states, cold=True, **options)
    run = GuiseRun(evaluator, REDUCTION, {"reduce": "kernel"}, features_of(ROWS, 3), **options)
    assert run(states, True) == expected
    assert run.calls == [["call", "call", *[3] * ROWS]]


@pytest.mark.parametrize("columns", [0, 1])
@pytest.mark.parametrize("graph", GRAPHS.values(), ids=GRAPHS)
def test_narrow_matrices(evaluator, graph, columns):
    options: dict[str, Any] = {"useful_signals": pool_of(ROWS, columns), "column_labels": LABELS}
    features = features_of(ROWS, columns)
    run = GuiseRun(evaluator, graph, all_in(graph, "kernel"), features, **options)
    assert run() == plain_answer(graph, features, **options)


@pytest.mark.parametrize("promise", [False, True], ids=["", "reads ahead"])
@pytest.mark.parametrize("guises", [*GUISES, ("plain", "block")], ids="+".join)
def test_the_earliest_failure_is_told(evaluator, guises, promise):
    graph = GRAPHS["beside rotations"]
    for first, second in itertools.product((0, 2, 3, None), repeat=2):
        features, pool = features_of(ROWS, 3), pool_of()
        if first is not None:
            features["a"][first, 0] = TRAP
        if second is not None:
            pool["a"].weights[second, 0] = TRAP
        options: dict[str, Any] = {
            "useful_signals": pool,
            "column_labels": LABELS,
            "attributes": {"_reads_rows_ahead": promise},
        }
        run = GuiseRun(evaluator, graph, all_in(graph, *guises), features, **options)
        expected = plain_answer(graph, features, **options)
        assert ("error" in expected) == (first is not None or second is not None)
        assert run() == expected


def test_stateless_reductions_never_reach_their_instance(evaluator):
    run = GuiseRun(
        evaluator, REDUCTION, {"reduce": "kernel"}, features_of(ROWS, 3), useful_signals=pool_of()
    )
    run.bound = {"root": run.registry.create_instance("reduce")}
    run.bound["root"].stateful = False
    result = evaluator.evaluate(REDUCTION, run.context, bound_function_instances=run.bound)
    assert run.bound["root"].calls == []
    expected = np.mean([signal.weights for signal in pool_of().values()], axis=0)
    assert np.array_equal(result.weights, expected)
