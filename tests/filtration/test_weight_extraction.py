"""The weights of passing signals at one time step, as outside callers take them."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import UsefulSignal
from support.functions import raising
from support.pools import array_failure, block, make_pool
from support.runs import fails, lets_through, same_bits


def pool_of(**weights: Any) -> dict[str, Any]:
    return {sid: UsefulSignal(matrix) for sid, matrix in weights.items()}


# --- rows ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("ids", ["a", "abc", "cba", "ca", "aab", "cccccc"])
@pytest.mark.parametrize("kind", [list, tuple, str])
@pytest.mark.parametrize("t", [0, 3])
def test_rows_follow_the_passing_ids(evaluator, ids, kind, t):
    pool = make_pool("bca")
    extracted = evaluator.extract_filtration_weights(pool, kind(ids), t)
    same_bits(extracted, block(pool, ids, t))


def test_the_block_is_new_and_the_caller_s_own(evaluator):
    pool = make_pool()
    before = {sid: one.weights.copy() for sid, one in pool.items()}
    extracted = evaluator.extract_filtration_weights(pool, ["a", "b"], 1)
    assert type(extracted) is np.ndarray
    assert extracted.flags.owndata
    assert extracted.flags.c_contiguous
    assert extracted.flags.writeable
    extracted[:] = -1.0
    for sid, weights in before.items():
        same_bits(pool[sid].weights, weights)


def test_arguments_by_keyword(evaluator):
    pool = make_pool()
    extracted = evaluator.extract_filtration_weights(useful_signals=pool, passing_ids=["b"], t=2)
    same_bits(extracted, block(pool, "b", 2))


MATRIX = np.array([[1.5, -0.0, 3.0], [np.nan, -np.inf, 2.0**-1074]])
STRIDED = {
    "float32": MATRIX.astype(np.float32),
    "Fortran": np.asfortranarray(MATRIX),
    "sliced": np.repeat(np.repeat(MATRIX, 2, axis=0), 3, axis=1)[::2, ::3],
    "backwards": np.ascontiguousarray(MATRIX[::-1, ::-1])[::-1, ::-1],
    "big-endian": MATRIX.astype(">f8"),
    "integers": np.arange(6, dtype=np.int16).reshape(2, 3),
    "truth values": np.array([[True, False, True], [False, False, True]]),
    "objects": MATRIX.astype(object),
    "texts": np.array([["1", "2.5", "nan"], ["inf", "-0.0", "1e-3"]]),
    "read-only": np.broadcast_to(MATRIX[0], (2, 3)),
    "unaligned": np.frombuffer(b"x" + MATRIX.tobytes(), np.float64, offset=1).reshape(2, 3),
}


@pytest.mark.parametrize("weights", STRIDED.values(), ids=STRIDED.keys())
@pytest.mark.parametrize("t", [0, 1])
def test_kinds_of_weights(evaluator, weights, t):
    pool = pool_of(a=MATRIX, b=weights)
    expected = np.empty((2, 3))
    expected[0, :] = MATRIX[t, :]
    expected[1, :] = weights[t, :]
    same_bits(evaluator.extract_filtration_weights(pool, ["a", "b"], t), expected)
    same_bits(evaluator.extract_filtration_weights(pool, ["b", "a"], t), expected[::-1])


def test_no_columns(evaluator):
    extracted = evaluator.extract_filtration_weights(pool_of(a=np.empty((2, 0))), ["a", "a"], 1)
    assert extracted.shape == (2, 0)


# --- nothing passes ------------------------------------------------------------------------------


@pytest.mark.parametrize("ids", [None, [], (), "", {}, np.array([], object)])
@pytest.mark.parametrize("t", [0, 99, -1, 2**31 - 1, -(2**31)])
@pytest.mark.parametrize(
    ("pool", "columns"),
    [
        ({}, 0),
        (None, 0),
        (pool_of(b=np.ones((2, 5)), a=np.ones((2, 4))), 5),
        (pool_of(b=np.ones((0, 2))), 2),
    ],
)
def test_no_passing_ids(evaluator, ids, t, pool, columns):
    extracted = evaluator.extract_filtration_weights(pool, ids, t)
    assert extracted.shape == (0, columns)
    assert extracted.dtype == np.float64


def test_no_passing_ids_and_a_signal_without_weights(evaluator):
    with fails(AttributeError, "'NoneType' object has no attribute 'shape'"):
        evaluator.extract_filtration_weights(pool_of(a=None), [], 0)
    with fails(IndexError, "tuple index out of range"):
        evaluator.extract_filtration_weights(pool_of(a=np.ones(3)), [], 0)


# --- the time step -------------------------------------------------------------------------------


@pytest.mark.parametrize("t", [4, 5, -1, -4, 2**31 - 1, -(2**31)])
def test_out_of_bounds(evaluator, t):
    with fails(IndexError, f"t={t} out of bounds for weights array with valid range [0, 4)"):
        evaluator.extract_filtration_weights(make_pool(), ["a"], t)


def test_no_rows(evaluator):
    with fails(IndexError, "t=0 out of bounds for weights array with valid range [0, 0)"):
        evaluator.extract_filtration_weights(make_pool(rows=0), ["a"], 0)


class Index:
    def __init__(self, value: Any) -> None:
        self.value = value

    def __index__(self) -> Any:
        if isinstance(self.value, BaseException):
            raise self.value
        return self.value


@pytest.mark.parametrize("t", [True, np.int8(1), np.uint64(1), np.array(1), Index(1)])
def test_kinds_of_time_steps(evaluator, t):
    pool = make_pool()
    same_bits(evaluator.extract_filtration_weights(pool, ["b"], t), block(pool, "b", 1))


@pytest.mark.parametrize("ids", [["a"], [], None])
@pytest.mark.parametrize("t", [1.0, "1", None, np.float64(1.0), 1j, [1]])
def test_a_time_step_that_is_no_integer(evaluator, t, ids):
    with pytest.raises(TypeError, match="cannot be interpreted as an integer"):
        evaluator.extract_filtration_weights(make_pool(), ids, t)


@pytest.mark.parametrize("ids", [["a"], [], None])
@pytest.mark.parametrize("t", [2**31, -(2**31) - 1, 2**63, -(2**63) - 1, 2**100, Index(2**40)])
def test_a_time_step_beyond_32_bits(evaluator, t, ids):
    with pytest.raises(OverflowError):
        evaluator.extract_filtration_weights(make_pool(), ids, t)


@pytest.mark.parametrize("ids", [["missing"], None])
def test_the_time_step_is_read_first(evaluator, ids):
    fault = RuntimeError("index")
    with lets_through(fault):
        evaluator.extract_filtration_weights(None, ids, Index(fault))


# --- unknown and odd ids -------------------------------------------------------------------------


def refuses_key(key: Any, *arguments: Any) -> Any:
    evaluator, *rest = arguments
    with pytest.raises(KeyError) as caught:
        evaluator.extract_filtration_weights(*rest)
    assert caught.value.args == (key,)
    assert caught.value.__context__ is None


@pytest.mark.parametrize("t", [0, 99, -1])
def test_the_first_id_is_missing(evaluator, t):
    refuses_key("x", evaluator, make_pool(), ["x", "a"], t)


def test_a_later_id_is_missing(evaluator):
    refuses_key("x", evaluator, make_pool(), ["a", "x", "y"], 0)
    refuses_key(None, evaluator, make_pool(), ["a", None, 5], 0)
    with pytest.raises(IndexError):
        evaluator.extract_filtration_weights(make_pool(), ["a", "x"], 4)


@pytest.mark.parametrize("sid", [5, b"b", ("b",), 1.5, object()])
def test_an_id_that_is_no_text(evaluator, sid):
    pool = {**make_pool(), sid: make_pool()["b"]}
    with pytest.raises(TypeError):
        evaluator.extract_filtration_weights(pool, ["a", sid], 0)
    with pytest.raises(TypeError):
        evaluator.extract_filtration_weights(pool, [sid], 0)
    refuses_key(sid, evaluator, make_pool(), [sid], 0)
    with pytest.raises(IndexError):
        evaluator.extract_filtration_weights(pool, ["a", sid], 4)
    refuses_key("x", evaluator, pool, ["a", "x", sid], 0)


def test_none_as_an_id(evaluator):
    pool = {**make_pool(), None: make_pool()["b"]}
    extracted = evaluator.extract_filtration_weights(pool, [None, "a"], 0)
    same_bits(extracted, block(pool, [None, "a"], 0))


@pytest.mark.parametrize("ids", [{"a"}, {"a": 1}.keys()])
def test_ids_that_have_no_places(evaluator, ids):
    with pytest.raises(TypeError, match="is not subscriptable"):
        evaluator.extract_filtration_weights(make_pool(), ids, 0)


@pytest.mark.parametrize("ids", [(sid for sid in "a"), iter(["a"]), 0, 5, object()])
def test_ids_that_have_no_length(evaluator, ids):
    with pytest.raises(TypeError, match=r"has no len\(\)"):
        evaluator.extract_filtration_weights(make_pool(), ids, 0)


@pytest.mark.parametrize("ids", [["b"], ["a", "b"]])
def test_ids_in_an_array(evaluator, ids):
    extracted = evaluator.extract_filtration_weights(make_pool(), np.array(ids, object), 0)
    same_bits(extracted, block(make_pool(), ids, 0))


def test_no_signals(evaluator):
    with fails(TypeError, "'NoneType' object is not subscriptable"):
        evaluator.extract_filtration_weights(None, ["a"], 0)
    refuses_key("a", evaluator, {}, ["a"], 0)


# --- reads ---------------------------------------------------------------------------------------


class Weights:
    """Records the keys that it is read with."""

    def __init__(self, rows: Any = 2, columns: Any = 3, row: Any = 1.0) -> None:
        self.shape = (rows, columns)
        self.row = row
        self.keys: list[Any] = []

    def __getitem__(self, key: Any) -> Any:
        self.keys.append(key)
        return self.row


def test_how_weights_are_read(evaluator):
    first, second = Weights(row=7.0), Weights(rows=0, columns=9, row=[1, 2, 3])
    pool = pool_of(a=first, b=second)
    extracted = evaluator.extract_filtration_weights(pool, ["a", "b", "a"], 1)
    same_bits(extracted, [[7.0] * 3, [1.0, 2.0, 3.0], [7.0] * 3])
    assert first.keys == [(1, slice(None))] * 2
    assert second.keys == [(1, slice(None))]


@pytest.mark.parametrize(
    ("ids", "t"), [(["a", "b", "x"], 0), (["a", "b", 5], 0), (["a", "b"], 2), (["x"], 0)]
)
def test_no_row_is_read_before_a_fault(evaluator, ids, t):
    weights = Weights()
    with pytest.raises((KeyError, TypeError, IndexError)):
        evaluator.extract_filtration_weights(pool_of(a=weights, b=weights), ids, t)
    assert weights.keys == []


@pytest.mark.parametrize(
    "weights",
    [
        np.ones((1, 3)),
        np.ones((2, 4)),
        np.ones((2, 2)),
        np.ones(2),
        np.ones((2, 3, 1)),
        None,
        [[1]],
    ],
)
def test_a_later_signal_of_another_shape(evaluator, weights):
    def copy() -> None:
        np.empty((2, 3))[1, :] = weights[1, :]

    with fails(*array_failure(copy)):
        evaluator.extract_filtration_weights(pool_of(a=np.ones((2, 3)), b=weights), ["a", "b"], 1)


def test_a_later_signal_of_one_column_fills_its_row(evaluator):
    pool = pool_of(a=np.ones((2, 3)), b=np.array([[4.0], [5.0]]))
    same_bits(evaluator.extract_filtration_weights(pool, ["a", "b"], 1), [[1.0] * 3, [5.0] * 3])


class Lookup:
    """A mapping with only what is asked of it, in a log."""

    def __init__(self, pool: Any, known: Any) -> None:
        self.pool, self.known = pool, known
        self.log: list[Any] = []

    def __getitem__(self, sid: Any) -> Any:
        self.log.append(sid)
        return self.pool[sid]

    def __contains__(self, sid: Any) -> bool:
        self.log.append(f"{sid}?")
        return sid in self.known


def test_a_mapping_of_another_class(evaluator):
    pool = make_pool()
    lookup = Lookup(pool, pool)
    extracted = evaluator.extract_filtration_weights(lookup, ["b", "a"], 2)
    same_bits(extracted, block(pool, "ba", 2))
    assert lookup.log == ["b", "b?", "a?", "b", "a"]
    refuses_key("a", evaluator, Lookup(pool, "b"), ["b", "a"], 0)


def test_a_subclass_of_dict(evaluator):
    class Doubling(dict):
        def __getitem__(self, sid: str) -> Any:
            return UsefulSignal(super().__getitem__(sid).weights * 2.0)

    extracted = evaluator.extract_filtration_weights(Doubling(make_pool()), ["b"], 2)
    same_bits(extracted, block(make_pool(), "b", 2) * 2.0)


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("place", ["weights", "shape", "row"])
def test_reads_that_fail(evaluator, kind, place):
    fault = kind(place)
    failing = property(raising(fault))
    signal: Any = SimpleNamespace(weights=Weights())
    if place == "weights":
        signal = type("Signal", (), {"weights": failing})()
    elif place == "shape":
        signal = SimpleNamespace(weights=type("NoShape", (), {"shape": failing})())
    else:
        signal.weights.__class__ = type("NoRow", (Weights,), {"__getitem__": raising(fault)})
    with lets_through(fault):
        evaluator.extract_filtration_weights({"a": signal}, ["a"], 0)
