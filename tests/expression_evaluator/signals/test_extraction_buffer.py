"""The buffer into which the weights of passing signals are copied, row by row."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import UsefulSignal
from support.extractions import FILTERED, PLAIN, blocks, run
from support.functions import RecordingFunction
from support.graphs import feature, filtration, reduction, rotation
from support.pools import array_failure, block, make_pool, replace_filters
from support.reductions import reduction_context, run_reductions, stateful
from support.runs import fails, same_bits

ROWS = 4


# --- what is in it -------------------------------------------------------------------------------


@pytest.mark.parametrize("ids", ["abc", "cab", "a", "zyx", ["10", "9", "1", ""]])
def test_without_a_filter_all_signals_in_the_order_of_their_ids(evaluator, ids):
    pool = make_pool(ids)
    instance, _ = run(evaluator, pool=pool)
    assert len(instance.calls) == ROWS
    for t, given in enumerate(blocks(instance)):
        same_bits(given, block(pool, sorted(ids), t))


@pytest.mark.parametrize("ids", ["a", "ca", "bcbb", "aaaaaa"])
@pytest.mark.parametrize(
    "kind", [list, tuple, "".join, lambda ids: np.array(ids, object), lambda ids: np.array(ids)]
)
def test_with_a_filter_what_passes_in_its_order(evaluator, monkeypatch, ids, kind):
    replace_filters(monkeypatch, evaluator, first=kind(list(ids)))
    pool = make_pool()
    instance, _ = run(evaluator, FILTERED, pool=pool)
    for t, given in enumerate(blocks(instance)):
        same_bits(given, block(pool, ids, t))


def test_a_set_of_ids(evaluator, monkeypatch):
    ids = {"a", "b", "c"}
    replace_filters(monkeypatch, evaluator, first=ids)
    instance, _ = run(evaluator, FILTERED)
    same_bits(blocks(instance)[0], block(make_pool(), list(ids), 0))


MATRIX = np.array([[1.5, -0.0, 3.0], [np.nan, -np.inf, 2.0**-1074]])
KINDS = {
    "float32": MATRIX.astype(np.float32),
    "Fortran": np.asfortranarray(MATRIX),
    "sliced": np.repeat(np.repeat(MATRIX, 2, axis=0), 3, axis=1)[::2, ::3],
    "backwards": np.ascontiguousarray(MATRIX[::-1, ::-1])[::-1, ::-1],
    "big-endian": MATRIX.astype(">f8"),
    "integers": np.arange(6, dtype=np.int16).reshape(2, 3),
    "truth values": np.array([[True, False, True], [False, False, True]]),
    "objects": MATRIX.astype(object),
    "one column": np.array([[1.0], [2.0]]),
    "too many rows": np.concatenate([MATRIX, MATRIX]),
    "unaligned": np.frombuffer(b"x" + MATRIX.tobytes(), np.float64, offset=1).reshape(2, 3),
    "a subclass": np.ma.masked_array(MATRIX, mask=False),
    "three dimensions": MATRIX[:, np.newaxis, :],
}


@pytest.mark.parametrize("weights", KINDS.values(), ids=KINDS.keys())
def test_kinds_of_weights(evaluator, weights):
    pool = {"a": UsefulSignal(weights), "b": UsefulSignal(MATRIX)}
    instance, _ = run(evaluator, pool=pool, rows=2, validate_inputs=False)
    for t, given in enumerate(blocks(instance)):
        expected = np.empty((2, 3))
        expected[0, :] = weights[t, :]
        expected[1, :] = MATRIX[t, :]
        same_bits(given, expected)


def test_weights_that_are_no_array(evaluator):
    keys: list[Any] = []

    class Weights:
        def __getitem__(self, key: Any) -> Any:
            keys.append(key)
            return [1, 2.5, "3"]

    pool = {"a": SimpleNamespace(weights=Weights(), pnl=None)}
    instance, _ = run(evaluator, pool=pool, rows=2, validate_inputs=False)
    same_bits(blocks(instance)[1], [[1.0, 2.5, 3.0]])
    assert keys == [(0, slice(None)), (1, slice(None))]


@pytest.mark.parametrize(
    "weights",
    [
        None,
        5.0,
        [[1.0] * 3] * ROWS,
        np.ones(3),
        np.ones((2, 3)),
        np.ones((0, 3)),
        np.ones((ROWS, 2)),
        np.ones((ROWS, 4)),
        np.ones((ROWS, 2, 3)),
        np.full((ROWS, 3), "x"),
    ],
)
@pytest.mark.parametrize("graph", [PLAIN, FILTERED])
def test_weights_that_do_not_fit(evaluator, monkeypatch, weights, graph):
    """They fail as the array library fails, in the first row that they do not have."""
    replace_filters(monkeypatch, evaluator, first=["b", "a"])
    pool = {"b": make_pool("b")["b"], "a": UsefulSignal(weights)}

    def copy() -> None:
        for t in range(ROWS):
            np.zeros((2, 3))[0, :] = weights[t, :]

    instance = stateful()
    with fails(*array_failure(copy)):
        run(evaluator, graph, instance, pool=pool, validate_inputs=False)
    rows = 2 if isinstance(weights, np.ndarray) and weights.shape == (2, 3) else 0
    assert len(instance.calls) == rows


# --- the array itself ----------------------------------------------------------------------------


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("graph", [PLAIN, FILTERED])
def test_a_reduction_gets_a_view_of_the_buffer(evaluator, monkeypatch, graph, bound):
    replace_filters(monkeypatch, evaluator, first=["c", "a"])
    pool = make_pool()
    instance = stateful()
    context = reduction_context(evaluator, {"f": instance}, pool=pool)
    made_by_the_context = context.extraction_buffer
    evaluator.evaluate(
        graph, context, bound_function_instances={"root": instance} if bound else None
    )
    published = context.extraction_buffer
    assert published is not made_by_the_context
    assert published.flags.owndata
    assert published.flags.c_contiguous
    same_bits(published, block(pool, "ca" if graph is FILTERED else "abc", ROWS - 1))
    for call in instance.calls:
        (given,) = call.args
        assert type(given) is np.ndarray
        assert given.base is published
        assert given.ctypes.data == published.ctypes.data
        assert given.shape == published.shape
        assert given.strides == published.strides
        assert given.flags.writeable
        assert call.views == (True,)
    assert len({id(call.args[0]) for call in instance.calls}) == ROWS


def test_a_buffer_is_of_one_run(evaluator):
    context = reduction_context(evaluator, {"f": stateful()})
    evaluator.evaluate(PLAIN, context)
    first = context.extraction_buffer
    values = first.copy()
    context.useful_signals = make_pool("def")
    evaluator.evaluate(PLAIN, context)
    assert context.extraction_buffer is not first
    same_bits(first, values)


@pytest.mark.parametrize(("ids", "rows"), [("abcdefghij", 4), ("ab", 4), ("abcd", 4), ("a", 0)])
def test_a_buffer_has_exactly_the_rows_that_pass(evaluator, monkeypatch, ids, rows):
    passing = [ids[0]] * rows
    replace_filters(monkeypatch, evaluator, first=passing)
    instance, context = run(evaluator, FILTERED, pool=make_pool(ids))
    assert context.extraction_buffer.shape == (rows, 3)
    assert {given.shape for given in blocks(instance)} == {(rows, 3)}


def test_extractions_of_two_sizes_replace_one_another(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a", "b"], second=["c"])
    outer, inner = stateful(0.0), stateful(0.0)
    graph = rotation(
        "g", reduction("f", filtration("first")), reduction("inner", filtration("second"))
    )
    functions = {"f": outer, "inner": inner, "g": RecordingFunction(0.0)}
    context, _ = run_reductions(evaluator, graph, functions)
    assert context.extraction_buffer.shape == (1, 3)
    assert inner.calls[-1].args[0].base is context.extraction_buffer
    bases = [call.args[0].base for one in (outer, inner) for call in one.calls]
    assert len({id(base) for base in bases}) == 2 * ROWS
    # What was replaced keeps what it held.
    for t, call in enumerate(outer.calls):
        same_bits(call.args[0], block(make_pool(), "ab", t))


def test_extractions_of_one_size_share_it(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a", "b"], second=["c", "a"])
    outer, inner = stateful(0.0), stateful(0.0)
    graph = rotation(
        "g", reduction("f", filtration("first")), reduction("inner", filtration("second"))
    )
    functions = {"f": outer, "inner": inner, "g": RecordingFunction(0.0)}
    context, _ = run_reductions(evaluator, graph, functions)
    bases = {id(call.args[0].base) for one in (outer, inner) for call in one.calls}
    assert bases == {id(context.extraction_buffer)}
    for t in range(ROWS):
        same_bits(blocks(outer)[t], block(make_pool(), "ab", t))
        same_bits(blocks(inner)[t], block(make_pool(), "ca", t))


def test_what_a_reduction_writes_into_it(evaluator, monkeypatch):
    """It stands in the buffer until the next row is extracted, and never in the signals."""
    replace_filters(monkeypatch, evaluator, first=["a"])
    seen: list[list[float]] = []

    def spoil(signals: np.ndarray, **_: Any) -> float:
        seen.append(signals[0].tolist())
        signals[:] = -1.0
        return 0.0

    pool = make_pool()
    _, context = run(evaluator, FILTERED, stateful(spoil), pool=pool)
    assert seen == [pool["a"].weights[t].tolist() for t in range(ROWS)]
    same_bits(context.extraction_buffer, [[-1.0] * 3])
    same_bits(pool["a"].weights, make_pool()["a"].weights)


def reshape(array: np.ndarray) -> None:
    array.shape = (9,)


def retype(array: np.ndarray) -> None:
    array.dtype = np.int64


def protect(array: np.ndarray) -> None:
    array.setflags(write=False)


@pytest.mark.parametrize("spoil", [reshape, retype, protect])
def test_an_argument_that_is_spoiled(evaluator, spoil):
    """The next row's argument is as if nothing had happened."""
    seen: list[Any] = []

    def act(signals: np.ndarray, **_: Any) -> float:
        seen.append((signals.shape, signals.dtype, signals.flags.writeable, signals.sum()))
        spoil(signals)
        return 0.0

    class Instance:
        """Keeps nothing of its calls."""

        stateful = True

        def __call__(self, signals: np.ndarray, signal_pnl: np.ndarray) -> float:
            protect(signal_pnl)
            return act(signals)

        def get_state(self) -> None:
            return None

    pool = make_pool()
    run(evaluator, PLAIN, Instance(), pool=pool)
    assert seen == [((3, 3), np.float64, True, block(pool, "abc", t).sum()) for t in range(ROWS)]


def test_a_buffer_that_is_spoiled(evaluator):
    """The argument's base is the buffer itself: read-only it fails, in another shape it goes."""
    instance = stateful(lambda signals, **_: protect(signals.base) or 0.0)
    with fails(ValueError, "assignment destination is read-only"):
        run(evaluator, PLAIN, instance)
    assert len(instance.calls) == 1
    instance = stateful(lambda signals, **_: reshape(signals.base) or 0.0)
    run(evaluator, PLAIN, instance)
    assert [given.shape for given in blocks(instance)] == [(3, 3)] * ROWS
    assert len({id(call.args[0].base) for call in instance.calls}) == ROWS


def test_a_run_within_a_run(evaluator, monkeypatch):
    """A nested run extracts into a buffer of its own; the outer one's is published last."""
    replace_filters(monkeypatch, evaluator, first=["b"], second=["c", "a"])
    context = reduction_context(evaluator, {"g": stateful(0.0)})
    inner = reduction("g", filtration("second"))
    published: list[Any] = []

    def nest(signals: np.ndarray, **_: Any) -> np.ndarray:
        before = signals.copy()
        evaluator.evaluate(inner, context)
        published.append(context.extraction_buffer)
        same_bits(signals, before)
        return before[0]

    instance = stateful(nest)
    result = evaluator.evaluate(
        FILTERED, context, bound_function_instances={"root": instance, "root.c0": None}
    )
    same_bits(result.weights, make_pool()["b"].weights)
    assert [one.shape for one in published] == [(2, 3)] * ROWS
    assert context.extraction_buffer.shape == (1, 3)


# --- none at all ---------------------------------------------------------------------------------


@pytest.mark.parametrize("kind", [RecordingFunction, stateful])
def test_a_reduction_without_signals(evaluator, kind):
    with fails(TypeError, "'NoneType' object is not subscriptable"):
        run(evaluator, instance=kind(), pool={})


def test_a_filter_that_passes_nothing_of_no_signals(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=())
    instance, context = run(evaluator, FILTERED, pool={})
    assert context.extraction_buffer.shape == (0, 3)
    assert [given.shape for given in blocks(instance)] == [(0, 3)] * ROWS


def test_a_context_without_a_pool(evaluator):
    context = reduction_context(evaluator, {"f": stateful()})
    context.useful_signals = None
    with fails(AttributeError, "'NoneType' object has no attribute 'keys'"):
        evaluator.evaluate(PLAIN, context)


@pytest.mark.parametrize(("ids", "rows"), [("", None), ("ab", 2)])
@pytest.mark.parametrize("graph", [rotation("g", feature("a")), rotation("f", feature("a"))])
def test_a_run_without_reductions(evaluator, graph, ids, rows):
    """It leaves zeros for the signals that there are, and nothing where there are none."""
    context = reduction_context(evaluator, dict.fromkeys("fg", stateful(0.0)), pool=make_pool(ids))
    marker = object()
    context.extraction_buffer = marker
    evaluator.evaluate(graph, context)
    if rows is None:
        assert context.extraction_buffer is marker
    else:
        same_bits(context.extraction_buffer, np.zeros((rows, 3)))


def test_no_rows_and_no_columns(evaluator):
    _, context = run(evaluator, pool=make_pool(rows=0), rows=0)
    same_bits(context.extraction_buffer, np.zeros((3, 3)))
    instance, context = run(evaluator, pool=make_pool(columns=0), columns=0)
    assert context.extraction_buffer.shape == (3, 0)
    assert [given.shape for given in blocks(instance)] == [(3, 0)] * ROWS


# --- two extractions below one reduction ---------------------------------------------------------

TWO = reduction("f", filtration("first"), filtration("second"))


@pytest.mark.parametrize(
    ("second", "shown"), [("cb", "cb"), ("cba", "cb"), ("c", "c"), ("", ""), ("cccccc", "cc")]
)
def test_count_of_the_first_contents_of_the_second(evaluator, monkeypatch, second, shown):
    replace_filters(monkeypatch, evaluator, first=["a", "b"], second=list(second))
    pool = make_pool()
    instance, context = run(evaluator, TWO, pool=pool, column_labels=["gross_returns"])
    assert context.extraction_buffer.shape == (len(second), 3)
    for t, call in enumerate(instance.calls):
        same_bits(call.values[0], block(pool, shown, t).reshape(len(shown), 3))
        pnl = call.kwargs["signal_pnl"]
        assert pnl.tolist() == [pool[sid].pnl[t, 0] for sid in "ab"]


def test_a_reduction_without_a_filter_below(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a"])
    pool = make_pool()
    inner = stateful(0.0)
    instance = stateful(0.0)
    graph = reduction("f", filtration("first"), reduction("inner"))
    run_reductions(evaluator, graph, {"f": instance, "inner": inner}, pool=pool)
    for t in range(ROWS):
        same_bits(blocks(inner)[t], block(pool, "abc", t))
        same_bits(blocks(instance)[t], block(pool, "a", t))
    graph = reduction("f", reduction("inner"), filtration("first"))
    run_reductions(evaluator, graph, {"f": instance, "inner": inner}, pool=pool)
    same_bits(blocks(instance)[-1], block(pool, "a", ROWS - 1))


def test_a_filter_deeper_down_is_no_filter_of_the_reduction(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["b"])
    graph = reduction("f", rotation("g", filtration("first")))
    instance, context = run(evaluator, graph)
    assert [given.shape for given in blocks(instance)] == [(3, 3)] * ROWS
    assert context.extraction_buffer.shape == (3, 3)
