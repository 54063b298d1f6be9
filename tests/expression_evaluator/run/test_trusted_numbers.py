"""Numbers that a host hands to a run and that compare as they like: no cell beside an array is met."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from support.functions import RecordingFunction
from support.graphs import feature, integer, reduction, rotation
from support.leak_roads import STUBS
from support.pools import make_pool
from support.registries import RecordingRegistry
from support.runs import make_context, same_bits

SHAPE = (4, 3)
MATRIX = np.arange(12.0).reshape(SHAPE)


class Above(int):
    """Larger than everything, and smaller."""

    def __lt__(self, other: object) -> bool:
        return True

    def __gt__(self, other: object) -> bool:
        return True


class Beside(int):
    """Neither larger nor smaller than anything."""

    def __lt__(self, other: object) -> bool:
        return False

    def __gt__(self, other: object) -> bool:
        return False


# --- the warm-up figure --------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("figure", "blank"),
    [
        (Above(100), 4),
        (Above(2), 2),
        (Above(10**30), 4),
        (Beside(100), 0),
        (Above(0), 0),
        (np.int64(3), 3),
        (True, 1),
        (10**30, 4),
    ],
)
def test_the_warm_up_figure_of_a_host(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, figure: Any, blank: int
) -> None:
    monkeypatch.setattr(evaluator, "_compute_graph_warmup_rows", lambda *_: figure)
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    context = make_context(evaluator, {"a": MATRIX}, registry=registry)
    weights = evaluator.evaluate(rotation("f", feature("a")), context).weights
    expected = MATRIX.copy()
    expected[:blank] = np.nan
    same_bits(weights, expected)


def test_a_warm_up_figure_that_no_slice_takes(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(evaluator, "_compute_graph_warmup_rows", lambda *_: 2.5)
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    context = make_context(evaluator, {"a": MATRIX}, registry=registry)
    with pytest.raises(TypeError, match=r"^slice indices must be integers or None"):
        evaluator.evaluate(rotation("f", feature("a")), context)


# --- the first row of a pre-fill -----------------------------------------------------------------


class Window(int):
    """T less the missing rows is what the test wants."""

    tail: Any = 0

    def __sub__(self, other: object) -> Any:
        return self

    def __rsub__(self, other: object) -> Any:
        return self.tail


def prefilled(evaluator: ModuleType, tail: int) -> list[Any]:
    calls: list[Any] = []

    def keep(block: np.ndarray, signal_pnl: np.ndarray) -> np.ndarray:
        calls.append((block.tolist(), signal_pnl.tolist()))
        return block[0].copy()

    window = Window(5)
    window.tail = Beside(tail)
    context = make_context(
        evaluator,
        {"a": MATRIX},
        useful_signals=make_pool("xy", *SHAPE),
        column_labels=["gross_returns", "net"],
        registry=RecordingRegistry(
            factories={"sum": RecordingFunction(keep, stateful=True, window=3)}
        ),
    )
    evaluator.evaluate(reduction("sum"), context, {"root": {"count": 0, "window": window}}, True)
    return calls


def test_a_negative_first_row_counts_from_the_end(evaluator: ModuleType) -> None:
    calls = prefilled(evaluator, -2)
    pool = make_pool("xy", *SHAPE)
    rows = [-2, -1, 0, 1, 2, 3, 0, 1, 2, 3]
    assert calls == [
        (
            [signal.weights[row].tolist() for signal in pool.values()],
            [signal.pnl[row, 0] for signal in pool.values()],
        )
        for row in rows
    ]


def test_a_first_row_before_all_rows(evaluator: ModuleType) -> None:
    with pytest.raises(IndexError, match="index -30 is out of bounds"):
        prefilled(evaluator, -30)


# --- what a replaced array library returns -------------------------------------------------------


class Library:
    """NumPy but for one function."""

    def __init__(self, name: str, result: Any) -> None:
        self.name = name
        self.result = result

    def __getattr__(self, name: str) -> Any:
        return (lambda *_, **__: self.result) if name == self.name else getattr(np, name)


GRAPHS = {
    "leaf": feature("a"),
    "rank": rotation("latitudinal_rank", feature("a")),
    "rolling": rotation("longitudinal_std", feature("a"), integer(2)),
}
RETURNED = [
    [[1.0, 2.0]],
    None,
    5,
    "text",
    np.float64(3.0),
    np.ones(3),
    np.ones((2, 2, 2)),
    np.ones(SHAPE, dtype=object),
    np.ones(SHAPE, dtype=np.float32),
    object(),
]


@pytest.mark.parametrize("returned", RETURNED, ids=[str(place) for place in range(len(RETURNED))])
@pytest.mark.parametrize("graph", GRAPHS.values(), ids=GRAPHS.keys())
@pytest.mark.parametrize("name", ["asarray", "ascontiguousarray"])
def test_an_array_library_that_returns_anything(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, name: str, graph: Any, returned: Any
) -> None:
    """A result, or an error of Python's; which one is the library's own business."""
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("its modules have the array library under names of their own")
    monkeypatch.setattr(evaluator, "np", Library(name, returned))
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 0)
    is_rolling = graph is GRAPHS["rolling"]
    context = make_context(
        evaluator,
        {"a": MATRIX.astype(np.float32)},
        universe=np.ones(SHAPE),
        registry=STUBS if is_rolling else None,
    )
    try:
        weights = evaluator.evaluate(graph, context).weights
    except Exception as error:  # noqa: BLE001 - any error will do
        assert str(error)
    else:
        assert weights is returned or np.asarray(weights).dtype == np.float64
