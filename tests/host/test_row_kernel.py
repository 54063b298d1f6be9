"""Plain functions that become machine code: the same bits however they are run, clear errors."""

from __future__ import annotations

import functools
import math
import sys
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, row_kernel
from quernbrook.simulator_engine._types import FunctionExecutionError
from support.graphs import feature, number, rotation
from support.runs import fails, make_context, same_bits

SHAPES = [(0, 3), (1, 1), (4, 0), (5, 3), (7, 9_000), (300, 501)]


def shrunk(price: float, level: float) -> float:
    return (price - level) / (abs(price) + 0.25)


def logistic(value: float, other: float) -> float:
    if math.isnan(value):
        return -1.0
    return math.exp(-abs(value)) / other


def spread(row: Any, other: Any) -> Any:
    return (row - row.mean()) / (other.max() - other.min())


def total(row: Any, other: Any) -> Any:
    return row.sum() + other.sum()


CELL_BY_CELL = [shrunk, logistic]
OVER_ROWS = [spread, total]


@functools.cache
def entry_of(function: Any) -> FunctionEntry:
    return row_kernel(over_rows=function in OVER_ROWS)(function)


@pytest.fixture(autouse=True)
def with_numba() -> None:
    pytest.importorskip("numba")


def matrices(rows: int, columns: int) -> dict[str, np.ndarray]:
    random = np.random.default_rng(rows * 31 + columns)
    features = {name: random.normal(size=(rows, columns)) for name in "ab"}
    if features["a"].size > 3:
        features["a"].flat[:3] = np.nan, np.inf, -0.0
        features["b"].flat[:4] = 1.0, 2.0, 0.0, 0.0
    return features


class Stripped:
    """The same function without its offer: every row is a call."""

    stateful = False

    def __init__(self, inner: Any) -> None:
        self.inner, self.arity = inner, inner.arity

    def __call__(self, *rows: np.ndarray, context: Any = None) -> Any:
        return self.inner(*rows)


@pytest.mark.parametrize("evaluator", ["native"], indirect=True)
@pytest.mark.parametrize("function", [*CELL_BY_CELL, *OVER_ROWS])
def test_strips_rows_and_calls_give_the_same_bits(evaluator, function):
    entry = entry_of(function)
    graph = rotation("f", feature("a"), rotation("f", feature("b"), feature("a")))
    for shape in SHAPES:
        if function is spread and shape[1] == 0:
            continue  # has no extremes
        instance = entry.build()
        context = make_context(evaluator, matrices(*shape))
        bound = {"root": instance, "root.c1": instance}
        strips = evaluator.evaluate(graph, context, bound_function_instances=bound)
        mixed = {"root": instance, "root.c1": Stripped(instance)}
        called = {"root": Stripped(instance), "root.c1": Stripped(instance)}
        for other in (mixed, called):
            rows = evaluator.evaluate(graph, context, bound_function_instances=other)
            same_bits(rows.weights, strips.weights)


def test_arithmetic_is_that_of_the_plain_function():
    rows = matrices(1, 4_000)
    first, second = rows["a"][0], rows["b"][0]
    with np.errstate(all="ignore"):
        expected = (first - second) / (np.abs(first) + 0.25)
    same_bits(entry_of(shrunk).build()(first, second), expected)


@pytest.mark.parametrize("evaluator", ["native"], indirect=True)
def test_in_a_registry(evaluator):
    entry = row_kernel(shrunk)
    assert isinstance(entry, FunctionEntry)
    assert (entry.name, entry.stateful, entry.library) == ("shrunk", False, False)
    registry = FunctionRegistry([entry])
    features = matrices(20, 7)
    context = make_context(evaluator, features, registry=registry)
    result = evaluator.evaluate(rotation("shrunk", feature("a"), number(2.0)), context)
    with np.errstate(all="ignore"):
        same_bits(result.weights, (features["a"] - 2.0) / (np.abs(features["a"]) + 0.25))


def wary(value: float) -> float:
    if value > 2.0:
        raise ValueError("too large")
    return value


@pytest.mark.parametrize("evaluator", ["native"], indirect=True)
@pytest.mark.parametrize("row", range(4))
def test_what_raises(evaluator, row):
    matrix = np.zeros((4, 3))
    matrix[row, 1] = 3.0
    instance = entry_of(wary).build()
    context = make_context(evaluator, {"a": matrix})
    with pytest.raises(FunctionExecutionError) as caught:
        evaluator.evaluate(
            rotation("f", feature("a")), context, bound_function_instances={"root": instance}
        )
    text = "wary raised an exception"
    assert str(caught.value) == f"Function 'f' failed at row {row}: {text}"
    assert repr(caught.value.__cause__) == repr(RuntimeError(text))
    with fails(RuntimeError, text):
        instance(matrix[row])


@pytest.mark.parametrize("rows", [0, 1, 3])
def test_another_number_of_inputs(rows):
    with fails(TypeError, "shrunk takes 2 input(s)"):
        entry_of(shrunk).build()(*[np.ones(3)] * rows)


@pytest.mark.parametrize(
    ("shapes", "told"),
    [([4, 2], "(4,), (2,)"), ([2, 4], "(2,), (4,)"), ([(2, 2)] * 2, "(2, 2), (2, 2)")],
)
def test_rows_that_do_not_fit(shapes, told):
    with fails(ValueError, f"shrunk takes vectors of one length; got the shapes {told}"):
        entry_of(shrunk).build()(*map(np.ones, shapes))


def test_rows_of_other_kinds_are_made_plain():
    instance = entry_of(shrunk).build()
    plain = instance(np.arange(3.0), np.ones(3))
    odd = instance(np.arange(6, dtype=np.int32)[::2] // 2, np.ones(3, dtype=">f4"))
    same_bits(odd, plain)


def starred(*values: float) -> float:
    return values[0]


def preset(value: float, factor: float = 2.0) -> float:
    return value * factor


def keyword(*, value: float) -> float:
    return value


@pytest.mark.parametrize(
    ("function", "text"),
    [
        (int, "row_kernel compiles plain functions; got type"),
        (shrunk.__call__, "row_kernel compiles plain functions; got method-wrapper"),
        (lambda: 1.0, "row_kernel can't compile '<lambda>': it has no inputs"),
        *(
            (
                function,
                f"row_kernel can't compile '{function.__name__}': '{parameter}' is no plain "
                "input; inputs are positional and have no defaults",
            )
            for function, parameter in (
                (starred, "*values: 'float'"),
                (preset, "factor: 'float' = 2.0"),
                (keyword, "value: 'float'"),
            )
        ),
    ],
)
def test_functions_of_another_form(function, text):
    with fails(TypeError, text):
        row_kernel(function)


def writes(row: Any) -> Any:
    row[0] = 1.0
    return row


@pytest.mark.parametrize(
    ("function", "over_rows"),
    [
        (lambda value: object(), False),
        (lambda value: "text", False),
        (lambda value: 1j, False),
        (writes, True),
    ],
)
def test_functions_that_cannot_be_compiled(function, over_rows):
    with pytest.raises(TypeError, match=r"row_kernel can't compile '.*': ") as caught:
        row_kernel(over_rows=over_rows)(function)
    assert type(caught.value.__cause__).__module__.startswith("numba.")


def test_without_numba(monkeypatch):
    for name in [name for name in sys.modules if name.partition(".")[0] == "numba"]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.delitem(sys.modules, "quernbrook.reference_host.numba_compiler", raising=False)
    monkeypatch.setattr("quernbrook.reference_host.numba_compiler", None, raising=False)
    monkeypatch.delattr("quernbrook.reference_host.numba_compiler")
    monkeypatch.setitem(sys.modules, "numba", None)
    with pytest.raises(ModuleNotFoundError) as caught:
        row_kernel(shrunk)
    assert str(caught.value) == (
        "row_kernel needs Numba to compile 'shrunk': pip install 'quernbrook-reference-host[numba]'"
    )
    assert caught.value.name == "numba"
