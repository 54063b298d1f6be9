"""The library at work in an evaluator."""

from __future__ import annotations

from pathlib import Path
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import FunctionEntry, checkpoints, default_registry
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FiltrationResolutionError,
    FunctionExecutionError,
    TransformStage,
    UsefulSignal,
)
from support.graphs import (
    feature,
    filtration,
    integer,
    node,
    number,
    reduction,
    rotation,
    string,
)

T, N = 40, 6
rng = np.random.default_rng(11)
PRICE, VOLUME = rng.normal(size=(T, N)), rng.normal(size=(T, N))
SIGNALS = {
    sid: UsefulSignal(rng.normal(size=(T, N)), rng.normal(size=(T, 2)), {"sharpe": sharpe})
    for sid, sharpe in [("c", 2.0), ("a", 0.5), ("b", 1.0)]
}


def evaluate(
    evaluator: ModuleType,
    graph: FunctionGraphNode,
    rows: slice = slice(None),
    *,
    states: Any = None,
    **context: Any,
) -> Any:
    signals = {
        sid: UsefulSignal(s.weights[rows], s.pnl[rows], s.fields)
        for sid, s in context.pop("signals", {}).items()
    }
    context.setdefault("registry", default_registry())
    return evaluator.evaluate(
        graph,
        evaluator.EvaluationContext(
            (PRICE[rows], VOLUME[rows]), {"price": 0, "volume": 1}, signals, **context
        ),
        function_states=states,
    )


def above(threshold: float) -> FunctionGraphNode:
    return filtration("filtration", node("gt", "gt", [string("sharpe"), number(threshold)]))


def everything() -> FunctionGraphNode:
    """A graph of all stateful functions."""
    rolling = feature("price")
    for name in ("mean", "std", "zscore", "delay", "delta", "sum"):
        rolling = rotation(
            "numerical_add",
            rotation(f"longitudinal_{name}", rolling, integer(3)),
            feature("volume"),
        )
    reductions: FunctionGraphNode = number(1.0)
    for name in ("vol", "sharpe", "turnover", "pnl"):
        reduced = reduction(f"weighted_by_{name}", above(0.7), integer(4))
        reductions = rotation("numerical_multiply", reductions, reduced)
    return rotation("numerical_subtract", rolling, reductions)


def test_run_in_two_halves_over_a_checkpoint(evaluator: ModuleType, tmp_path: Path) -> None:
    context: dict[str, Any] = {"signals": SIGNALS, "column_labels": ["gross_returns", "turnover"]}
    whole = evaluate(evaluator, everything(), **context)
    assert np.isfinite(whole.weights[-5:]).all()

    first = evaluate(evaluator, everything(), slice(0, 25), **context)
    checkpoints.save(tmp_path / "states", first.states)
    states = checkpoints.load(tmp_path / "states")
    second = evaluate(evaluator, everything(), slice(25, None), states=states, **context)
    assert np.concatenate([first.weights, second.weights]).tobytes() == whole.weights.tobytes()
    assert repr(second.states) == repr(whole.states)


def test_reduction_takes_the_signals_that_pass(evaluator: ModuleType) -> None:
    result = evaluate(evaluator, reduction("reduction_mean", above(0.7)), signals=SIGNALS)
    expected = (SIGNALS["b"].weights + SIGNALS["c"].weights) / 2
    np.testing.assert_allclose(result.weights, expected)


def test_no_signal_passes(evaluator: ModuleType) -> None:
    with pytest.raises(EvaluationError, match="Filtration returned 0 signals") as caught:
        evaluate(evaluator, reduction("reduction_mean", above(5.0)), signals=SIGNALS)
    assert caught.value.filter_diagnostics["filters"][-1] == {
        "filter": "gt(sharpe, 5.0)",
        "passing_count": 0,
    }


def test_faulty_filter(evaluator: ModuleType) -> None:
    graph = reduction("reduction_mean", filtration("filtration", node("top_n", "top_n")))
    with pytest.raises(FiltrationResolutionError, match="filter 'top_n' lacks field, n") as caught:
        evaluate(evaluator, graph, signals=SIGNALS)
    assert caught.value.filter_diagnostics["cause"] == "InvalidFilterError"


def test_literal_that_no_parameter_takes(evaluator: ModuleType) -> None:
    graph = rotation("numerical_add", feature("price"), integer(1))
    with pytest.raises(FunctionExecutionError) as caught:
        evaluate(evaluator, graph)
    assert str(caught.value) == (
        "Function 'numerical_add': unknown parameter(s): window; known: none"
    )


@pytest.mark.parametrize("product", [False, True])
def test_ranks_are_the_same_with_and_without_instances(
    evaluator: ModuleType, product: bool
) -> None:
    graph = rotation("latitudinal_rank", feature("price"))
    if product:
        graph = rotation(
            "numerical_multiply", graph, rotation("latitudinal_rank", feature("volume"))
        )
    universe = (rng.random((T, N)) < 0.7).astype(float)
    calls = []
    registry = default_registry()
    for name in ("latitudinal_rank", "numerical_multiply"):
        registry.register(recorded(registry.get_entry(name), calls))
    by_instances = evaluate(evaluator, graph, universe=universe, registry=registry)
    assert len(calls) == (3 * T if product else T)
    result = evaluate(evaluator, graph, universe=universe)
    assert result.weights.tobytes() == by_instances.weights.tobytes()


def recorded(entry: FunctionEntry, calls: list[str]) -> FunctionEntry:
    """The same function as code of the user's own, which notes its calls."""

    def build(**config: Any) -> Any:
        instance = entry.build(**config)

        class Recorded:
            stateful = instance.stateful
            arity = instance.arity

            def __call__(self, *rows: np.ndarray, **context: Any) -> np.ndarray:
                calls.append(entry.name)
                return instance(*rows, **context)

        return Recorded()

    return FunctionEntry(entry.name, "mine", build, entry.param_schema, entry.stateful)


@pytest.mark.parametrize("name", ["longitudinal_mean", "longitudinal_std", "longitudinal_zscore"])
def test_rolling_functions_agree_with_long_runs(evaluator: ModuleType, name: str) -> None:
    rows, window = 100_000, 20
    data = np.random.default_rng(2).normal(size=(rows, 2))
    data[-300, 0] = np.nan
    context = evaluator.EvaluationContext((data,), {"x": 0}, registry=default_registry())
    weights, states = evaluator.evaluate(rotation(name, feature("x"), integer(window)), context)
    assert states == {}
    instance = default_registry().create_instance(name, window=window)
    tail = np.array([instance(row) for row in data[-1000:]])
    np.testing.assert_allclose(weights[-1000 + window :], tail[window:], rtol=1e-9)


def test_stateful_stage_and_signal_keep_states_of_their_own(evaluator: ModuleType) -> None:
    signal = rotation("longitudinal_mean", feature("price"), integer(3))
    smooth = TransformStage(
        "smooth", "on", {"on": rotation("longitudinal_mean", node("signal", "signal"), integer(5))}
    )
    combined = rotation("longitudinal_mean", signal, integer(5))
    expected = evaluate(evaluator, combined)

    first = evaluate(evaluator, signal, slice(0, 15), transform_pipeline=[smooth])
    assert sorted(first.states) == ["root", "smooth.root"]
    second = evaluate(
        evaluator, signal, slice(15, None), transform_pipeline=[smooth], states=first.states
    )
    weights = np.concatenate([first.weights, second.weights])
    assert weights.tobytes() == expected.weights.tobytes()


def test_bound_instances(evaluator: ModuleType) -> None:
    registry = default_registry()
    graph = rotation(
        "latitudinal_scale",
        rotation("longitudinal_mean", feature("price"), integer(3)),
        number(2.0),
    )
    bound = {
        "root": registry.create_instance("latitudinal_scale", total=2.0),
        "root.c0": registry.create_instance("longitudinal_mean", window=3),
    }
    context = evaluator.EvaluationContext((PRICE,), {"price": 0}, registry=registry)
    result = evaluator.evaluate(graph, context, bound_function_instances=bound)
    assert result.weights.tobytes() == evaluate(evaluator, graph).weights.tobytes()
    assert result.states == {"root.c0": bound["root.c0"].get_state()}
