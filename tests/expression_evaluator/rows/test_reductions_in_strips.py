"""Reductions whose signals can be read for many rows at once, and all that prevents it."""

from __future__ import annotations

import warnings
from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import FunctionExecutionError, UsefulSignal
from support.graphs import feature, filtration, node, number, reduction, rotation, string
from support.guise_runs import GuiseRun, all_in, features_of, make_instance, plain_answer
from support.pools import LABELS, make_pool, replace_filters

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
ROWS = 5
A, B = feature("a"), feature("b")
REDUCE = reduction("reduce")


def by_sharpe(bound: float = 0.5) -> Any:
    return filtration("filtration", node("gt", "gt", [string("sharpe"), number(bound)]))


def pool_of(rows: int = ROWS, columns: int = 3) -> dict[str, Any]:
    pool = make_pool("cab", rows, columns)
    for place, signal in enumerate(pool.values()):
        signal.fields = {"sharpe": float(place)}
    return pool


def observe(evaluator: Any, graph: Any, **options: Any) -> tuple[Any, list[Any], Any]:
    """What a run gives, how the root, a rotation with a kernel, got its rows, and the answer."""
    make: Callable[[], dict[str, Any]] = options.pop("make", dict)
    options = {"features": features_of(ROWS, 3), "column_labels": LABELS, **options}
    expected = plain_answer(graph, **{"useful_signals": pool_of(), **options, **make()})
    options = {"useful_signals": pool_of(), **options, **make()}
    states, marked = options.pop("states", None), options.pop("nan_features", None)
    run = GuiseRun(evaluator, graph, all_in(graph, "kernel"), **options)
    observed = run(states, nan_features=marked)
    return observed, run.registry.instances[-1].calls, expected


def beside(*reductions: Any) -> Any:
    return rotation("total.top", rotation("running", A, B), *reductions)


@pytest.mark.parametrize(
    ("graph", "calls"),
    [
        (beside(REDUCE), [ROWS]),
        (beside(reduction("reduce", string("net_returns"))), [ROWS]),
        (beside(REDUCE, reduction("reduce.other")), [ROWS]),
        # The first row resolves the filters.
        (beside(reduction("reduce", by_sharpe())), [1, ROWS - 1]),
        (beside(reduction("reduce", by_sharpe()), reduction("reduce.other")), [1, ROWS - 1]),
        (beside(reduction("reduce.other"), reduction("reduce", by_sharpe(1.5))), [1, ROWS - 1]),
    ],
)
@pytest.mark.parametrize("collect", [False, True])
@pytest.mark.parametrize("marked", [None, ["a", "b"]])
def test_they_go_in_strips(evaluator, graph, calls, collect, marked):
    observed, called, expected = observe(
        evaluator, graph, attributes={"_collect_node_outputs": collect}, nan_features=marked
    )
    assert observed == expected
    assert called == calls


class OddPool(dict):
    pass


class OddName(str):
    __slots__ = ()


class Computed:
    """A signal whose weights are computed."""

    fields = None
    pnl = None

    @property
    def weights(self) -> np.ndarray:
        return np.ones((ROWS, 3))


def with_signal(**changes: Any) -> Callable[[], dict[str, Any]]:
    def make() -> dict[str, Any]:
        pool = pool_of()
        vars(pool["a"]).update(changes)
        return {"useful_signals": pool}

    return make


ODD: dict[str, Callable[[], dict[str, Any]]] = {
    "pool": lambda: {"useful_signals": OddPool(pool_of())},
    "id": lambda: {"useful_signals": {OddName(k): v for k, v in pool_of().items()}},
    "signal": lambda: {"useful_signals": {**pool_of(), "d": Computed()}},
    "weights of float32": with_signal(weights=np.ones((ROWS, 3), np.float32)),
    "weights with too few rows": with_signal(weights=np.ones((ROWS - 1, 3))),
    "weights with too few columns": with_signal(weights=np.ones((ROWS, 1))),
    "PnL of float32": with_signal(pnl=np.ones((ROWS, 2), np.float32)),
    "PnL with too few rows": with_signal(pnl=np.ones((ROWS - 2, 2))),
    "PnL with too few columns": with_signal(pnl=np.ones((ROWS, 0))),
    "labels": lambda: {"column_labels": [OddName("gross_returns"), "net_returns"]},
    "a label that is missing": lambda: {"column_labels": ["net_returns"]},
    "PnL vectors": lambda: {"signal_pnl_vectors": {"a": {"gross_returns": 2.0}}},
    "no pool": lambda: {"useful_signals": {}},
}


@pytest.mark.parametrize("make", ODD.values(), ids=ODD)
@pytest.mark.parametrize("promise", [False, True])
def test_what_needs_the_hosts_code_goes_row_by_row(evaluator, make, promise):
    observed, called, expected = observe(
        evaluator, beside(REDUCE), make=make, attributes={"_reads_rows_ahead": promise}
    )
    assert observed == expected
    ran = called if promise else [1] * len(called)
    assert called == ran


def of_an_odd_kind(graph: Any) -> Any:
    graph.type = OddName(graph.type)
    return graph


UNPAIRED = {
    "a filter of an odd kind": rotation("total.top", A, REDUCE, of_an_odd_kind(by_sharpe())),
    "two filters": beside(reduction("reduce", by_sharpe(), by_sharpe(1.5))),
    "a filter and a reduction below": beside(reduction("reduce", by_sharpe(), REDUCE)),
    "a filter below a rotation": rotation("total.top", A, by_sharpe(), REDUCE),
    "a filter within a filter": beside(
        reduction(
            "reduce",
            filtration("and_", by_sharpe(), node("gt", "gt", [string("sharpe"), number(0.1)])),
        )
    ),
}


@pytest.mark.parametrize("graph", UNPAIRED.values(), ids=UNPAIRED)
@pytest.mark.parametrize("promise", [False, True])
def test_what_another_extraction_left_is_reduced_row_by_row(evaluator, graph, promise):
    observed, called, expected = observe(
        evaluator, graph, attributes={"_reads_rows_ahead": promise}
    )
    assert observed == expected
    assert set(called) <= {1}


@pytest.mark.parametrize("promise", [False, True])
def test_an_output_that_stands_for_a_filter(evaluator, promise):
    """Its reduction reads what the one before it extracted."""
    graph = beside(reduction("reduce.other", by_sharpe()), reduction("reduce", by_sharpe(1.5)))
    graph.children[2].children[0].canonical_id = "x"
    attributes = {"_reads_rows_ahead": promise, "_precomputed_node_outputs": {"x": [0.5] * 3}}
    observed, called, expected = observe(evaluator, graph, attributes=attributes)
    assert observed == expected
    assert called == [1] * ROWS


@pytest.mark.parametrize("promise", [False, True])
@pytest.mark.parametrize("plain", ["reduce", "reduce.other", "total.top"])
def test_beside_plain_functions(evaluator, promise, plain):
    graph = beside(reduction("reduce", by_sharpe()), reduction("reduce.other", by_sharpe(1.5)))
    options: dict[str, Any] = {
        "column_labels": LABELS,
        "attributes": {"_reads_rows_ahead": promise},
    }
    expected = plain_answer(graph, features_of(ROWS, 3), useful_signals=pool_of(), **options)
    guises = {**all_in(graph, "kernel"), plain: "plain"}
    run = GuiseRun(
        evaluator, graph, guises, features_of(ROWS, 3), useful_signals=pool_of(), **options
    )
    assert run() == expected
    running = run.registry.instances[0].calls
    assert running == ([1, ROWS - 1] if promise else [1] * ROWS)


def test_parts_ahead_of_a_plain_function_leave_the_last_extraction(evaluator):
    graph = rotation("total.top", reduction("reduce", by_sharpe()), reduction("reduce.other"))
    options: dict[str, Any] = {
        "useful_signals": pool_of(),
        "column_labels": LABELS,
        "attributes": {"_reads_rows_ahead": True},
    }
    for plain in ("reduce", "reduce.other"):
        guises = {**all_in(graph, "kernel"), plain: "plain"}
        run = GuiseRun(evaluator, graph, guises, features_of(ROWS, 3), **options)
        assert run() == plain_answer(graph, features_of(ROWS, 3), **options)


@pytest.mark.parametrize("columns", [1, 2, 40_000])
@pytest.mark.parametrize("value", [1.0, np.inf, 1e308, np.nan])
def test_means(evaluator, columns, value):
    """Stateless: the mean, in which infinities meet and large numbers overflow with a warning."""
    pool = pool_of(ROWS, columns)
    pool["a"].weights[2] = value
    pool["b"].weights[2] = -value if value == np.inf else value
    pool["c"].weights[2] = value
    context_options = {"useful_signals": pool}
    features = features_of(ROWS, columns)
    graph = rotation("total.top", A, reduction("reduce"))

    def run_with(guise: str) -> Any:
        run = GuiseRun(evaluator, graph, {}, features, **context_options)
        top, mean = make_instance("total.top", guise), make_instance("reduce", guise)
        mean.stateful = False
        run.bound = {"root": top, "root.c1": mean}
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            observed = run()
        assert mean.calls == []
        return observed, [(entry.category, str(entry.message)) for entry in caught]

    assert run_with("kernel") == run_with("plain")


def test_a_mean_that_warns_may_be_an_error(evaluator):
    pool = pool_of()
    for signal in pool.values():
        signal.weights[3] = 1.7e308
    run = GuiseRun(
        evaluator, rotation("total.top", A, REDUCE), {}, features_of(ROWS, 3), useful_signals=pool
    )
    mean = make_instance("reduce", "kernel")
    mean.stateful = False
    run.bound = {"root": make_instance("total.top", "kernel"), "root.c1": mean}
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(FunctionExecutionError, match=r"^Function 'reduce' failed at row 3: "):
            evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    assert run.context.current_day_index == 3


def test_a_mean_of_the_hosts_may_do_what_it_likes_with_its_rows(evaluator, monkeypatch):
    plain_mean, kept = np.mean, []

    def mean(rows: np.ndarray, axis: int) -> np.ndarray:
        result = plain_mean(rows, axis=axis)
        if rows.base is None:
            rows.resize((40_000, 1), refcheck=False)
        kept.append(rows)
        return result

    monkeypatch.setattr(evaluator.np, "mean", mean)
    run = GuiseRun(
        evaluator,
        rotation("total.top", A, REDUCE),
        {},
        features_of(ROWS, 1),
        useful_signals=pool_of(ROWS, 1),
    )
    reduce = make_instance("reduce", "kernel")
    reduce.stateful = False
    run.bound = {"root": make_instance("total.top", "kernel"), "root.c1": reduce}
    result = evaluator.evaluate(run.graph, run.context, bound_function_instances=run.bound)
    means = [signal.weights for signal in pool_of(ROWS, 1).values()]
    expected = features_of(ROWS, 1)["a"] + plain_mean(means, axis=0)
    assert np.array_equal(result.weights, 0.5 + expected)
    assert run.context.extraction_buffer.shape == (3, 1)
    assert len(kept) == ROWS


@pytest.mark.parametrize("stateful", [1, 0, "yes", "", np.True_])
def test_an_odd_stateful_goes_row_by_row(evaluator, stateful):
    def run_with(guise: str) -> Any:
        run = GuiseRun(
            evaluator,
            rotation("total.top", A, REDUCE),
            {},
            features_of(ROWS, 3),
            useful_signals=pool_of(),
            column_labels=LABELS,
        )
        top, reduce = make_instance("total.top", guise), make_instance("reduce", guise)
        reduce.stateful = stateful
        run.bound = {"root": top, "root.c1": reduce}
        return run(), top.calls

    observed, calls = run_with("kernel")
    assert observed == run_with("plain")[0]
    assert calls == [1] * ROWS


def test_a_filter_result_with_odd_ids(evaluator, monkeypatch):
    for ids, calls in (
        (["a", "c"], [1, ROWS - 1]),
        (("a", "c"), [1, ROWS - 1]),
        ([OddName("a"), "c"], [1] * ROWS),
        ([], [1] * ROWS),
    ):
        replace_filters(monkeypatch, evaluator, filtration=ids)
        graph = rotation("total.top", A, reduction("reduce", by_sharpe()))
        run = GuiseRun(
            evaluator,
            graph,
            all_in(graph, "kernel"),
            features_of(ROWS, 3),
            useful_signals=pool_of(),
            column_labels=LABELS,
        )
        assert "weights" in run(), ids
        assert run.registry.instances[-1].calls == calls, ids


def test_signals_that_share_a_matrix_of_any_form(evaluator):
    weights = np.asfortranarray(np.arange(4.0 * ROWS * 3).reshape(ROWS * 2, 6))[::-2, 1::2]
    pool = {name: UsefulSignal(weights, weights, {"sharpe": 1.0}) for name in "ab"}
    observed, called, expected = observe(
        evaluator, beside(REDUCE), make=lambda: {"useful_signals": pool}
    )
    assert observed == expected
    assert called == [ROWS]
