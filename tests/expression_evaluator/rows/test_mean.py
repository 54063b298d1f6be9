"""Stateless reductions equal the array library's mean over the signals, to the bit."""

from __future__ import annotations

import warnings
import weakref
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import (
    EvaluationShapeError,
    FunctionExecutionError,
    UsefulSignal,
)
from support.functions import RecordingFunction, raising
from support.graphs import feature, filtration, reduction, rotation
from support.pools import make_pool, replace_filters
from support.reductions import reduction_context, stateful
from support.runs import fails, same_bits

PLAIN = reduction("f")
COUNTS = (1, 2, 3, 4, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 127, 128, 129, 136, 255, 257, 1000)


def uncalled() -> Any:
    return RecordingFunction(raising(AssertionError("called")))


def pool_of(weights: np.ndarray) -> dict[str, Any]:
    """Signals whose weights are the (T, N_alloc) matrices of an (A, T, N_alloc) array."""
    return {f"{k:06d}": UsefulSignal(matrix) for k, matrix in enumerate(weights)}


def means(evaluator, weights: np.ndarray, graph: Any = PLAIN) -> np.ndarray:
    """The weights of a run over the signals of an (A, T, N_alloc) array."""
    pool = pool_of(weights)
    _, rows, columns = np.shape(weights)
    context = reduction_context(
        evaluator, {"f": uncalled()}, pool=pool, rows=rows, columns=columns, validate_inputs=False
    )
    return evaluator.evaluate(graph, context).weights


def expected(weights: np.ndarray) -> np.ndarray:
    block = np.asarray(weights, dtype=np.float64)
    return np.array([np.mean(block[:, t, :].copy(), axis=0) for t in range(block.shape[1])])


@pytest.mark.parametrize("columns", [1, 2, 3, 4, 5, 7, 8, 9, 16, 17, 64, 65])
def test_any_number_of_signals_and_columns(evaluator, columns):
    generator = np.random.default_rng(columns)
    for signals in COUNTS:
        shape = (signals, 2, columns)
        scale = 10.0 ** generator.integers(-12, 12, size=shape)
        weights = generator.normal(size=shape) * scale
        same_bits(means(evaluator, weights), expected(weights))


@pytest.mark.parametrize(("signals", "columns"), [(20_000, 1), (10_000, 3), (8193, 2), (3, 9000)])
def test_many(evaluator, signals, columns):
    weights = np.random.default_rng(1).normal(size=(signals, 1, columns)) * 1e3
    same_bits(means(evaluator, weights), expected(weights))


def test_the_order_of_the_sum_shows():
    """Sums of one column go by pairs, and differ from a running sum: the data tell them apart."""
    column = np.random.default_rng(1).normal(size=(20_000, 1)) * 1e3
    running = np.add.accumulate(column[:, 0])[-1] / len(column)
    assert running != np.mean(column, axis=0)[0]
    wide = np.repeat(column, 2, axis=1)
    assert running == np.mean(wide, axis=0)[0]


NAN = np.array([0x7FF8000000000123, 0xFFF8000000000456], np.uint64).view(np.float64)
SPECIALS = {
    "negative zeros": [-0.0, -0.0, -0.0],
    "zeros of both signs": [-0.0, 0.0, -0.0],
    "a zero of each sign": [0.0, -0.0],
    "one negative zero": [-0.0],
    "infinity": [np.inf, 1.0, 2.0],
    "negative infinity": [1.0, -np.inf, -np.inf],
    "infinities of both signs": [np.inf, -np.inf, 1.0],
    "a NaN": [1.0, np.nan, 2.0],
    "a NaN with a payload": [1.0, NAN[0], 2.0],
    "a negative NaN": [1.0, 2.0, NAN[1]],
    "two NaN": [NAN[0], NAN[1]],
    "two NaN, the other way": [NAN[1], 1.0, NAN[0]],
    "a NaN and infinities": [np.inf, NAN[0], -np.inf],
    "denormal numbers": [2.0**-1074, 2.0**-1074, 2.0**-1074],
    "the largest numbers": [np.finfo(np.float64).max] * 3,
    "large numbers of both signs": [1e308, 1e308, -1e308, -1e308],
    "cancellation": [1e16, 1.0, -1e16, 1.0],
    "thirds": [0.1, 0.2, 0.3],
}


@pytest.mark.parametrize("values", SPECIALS.values(), ids=SPECIALS.keys())
@pytest.mark.parametrize("columns", [1, 2, 3, 8, 40])
@pytest.mark.filterwarnings("ignore::RuntimeWarning")
def test_special_values(evaluator, values, columns):
    """Also in the rows after the first, which are added while they are copied."""
    weights = np.tile(np.array(values)[:, np.newaxis, np.newaxis], (1, 3, columns))
    same_bits(means(evaluator, weights), expected(weights))


@pytest.mark.filterwarnings("ignore::RuntimeWarning")
def test_special_values_side_by_side(evaluator):
    columns = [np.resize(values, 12) for values in SPECIALS.values()]
    weights = np.tile(np.array(columns).T[:, np.newaxis, :], (1, 2, 1))
    same_bits(means(evaluator, weights), expected(weights))


BASE = np.random.default_rng(3).normal(size=(9, 3, 4)) * 1e3
KINDS = {
    "float32": BASE.astype(np.float32),
    "float16": BASE.astype(np.float16),
    "integers": BASE.astype(np.int32),
    "big-endian": BASE.astype(">f8"),
    "Fortran": np.asfortranarray(BASE),
    "sliced": np.repeat(np.repeat(BASE, 2, axis=1), 3, axis=2)[:, ::2, ::3],
    "backwards": BASE[:, ::-1, ::-1],
    "objects": BASE.astype(object),
}


@pytest.mark.parametrize("weights", KINDS.values(), ids=KINDS.keys())
def test_kinds_of_weights(evaluator, weights):
    same_bits(means(evaluator, weights), expected(weights))


@pytest.mark.parametrize("second", ["a", "ab", "abcabcabc"])
@pytest.mark.parametrize("columns", [1, 3])
def test_the_first_rows_of_another_extraction(evaluator, monkeypatch, second, columns):
    """Two filters: as many signals as the first passes, or fewer, of what the second passes."""
    replace_filters(monkeypatch, evaluator, first=["a", "c", "c"], second=list(second))
    pool = {
        sid: UsefulSignal(np.random.default_rng(ord(sid)).normal(size=(2, columns)))
        for sid in "abc"
    }
    graph = reduction("f", filtration("first"), filtration("second"))
    context = reduction_context(evaluator, {"f": uncalled()}, pool=pool, rows=2, columns=columns)
    result = evaluator.evaluate(graph, context)
    block = np.array([pool[sid].weights for sid in second[:3]])
    same_bits(result.weights, expected(block))


def test_what_another_reduction_wrote(evaluator, monkeypatch):
    """The mean is taken of the buffer as it stands, not of the signals."""
    replace_filters(monkeypatch, evaluator, first=["a", "b"])

    def spoil(signals: np.ndarray, **_: Any) -> float:
        signals[0] = 1.0
        signals[1] = 2.0
        return 0.0

    graph = reduction("f", filtration("first"), reduction("g", filtration("first")))
    context = reduction_context(evaluator, {"f": uncalled(), "g": stateful(spoil)})
    same_bits(evaluator.evaluate(graph, context).weights, np.full((4, 3), 1.5))


@pytest.mark.parametrize("when", [0, 1, 2])
def test_what_a_reduction_writes_later_through_a_view_that_it_kept(evaluator, monkeypatch, when):
    """Another function writes, between the extraction and its mean."""
    replace_filters(monkeypatch, evaluator, first=["a", "b"])
    kept: list[np.ndarray] = []

    def keep(signals: np.ndarray, **_: Any) -> float:
        kept.append(signals)
        return 0.0

    def write(_: Any, **__: Any) -> float:
        if len(kept) > when:
            kept[0][0] = 5.0
        return 0.0

    # The mean below the function makes the next extraction one that is averaged.
    last = reduction("f", filtration("first"), rotation("write", reduction("keep")))
    graph = rotation("sum", reduction("f", filtration("first")), last)
    pool = {sid: UsefulSignal(np.full((4, 3), float(ord(sid)))) for sid in "ab"}
    functions = {
        "f": uncalled(),
        "keep": stateful(keep),
        "write": RecordingFunction(write),
        "sum": RecordingFunction(lambda first, second, **_: second),
    }
    result = evaluator.evaluate(graph, reduction_context(evaluator, functions, pool=pool))
    plain, written = (97.0 + 98.0) / 2, (5.0 + 98.0) / 2
    expected_rows = [plain] * when + [written] * (4 - when)
    same_bits(result.weights, np.repeat(np.array(expected_rows)[:, np.newaxis], 3, axis=1))


def test_a_buffer_whose_form_changes_before_its_mean(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=list("abcd"))
    graph = reduction("f", filtration("first"), reduction("g", filtration("first")))
    pool = make_pool("abcd", rows=2, columns=6)
    for change, columns in [
        (lambda base: setattr(base, "shape", (8, 3)), 3),
        (lambda base: base.resize((4, 2), refcheck=False), 2),
    ]:
        spoil = stateful(lambda signals, change=change, **_: change(signals.base) or 0.0)
        functions = {"f": uncalled(), "g": spoil}
        context = reduction_context(evaluator, functions, pool=pool, rows=2, columns=6)
        text = f"Function 'f' returned shape ({columns},), expected (6,) at row 0"
        with fails(EvaluationShapeError, text):
            evaluator.evaluate(graph, context)


class Plain:
    """A stateful reduction that keeps nothing of its calls."""

    stateful = True

    def __init__(self, act: Any) -> None:
        self.act = act

    def __call__(self, signals: np.ndarray, signal_pnl: np.ndarray) -> float:
        self.act(signals)
        return 0.0

    def get_state(self) -> None:
        return None


def test_what_is_written_through_a_weak_reference(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a", "b"], second=["b", "c"])
    kept: list[Any] = []

    def write(*_: Any, **__: Any) -> float:
        kept[-1]()[:] = -5.0
        return 0.0

    graph = rotation(
        "last",
        reduction("keep", filtration("first")),
        reduction("f", filtration("first")),
        reduction("f", filtration("second"), rotation("write", feature("a"))),
    )
    functions = {
        "f": uncalled(),
        "keep": Plain(lambda signals: kept.append(weakref.ref(signals.base))),
        "write": RecordingFunction(write),
        "last": RecordingFunction(lambda *rows, **_: rows[-1]),
    }
    result = evaluator.evaluate(graph, reduction_context(evaluator, functions))
    same_bits(result.weights, np.full((4, 3), -5.0))


# --- warnings ------------------------------------------------------------------------------------


def warned(act: Any) -> list[tuple[type[Warning], str]]:
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        act()
    return [(one.category, str(one.message)) for one in caught]


LOUD = {
    "infinities of both signs": [np.inf, -np.inf],
    "an overflow": [1e308, 1e308],
    "a quiet NaN": [np.nan, np.nan],
    "no fault": [1.0, 2.0],
}


@pytest.mark.parametrize("values", LOUD.values(), ids=LOUD.keys())
@pytest.mark.parametrize("columns", [1, 3])
def test_warnings_are_those_of_the_array_library(evaluator, values, columns):
    weights = np.tile(np.array(values)[:, np.newaxis, np.newaxis], (1, 3, columns))
    own = warned(lambda: np.mean(weights[:, 0, :], axis=0))
    assert warned(lambda: means(evaluator, weights)) == own * 3


@pytest.mark.parametrize("columns", [0, 1, 3])
def test_the_mean_of_nothing(evaluator, monkeypatch, columns):
    replace_filters(monkeypatch, evaluator, first=[])
    pool = make_pool(rows=1, columns=columns)
    context = reduction_context(evaluator, {"f": uncalled()}, pool=pool, rows=1, columns=columns)
    graph = reduction("f", filtration("first"))
    results: list[Any] = []
    given = warned(lambda: results.append(evaluator.evaluate(graph, context)))
    assert given == warned(lambda: np.mean(np.zeros((0, columns)), axis=0))
    assert given or columns == 0
    assert np.isnan(results[0].weights).all()
    assert results[0].weights.shape == (1, columns)


def test_a_warning_that_is_an_error_is_a_failure_of_the_function(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=[])
    context = reduction_context(evaluator, {"f": uncalled()})
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(RuntimeWarning) as own:
            np.mean(np.zeros((0, 3)), axis=0)
        with pytest.raises(FunctionExecutionError) as caught:
            evaluator.evaluate(reduction("f", filtration("first")), context)
    assert str(caught.value) == f"Function 'f' failed at row 0: {own.value}"
    assert type(caught.value.__cause__) is RuntimeWarning


@pytest.mark.parametrize("columns", [1, 3])
@pytest.mark.parametrize("values", [[np.inf, -np.inf], [1e308, 1e308]])
def test_a_floating_point_error_is_a_failure_of_the_function(evaluator, values, columns):
    weights = np.repeat(np.array(values)[:, np.newaxis, np.newaxis], columns, axis=2)
    with np.errstate(all="raise"):
        with pytest.raises(FloatingPointError) as own:
            np.mean(weights[:, 0, :], axis=0)
        with pytest.raises(FunctionExecutionError) as caught:
            means(evaluator, weights)
    assert str(caught.value) == f"Function 'f' failed at row 0: {own.value}"
    assert type(caught.value.__cause__) is FloatingPointError
