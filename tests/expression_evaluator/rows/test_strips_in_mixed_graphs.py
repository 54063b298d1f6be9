"""Functions that opted in beside plain ones, which may change what later rows read."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.graphs import feature, number, rotation
from support.guise_runs import GuiseRun, features_of, functions_of, make_instance, plain_answer

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
A, B = feature("a"), feature("b")
MIXED = rotation(
    "total.top",
    rotation("running.beside", A),
    rotation("running", rotation("total.below", A, B), rotation("running.fast", B)),
    rotation("total.fast", A, rotation("running.fast", B, number(2.0))),
)


@pytest.mark.parametrize("guise", ["kernel", "block"])
def test_a_promise_lets_parts_of_a_graph_run_ahead(evaluator, guise):
    guises = {"running.fast": guise, "total.fast": guise}
    features = features_of(6, 3)
    expected = plain_answer(MIXED, features, attributes={"_reads_rows_ahead": True})
    run = GuiseRun(evaluator, MIXED, guises, features, attributes={"_reads_rows_ahead": True})
    assert run() == expected
    calls = {
        path: instance.calls
        for path, instance in zip(functions_of(MIXED), run.registry.instances, strict=True)
    }
    assert calls["root.c1.c1"] == calls["root.c2"] == calls["root.c2.c1"] == [6]
    assert calls["root.c0"] == calls["root"] == ["call"] * 6


@pytest.mark.parametrize("promise", [False, None, 0, ""])
def test_without_the_promise_kernels_are_called_row_by_row(evaluator, promise):
    guises = {"running.fast": "kernel", "total.fast": "block"}
    run = GuiseRun(
        evaluator, MIXED, guises, features_of(6, 3), attributes={"_reads_rows_ahead": promise}
    )
    plain = plain_answer(MIXED, features_of(6, 3), attributes={"_reads_rows_ahead": promise})
    assert run() == plain
    called = [
        run.registry.instances[place].calls
        for place, name in enumerate(functions_of(MIXED).values())
        if name in guises
    ]
    assert called == [[1] * 6, [1] * 6, ["call"] * 6]


class Meddler:
    """A plain function that changes what later rows read."""

    stateful = False

    def __init__(self, deed: Any) -> None:
        self.deed = deed
        self.context: Any = None
        self.row = 0

    def __call__(self, *rows: np.ndarray, context: Any = None) -> Any:
        self.deed(self.context, self.row)
        self.row += 1
        return rows[0] * 1.0


def write_features(context: Any, row: int) -> None:
    context.features[1][:] = row


def exchange_features(context: Any, row: int) -> None:
    context.features[1] = np.full((6, 3), 0.5 * row)


def lay_universe(context: Any, row: int) -> None:
    context.universe = np.full((6, 3), row % 2, dtype=np.float64)


def store_outputs(context: Any, row: int) -> None:
    context._precomputed_node_outputs.update({"x": [0.25 * row] * 3})
    if row == 3:
        context._precomputed_node_outputs.clear()


@pytest.mark.parametrize("guise", ["kernel", "block"])
@pytest.mark.parametrize("deed", [write_features, exchange_features, lay_universe, store_outputs])
def test_plain_functions_may_change_the_next_row(evaluator, deed, guise):
    graph = rotation(
        "total.top",
        rotation("meddle", A),
        rotation("running", B, number(1.5, canonical_id="x")),
    )

    def observe(guise: str) -> Any:
        run = GuiseRun(
            evaluator,
            graph,
            {"running": guise, "total.top": guise},
            features_of(6, 3),
            as_list=True,
            attributes={"_precomputed_node_outputs": {}},
        )
        meddler = Meddler(deed)
        meddler.context = run.context
        run.bound = {
            "root": make_instance("total.top", guise),
            "root.c0": meddler,
            "root.c1": make_instance("running", guise),
        }
        return run()

    assert observe(guise) == observe("plain")


@pytest.mark.parametrize("guise", ["kernel", "block"])
@pytest.mark.parametrize("promise", [False, True])
def test_one_instance_at_two_nodes(evaluator, guise, promise):
    graph = rotation("total", rotation("running", A), rotation("running", B, rotation("total", A)))

    def observe(guise: str) -> Any:
        run = GuiseRun(
            evaluator,
            graph,
            {},
            features_of(6, 3),
            attributes={"_reads_rows_ahead": promise},
        )
        shared, top = make_instance("running", guise), make_instance("total", guise)
        run.bound = {"root": top, "root.c0": shared, "root.c1": shared, "root.c1.c1": top}
        return run()

    assert observe(guise) == observe("plain")


@pytest.mark.parametrize("promise", [False, True])
def test_two_kernels_of_one_state(evaluator, promise):
    """The instances differ, what their kernels work on is one thing."""
    graph = rotation("total", rotation("running", A), rotation("running", B))

    def observe(guise: str) -> Any:
        run = GuiseRun(
            evaluator, graph, {}, features_of(6, 3), attributes={"_reads_rows_ahead": promise}
        )
        pair = [make_instance("running", guise), make_instance("running", guise)]
        pair[1].memory = pair[0].memory
        if guise == "kernel":
            pair[1].structure.state = pair[0].structure.state
        run.bound = {"root": make_instance("total", guise), "root.c0": pair[0], "root.c1": pair[1]}
        return run()

    assert observe("kernel") == observe("plain")
