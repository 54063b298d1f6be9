"""The PnL of each signal that a stateful reduction is handed with a row."""

from __future__ import annotations

import warnings
from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationError, UsefulSignal
from support.functions import raising
from support.graphs import filtration, integer, reduction, string
from support.pools import LABELS, array_failure, make_pool, replace_filters
from support.reductions import reduction_context, stateful
from support.runs import fails, lets_through, same_bits

ROWS = 4
PLAIN = reduction("f")
NET = reduction("f", string("net_returns"))
UNKNOWN = reduction("f", string("nowhere"))
FILTERED = reduction("f", filtration("first"))


def takes_arrays_of_one() -> bool:
    """Whether this NumPy reads an array of one element, whatever its shape, as a number."""
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            np.zeros(1)[0] = np.ones(1)
    except ValueError:
        return False
    return True


OF_ONE = pytest.mark.skipif(not takes_arrays_of_one(), reason="no number to this NumPy")


def pnl(evaluator, graph: Any = PLAIN, **options: Any) -> list[list[float]]:
    """The `signal_pnl` of every row."""
    instance = stateful(0.0)
    evaluator.evaluate(graph, reduction_context(evaluator, {"f": instance}, **options))
    return [call.kwargs["signal_pnl"].tolist() for call in instance.calls]


def rows_of(column: int, ids: str = "abc") -> list[list[float]]:
    pool = make_pool()
    return [[pool[sid].pnl[t, column] for sid in ids] for t in range(ROWS)]


# --- the vector ----------------------------------------------------------------------------------


def test_a_new_vector_in_every_row(evaluator):
    instance = stateful(0.0)
    evaluator.evaluate(PLAIN, reduction_context(evaluator, {"f": instance}, column_labels=LABELS))
    vectors = [call.kwargs["signal_pnl"] for call in instance.calls]
    assert len({id(vector) for vector in vectors}) == ROWS
    for vector, expected in zip(vectors, rows_of(0), strict=True):
        assert type(vector) is np.ndarray
        assert vector.flags.owndata
        assert vector.flags.writeable
        same_bits(vector, expected)


def test_what_a_reduction_writes_into_it(evaluator):
    def spoil(signals: Any, signal_pnl: np.ndarray) -> float:
        before = signal_pnl[0]
        signal_pnl[:] = 0.0
        return before

    pool = make_pool()
    context = reduction_context(evaluator, {"f": stateful(spoil)}, pool=pool, column_labels=LABELS)
    result = evaluator.evaluate(PLAIN, context)
    assert result.weights[:, 0].tolist() == [-100.0, -110.0, -120.0, -130.0]
    same_bits(pool["a"].pnl, make_pool()["a"].pnl)


# --- which column --------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("graph", "column"),
    [
        (PLAIN, 0),
        (NET, 1),
        (reduction("f", string("gross_returns"), string("net_returns")), 0),
        (reduction("f", config={"pnl_column": "net_returns"}), 1),
        (reduction("f", string("net_returns"), config={"pnl_column": "gross_returns"}), 1),
        (reduction("f", string("")), 0),
        (reduction("f", config={"pnl_column": None}), 0),
        (reduction("f", config={"pnl_column": 0}), 0),
        (reduction("f", integer(3)), 0),
    ],
)
def test_the_column_of_the_configuration(evaluator, graph, column):
    assert pnl(evaluator, graph, column_labels=LABELS) == rows_of(column)


def test_a_text_of_a_weighting_is_no_column(evaluator):
    instance = stateful(0.0)
    graph = reduction("weighted_by_vol", string("nowhere"))
    context = reduction_context(evaluator, {"weighted_by_vol": instance}, column_labels=LABELS)
    evaluator.evaluate(graph, context)
    assert instance.calls[0].kwargs["signal_pnl"].tolist() == rows_of(0)[0]


@pytest.mark.parametrize("labels", [None, [], ()])
@pytest.mark.parametrize("graph", [PLAIN, UNKNOWN])
def test_without_labels_there_is_no_pnl(evaluator, labels, graph):
    assert pnl(evaluator, graph, column_labels=labels) == [[0.0, 0.0, 0.0]] * ROWS


def test_labels_of_none(evaluator):
    context = reduction_context(evaluator, {"f": (instance := stateful(0.0))})
    context.column_labels = None
    evaluator.evaluate(PLAIN, context)
    assert instance.calls[0].kwargs["signal_pnl"].tolist() == [0.0, 0.0, 0.0]


@pytest.mark.parametrize("labels", [["net"], ("net", "x"), "net"])
@pytest.mark.parametrize("graph", [PLAIN, UNKNOWN])
def test_a_column_that_is_not_among_the_labels(evaluator, labels, graph):
    name = "gross_returns" if graph is PLAIN else "nowhere"
    with pytest.raises(EvaluationError) as caught:
        pnl(evaluator, graph, column_labels=labels)
    text = f"PnL column '{name}' not found in column_labels: {labels}"
    assert str(caught.value) == text
    assert caught.value.__cause__ is None
    assert not caught.value.__suppress_context__
    assert type(caught.value.__context__) is ValueError


def test_labels_that_are_a_text(evaluator):
    """A text has an `index` of its own: the place of the name in it is the column."""
    assert pnl(evaluator, NET, column_labels=".net_returns") == rows_of(1)


@pytest.mark.parametrize(
    ("labels", "text"),
    [
        ({"gross_returns"}, "'set' object has no attribute 'index'"),
        ({"gross_returns": 0}, "'dict' object has no attribute 'index'"),
        (1, "'int' object has no attribute 'index'"),
    ],
)
def test_labels_without_an_index(evaluator, labels, text):
    with fails(AttributeError, text):
        pnl(evaluator, column_labels=labels)


def test_labels_in_an_array(evaluator):
    """Their truth is asked outside the search, so that its failure says nothing of a column."""
    with pytest.raises(ValueError, match="truth value of an array"):
        pnl(evaluator, column_labels=np.array(LABELS))
    with fails(AttributeError, "'numpy.ndarray' object has no attribute 'index'"):
        pnl(evaluator, column_labels=np.array(LABELS[:1], dtype=object) == "gross_returns")


@pytest.mark.parametrize("kind", [RuntimeError, KeyError, KeyboardInterrupt])
def test_labels_that_fail(evaluator, kind):
    fault = kind("labels")
    labels = type("Labels", (list,), {"index": raising(fault)})(LABELS)
    with lets_through(fault):
        pnl(evaluator, column_labels=labels)


@pytest.mark.parametrize("kind", [ValueError, UnicodeError])
def test_any_value_error_of_the_labels_says_unknown(evaluator, kind):
    fault = kind("labels")
    labels = type("Labels", (list,), {"index": raising(fault)})(LABELS)
    with pytest.raises(EvaluationError) as caught:
        pnl(evaluator, column_labels=labels)
    text = f"PnL column 'gross_returns' not found in column_labels: {LABELS}"
    assert str(caught.value) == text
    assert caught.value.__cause__ is None
    assert caught.value.__context__ is fault


def test_labels_without_a_text(evaluator):
    """What fails while the message is built takes its place."""
    fault = RuntimeError("mute")
    labels = type("Labels", (list,), {"__repr__": raising(fault)})(LABELS)
    with pytest.raises(RuntimeError) as caught:
        pnl(evaluator, UNKNOWN, column_labels=labels)
    assert caught.value is fault
    assert type(fault.__context__) is ValueError


def test_an_index_of_their_own(evaluator):
    class Labels(list):
        def index(self, name: str, *rest: Any) -> int:
            assert rest == ()
            return -2 if name == "gross_returns" else -1

    assert pnl(evaluator, column_labels=Labels("x")) == rows_of(0)
    assert pnl(evaluator, NET, column_labels=Labels("x")) == rows_of(1)


def test_labels_are_looked_up_in_every_row(evaluator):
    labels = list(LABELS)
    instance = stateful(lambda *_, **__: labels.reverse() or 0.0)
    evaluator.evaluate(PLAIN, reduction_context(evaluator, {"f": instance}, column_labels=labels))
    given = [call.kwargs["signal_pnl"].tolist() for call in instance.calls]
    assert given == [rows_of(t % 2)[t] for t in range(ROWS)]


# --- the matrices of the signals -----------------------------------------------------------------


def test_the_signals_that_pass(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["c", "a", "c"])
    assert pnl(evaluator, FILTERED, column_labels=LABELS) == rows_of(0, "cac")


def test_a_signal_without_pnl(evaluator):
    pool = make_pool()
    pool["b"].pnl = None
    expected = [[first, 0.0, last] for first, _, last in rows_of(0)]
    assert pnl(evaluator, pool=pool, column_labels=LABELS) == expected


@pytest.mark.parametrize(
    "matrix",
    [
        np.arange(8, dtype=np.float32).reshape(4, 2),
        np.arange(8, dtype=">i2").reshape(4, 2),
        np.asfortranarray(np.arange(8.0).reshape(4, 2)),
        np.arange(32.0).reshape(8, 4)[::2, ::2],
        np.arange(8.0).reshape(4, 2).astype(object),
        np.array([[True, False]] * 4),
        np.array([["1.5", "2"]] * 4),
        np.full((4, 2), np.nan),
        np.array([[-0.0, np.inf]] * 4),
        pytest.param(np.arange(8.0).reshape(4, 2, 1), marks=OF_ONE),
        pytest.param(np.arange(8.0).reshape(4, 1, 2)[:, :, :1].repeat(2, axis=1), marks=OF_ONE),
    ],
)
@pytest.mark.filterwarnings("ignore:Conversion of an array:DeprecationWarning")
def test_kinds_of_matrices(evaluator, matrix):
    expected = np.zeros((ROWS, 1))
    for t in range(ROWS):
        expected[t, 0] = matrix[t, 1]
    pool = {"a": UsefulSignal(make_pool()["a"].weights, matrix)}
    same_bits(pnl(evaluator, NET, pool=pool, column_labels=LABELS), expected)


@pytest.mark.parametrize(
    "matrix",
    [
        np.ones(4),
        np.ones((4, 1)),
        np.ones((0, 2)),
        np.ones((4, 2, 2)),
        np.full((4, 2), "x"),
        [[1.0, 2.0]] * 4,
        5,
    ],
)
def test_matrices_that_do_not_fit(evaluator, matrix):
    pool = {"a": UsefulSignal(make_pool()["a"].weights, matrix)}

    def read() -> None:
        np.zeros(1)[0] = matrix[0, 1]

    kind, text = array_failure(read)
    with pytest.raises(kind) as caught:
        pnl(evaluator, NET, pool=pool, column_labels=LABELS, validate_inputs=False)
    assert (caught.type, str(caught.value)) == (kind, text)


def test_the_last_row_that_there_is(evaluator):
    """A matrix that is too short fails in the row that it lacks."""
    pool = {"a": UsefulSignal(make_pool()["a"].weights, np.ones((2, 2)))}
    instance = stateful(0.0)
    context = reduction_context(
        evaluator, {"f": instance}, pool=pool, column_labels=LABELS, validate_inputs=False
    )
    with fails(IndexError, "index 2 is out of bounds for axis 0 with size 2"):
        evaluator.evaluate(PLAIN, context)
    assert len(instance.calls) == 2


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_pnl_that_cannot_be_read(evaluator, kind):
    fault = kind("pnl")
    weights = make_pool()["a"].weights
    signal = type("Signal", (), {"weights": weights, "pnl": property(raising(fault))})()
    with lets_through(fault):
        pnl(evaluator, pool={"a": signal}, column_labels=LABELS, validate_inputs=False)
    pnl(evaluator, pool={"a": signal}, validate_inputs=False)


def test_a_signal_without_pnl_as_an_attribute(evaluator):
    signal = SimpleNamespace(weights=make_pool()["a"].weights)
    with fails(AttributeError, "'types.SimpleNamespace' object has no attribute 'pnl'"):
        pnl(evaluator, pool={"a": signal}, column_labels=LABELS, validate_inputs=False)


class Hiding(dict):
    """Gives its signals by their ids, but `get` finds other ones, or none."""

    found: Any = None

    def get(self, sid: str, *default: Any) -> Any:
        assert default == ()
        return self.found


def test_signals_are_got(evaluator):
    pool = Hiding(make_pool())
    assert pnl(evaluator, pool=pool, column_labels=LABELS) == [[0.0] * 3] * ROWS
    pool.found = make_pool()["b"]
    assert pnl(evaluator, pool=pool, column_labels=LABELS) == rows_of(0, "bbb")


def test_pnl_that_is_replaced_between_rows(evaluator):
    pool = make_pool()

    def change(signals: Any, signal_pnl: np.ndarray) -> float:
        pool["a"].pnl = None if pool["a"].pnl is not None else np.full((ROWS, 2), 7.0)
        return 0.0

    instance = stateful(change)
    context = reduction_context(evaluator, {"f": instance}, pool=pool, column_labels=LABELS)
    evaluator.evaluate(PLAIN, context)
    first = [call.kwargs["signal_pnl"][0] for call in instance.calls]
    assert first == [-100.0, 0.0, 7.0, 0.0]


# --- vectors of the context ----------------------------------------------------------------------

VECTORS = {
    "a": {"gross_returns": 1.5, "net_returns": 2},
    "b": {"net_returns": np.float32(0.5)},
    "zz": {"gross_returns": 9.0},
}


@pytest.mark.parametrize(
    ("graph", "expected"),
    [(PLAIN, [1.5, 0.0, 0.0]), (NET, [2.0, 0.5, 0.0]), (UNKNOWN, [0.0, 0.0, 0.0])],
)
@pytest.mark.parametrize("labels", [None, LABELS, ["other"]])
def test_vectors_before_matrices(evaluator, graph, expected, labels):
    """They are the same in every row, and the labels are not asked."""
    given = pnl(evaluator, graph, signal_pnl_vectors=VECTORS, column_labels=labels)
    assert given == [expected] * ROWS


def test_empty_vectors_are_vectors(evaluator):
    assert pnl(evaluator, signal_pnl_vectors={}, column_labels=LABELS) == [[0.0] * 3] * ROWS


def test_vectors_of_what_passes(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["b", "a", "a"])
    graph = reduction("f", filtration("first"), string("net_returns"))
    assert pnl(evaluator, graph, signal_pnl_vectors=VECTORS) == [[0.5, 2.0, 2.0]] * ROWS


class Mapping:
    """A mapping with only what is asked of it, in a log."""

    def __init__(self, values: dict[str, Any], known: Any) -> None:
        self.values, self.known = values, known
        self.log: list[str] = []

    def __contains__(self, key: str) -> bool:
        self.log.append(f"{key}?")
        return key in self.known

    def __getitem__(self, key: str) -> Any:
        self.log.append(key)
        return self.values[key]


class DictMapping(Mapping, dict):
    """A dict that holds nothing and gives something."""


@pytest.mark.parametrize("kind", [Mapping, DictMapping])
def test_vectors_of_other_classes(evaluator, kind):
    columns = kind({"gross_returns": 4.0}, ["gross_returns"])
    hidden = kind({"gross_returns": 4.0}, [])
    vectors = kind({"a": columns, "b": hidden, "c": columns}, "ab")
    assert pnl(evaluator, rows=1, signal_pnl_vectors=vectors) == [[4.0, 0.0, 0.0]]
    assert vectors.log == ["a?", "a", "b?", "b", "c?"]
    assert columns.log == ["gross_returns?", "gross_returns"]
    assert hidden.log == ["gross_returns?"]


def test_vectors_that_are_texts_and_lists(evaluator):
    """Whatever knows `in` and `[]` will do, as long as it gives numbers."""
    with pytest.raises(TypeError):
        pnl(evaluator, signal_pnl_vectors={"a": ["gross_returns"]})
    with pytest.raises(TypeError):
        pnl(evaluator, signal_pnl_vectors=["a"])
    assert pnl(evaluator, signal_pnl_vectors=["x"]) == [[0.0] * 3] * ROWS
    assert pnl(evaluator, signal_pnl_vectors={"a": "net"}) == [[0.0] * 3] * ROWS


@pytest.mark.parametrize(
    "value",
    [True, 3, np.float32(3), np.array(3), "3", pytest.param(np.array([3.0]), marks=OF_ONE)],
)
@pytest.mark.filterwarnings("ignore:Conversion of an array:DeprecationWarning")
def test_kinds_of_values(evaluator, value):
    expected = np.zeros(1)
    expected[0] = value
    vectors = {"a": {"gross_returns": value}}
    assert pnl(evaluator, rows=1, signal_pnl_vectors=vectors) == [[expected[0], 0.0, 0.0]]


@pytest.mark.parametrize("value", ["x", [1.0, 2.0], {}, object(), 1j, 10**400, np.ones(2)])
def test_values_that_are_no_numbers(evaluator, value):
    def assign() -> None:
        np.zeros(1)[0] = value

    kind, text = array_failure(assign)
    with pytest.raises(kind) as caught:
        pnl(evaluator, signal_pnl_vectors={"a": {"gross_returns": value}})
    assert (caught.type, str(caught.value)) == (kind, text)


def test_none_as_a_value(evaluator):
    given = pnl(evaluator, rows=1, signal_pnl_vectors={"a": {"gross_returns": None}})
    assert np.isnan(given[0][0])


@pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])
@pytest.mark.parametrize("method", ["__contains__", "__getitem__"])
@pytest.mark.parametrize("inner", [True, False])
def test_vectors_that_fail(evaluator, kind, method, inner):
    fault = kind("vectors")
    columns = {"gross_returns": 1.0}
    failing = type("Failing", (dict,), {method: raising(fault)})
    vectors = {"a": failing(columns)} if inner else failing(a=columns)
    with lets_through(fault):
        pnl(evaluator, signal_pnl_vectors=vectors)


def test_vectors_that_are_replaced_between_rows(evaluator):
    context = reduction_context(evaluator, {}, signal_pnl_vectors=VECTORS, column_labels=LABELS)

    def change(signals: Any, signal_pnl: np.ndarray) -> float:
        context.signal_pnl_vectors = None if context.signal_pnl_vectors is VECTORS else {}
        return 0.0

    instance = stateful(change)
    evaluator.evaluate(PLAIN, context, bound_function_instances={"root": instance})
    given = [call.kwargs["signal_pnl"].tolist() for call in instance.calls]
    assert given == [[1.5, 0.0, 0.0], rows_of(0)[1], [0.0] * 3, [0.0] * 3]
