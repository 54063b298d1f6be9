"""What a function may return, and how its result becomes a row."""

from __future__ import annotations

import array
import warnings
from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationShapeError
from support.functions import RecordingFunction
from support.graphs import feature, number, rotation
from support.registries import RecordingRegistry
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits

BOTH_ROADS = pytest.mark.parametrize("bound", [True, False], ids=["bound", "registry"])
COLUMNS = 3


def rows_of(
    evaluator, make: Callable[..., Any], bound: bool, *, rows: int = 2, name: str = "f"
) -> np.ndarray:
    """The weights of a function over one feature that returns `make(row)`."""
    instance = RecordingFunction(lambda row, **_: make(row))
    registry = RecordingRegistry(factories={name: instance})
    context = make_context(evaluator, {"a": counting_matrix(rows)}, registry=registry)
    instances = {"root": instance} if bound else None
    graph = rotation(name, feature("a"))
    return evaluator.evaluate(graph, context, bound_function_instances=instances).weights


# --- arrays that pass ----------------------------------------------------------------------------


class Plain(np.ndarray):
    pass


def frozen() -> np.ndarray:
    result = np.array([1.0, 2.0, 3.0])
    result.flags.writeable = False
    return result


def unaligned() -> np.ndarray:
    return np.frombuffer(b"x" + np.array([1.0, -0.0, 3.0]).tobytes(), np.float64, offset=1)


def with_metadata() -> np.ndarray:
    return np.array([1.0, 2.0, 3.0]).astype(np.dtype(np.float64, metadata={"unit": "percent"}))


class ShapeOfItsOwn(np.ndarray):
    """Says that it has the shape of a row; the assignment sees the real one."""

    @property
    def shape(self) -> Any:
        return (COLUMNS,)


class DtypeOfItsOwn(np.ndarray):
    @property
    def dtype(self) -> Any:
        return np.dtype(np.float64)


ARRAYS = {
    "contiguous": lambda: np.array([1.0, 2.0, 3.0]),
    "special values": lambda: np.array([np.nan, -0.0, -np.inf]),
    "payload": lambda: np.array([0x7FF0000000000001, 0xFFF8000000000002, 5], np.uint64).view(float),
    "every second": lambda: np.arange(6.0)[::2],
    "backwards": lambda: np.arange(3.0)[::-1],
    "a column": lambda: np.arange(9.0).reshape(3, 3)[:, 1],
    "broadcast": lambda: np.broadcast_to(2.5, 3),
    "read-only": frozen,
    "unaligned": unaligned,
    "with metadata": with_metadata,
    "subclass": lambda: np.array([1.0, 2.0, 3.0]).view(Plain),
    "masked array": lambda: np.ma.masked_array([1.0, 2.0, 3.0], [True, False, False]),
    "record array": lambda: np.array([1.0, 2.0, 3.0]).view(np.recarray),
    "shape of its own": lambda: np.ones((1, 3)).view(ShapeOfItsOwn),
    "dtype of its own": lambda: np.array([1, 2, 3], np.int32).view(DtypeOfItsOwn),
}


@BOTH_ROADS
@pytest.mark.parametrize("make", ARRAYS.values(), ids=ARRAYS.keys())
def test_arrays_that_pass(evaluator, make, bound):
    expected = np.zeros((2, COLUMNS))
    expected[:] = make()
    same_bits(rows_of(evaluator, lambda _: make(), bound), expected)


@BOTH_ROADS
def test_one_array_may_serve_many_rows_and_is_not_changed(evaluator, bound):
    result = np.array([1.0, 2.0, 3.0])
    same_bits(rows_of(evaluator, lambda _: result, bound), np.tile(result, (2, 1)))
    assert result.tolist() == [1.0, 2.0, 3.0]


@BOTH_ROADS
@pytest.mark.parametrize(
    ("choose", "expected"),
    [
        (lambda row: row, counting_matrix(2)),
        (lambda row: row[:], counting_matrix(2)),
        (lambda row: row[::-1], counting_matrix(2)[:, ::-1]),
        (lambda row: np.negative(row, out=row), -counting_matrix(2)),
        (lambda row: row.view(Plain), counting_matrix(2)),
    ],
)
def test_a_function_may_return_its_argument(evaluator, choose, expected, bound):
    same_bits(rows_of(evaluator, choose, bound), expected)


def test_a_bound_function_may_return_its_own_register(evaluator):
    """The result lies in the row that it is written to, in another order."""
    steps: list[np.ndarray] = []

    def turn(row: np.ndarray) -> np.ndarray:
        own = row.base[1]
        own[:] = row + len(steps)
        steps.append(own.copy())
        return own[::-1]

    weights = rows_of(evaluator, turn, True)
    same_bits(weights, np.stack(steps)[:, ::-1])


def test_a_bound_function_may_return_another_register(evaluator):
    same_bits(rows_of(evaluator, lambda row: row.base[0], True), counting_matrix(2))


# --- arrays that are refused ---------------------------------------------------------------------

SHAPES = {
    "0-d": (lambda: np.array(1.0), "()"),
    "empty": (lambda: np.zeros(0), "(0,)"),
    "one": (lambda: np.zeros(1), "(1,)"),
    "short": (lambda: np.zeros(2), "(2,)"),
    "long": (lambda: np.zeros(4), "(4,)"),
    "a matrix of one row": (lambda: np.zeros((1, 3)), "(1, 3)"),
    "a matrix of one column": (lambda: np.zeros((3, 1)), "(3, 1)"),
    "np.matrix": (lambda: np.ones((1, 3)).view(np.matrix), "(1, 3)"),
    "shape before dtype": (lambda: np.zeros((2, 2), np.float32), "(2, 2)"),
    "masked": (lambda: np.ma.masked_all((2,)), "(2,)"),
}


@BOTH_ROADS
@pytest.mark.parametrize(("make", "shape"), SHAPES.values(), ids=SHAPES.keys())
def test_arrays_of_another_shape(evaluator, make, shape, bound):
    text = f"Function 'f' returned shape {shape}, expected (3,) at row 0"
    with fails(EvaluationShapeError, text):
        rows_of(evaluator, lambda _: make(), bound)


DTYPES = [
    ("float32", "float32"),
    ("float16", "float16"),
    ("longdouble", str(np.dtype(np.longdouble))),
    (">f8", ">f8"),
    ("int64", "int64"),
    ("uint8", "uint8"),
    ("bool", "bool"),
    ("complex128", "complex128"),
    ("object", "object"),
    ("S3", "|S3"),
    ("U2", "<U2"),
    ("datetime64[D]", "datetime64[D]"),
    ([("x", "f8")], "[('x', '<f8')]"),
]


@BOTH_ROADS
@pytest.mark.parametrize(("dtype", "shown"), DTYPES, ids=[shown for _, shown in DTYPES])
def test_arrays_of_another_dtype(evaluator, dtype, shown, bound):
    text = f"Function 'f' returned dtype {shown}, expected float64 at row 0"
    with fails(EvaluationShapeError, text):
        rows_of(evaluator, lambda _: np.zeros(3, dtype), bound)


@BOTH_ROADS
@pytest.mark.parametrize("failing_row", [0, 1, 5])
@pytest.mark.parametrize(
    ("bad", "what"),
    [
        (np.zeros(2), "returned shape (2,), expected (3,)"),
        (np.zeros(3, ">f8"), "returned dtype >f8, expected float64"),
    ],
)
def test_the_message_names_function_and_row(evaluator, failing_row, bad, what, bound):
    def late(row: np.ndarray) -> np.ndarray:
        return bad if row[0] == 1.0 + COLUMNS * failing_row else row

    with fails(EvaluationShapeError, f"Function 'näme {{}}' {what} at row {failing_row}"):
        rows_of(evaluator, late, bound, rows=7, name="näme {}")


def test_a_refused_result_ends_the_run_at_its_node(evaluator):
    after = RecordingFunction()
    graph = rotation("f", rotation("g", feature("a")))
    context = make_context(evaluator, {"a": counting_matrix(2)})
    instances = {"root.c0": RecordingFunction(np.zeros(1)), "root": after}
    text = "Function 'g' returned shape (1,), expected (3,) at row 0"
    with fails(EvaluationShapeError, text):
        evaluator.evaluate(graph, context, bound_function_instances=instances)
    assert after.calls == []
    assert context.current_day_index == 0
    same_bits(context.registers, np.zeros((3, 3)))


# --- arrays that lie -----------------------------------------------------------------------------


def lying(**attributes: Any) -> Any:
    """An array whose class answers for `shape` or `dtype` in its own way."""
    liar = type("Liar", (np.ndarray,), {k: property(v) for k, v in attributes.items()})
    return np.ones(COLUMNS).view(liar)


def raise_it(fault: BaseException) -> Callable[[Any], Any]:
    def answer(_: Any) -> Any:
        raise fault

    return answer


@BOTH_ROADS
def test_a_shape_that_is_no_tuple(evaluator, bound):
    text = "Function 'f' returned shape [3], expected (3,) at row 0"
    with fails(EvaluationShapeError, text):
        rows_of(evaluator, lambda _: lying(shape=lambda _: [3]), bound)


@BOTH_ROADS
def test_a_dtype_that_only_looks_right(evaluator, bound):
    text = "Function 'f' returned dtype float64, expected float64 at row 0"
    with fails(EvaluationShapeError, text):
        rows_of(evaluator, lambda _: lying(dtype=lambda _: "float64"), bound)
    accepted = rows_of(evaluator, lambda _: lying(dtype=lambda _: np.float64), bound)
    same_bits(accepted, np.ones((2, 3)))


@BOTH_ROADS
@pytest.mark.parametrize("attribute", ["shape", "dtype"])
@pytest.mark.parametrize("kind", [ValueError, AttributeError, KeyboardInterrupt])
def test_attributes_that_raise(evaluator, attribute, kind, bound):
    fault = kind("hidden")
    with lets_through(fault):
        rows_of(evaluator, lambda _: lying(**{attribute: raise_it(fault)}), bound)


@BOTH_ROADS
def test_a_comparison_that_raises(evaluator, bound):
    fault = ValueError("incomparable")

    class Shape(tuple):
        __eq__ = __ne__ = lambda *_: raise_it(fault)(None)
        __hash__ = None

    with lets_through(fault):
        rows_of(evaluator, lambda _: lying(shape=lambda _: Shape((3,))), bound)


@BOTH_ROADS
def test_what_claims_to_be_an_array_is_checked_as_one(evaluator, bound):
    class Claiming:
        shape = (2,)
        __class__ = np.ndarray

    text = "Function 'f' returned shape (2,), expected (3,) at row 0"
    with fails(EvaluationShapeError, text):
        rows_of(evaluator, lambda _: Claiming(), bound)


@BOTH_ROADS
def test_a_class_that_cannot_be_read(evaluator, bound):
    fault = RuntimeError("class")

    class Hiding:
        __class__ = property(raise_it(fault))

    with lets_through(fault):
        rows_of(evaluator, lambda _: Hiding(), bound)


# --- everything else follows the assignment ------------------------------------------------------


class WithFloat:
    def __float__(self) -> float:
        return 3.5


class WithIndex:
    def __index__(self) -> int:
        return 3


class WithArray:
    def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
        return np.arange(3, dtype=np.int8)


class WithFaultyArray:
    def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
        raise LookupError("no array")


class WithItems:
    def __len__(self) -> int:
        return 3

    def __getitem__(self, index: int) -> float:
        return (1.0, 2.0, 3.0)[index]


class FloatSubclass(float):
    def __float__(self) -> float:
        return -1.0


class ListSubclass(list):
    def __getitem__(self, index: Any) -> Any:
        return 9.0

    def __iter__(self) -> Any:
        return iter([8.0] * 3)


OTHERS = {
    "float": lambda: 2.5,
    "minus zero": lambda: -0.0,
    "nan": lambda: float("nan"),
    "int": lambda: 2**53 + 1,
    "large int": lambda: 10**400,
    "bool": lambda: True,
    "none": lambda: None,
    "complex": lambda: 1j,
    "text": lambda: " 1.5 ",
    "no number": lambda: "abc",
    "bytes": lambda: b"2",
    "np.float64": lambda: np.float64(0.1),
    "np.float32": lambda: np.float32(0.1),
    "np.int8": lambda: np.int8(-3),
    "np.bool": lambda: np.bool_(True),
    "np.complex64": lambda: np.complex64(1 + 2j),
    "np.datetime64": lambda: np.datetime64(5, "s"),
    "np.str": lambda: np.str_("2.5"),
    "np.void": lambda: np.zeros(1, [("x", "f8")])[0],
    "list": lambda: [1, 2.5, None],
    "list with text": lambda: ["1", b"2", True],
    "tuple": lambda: (1.0, 2.0, 3.0),
    "list of one": lambda: [4.0],
    "short list": lambda: [1.0, 2.0],
    "long list": lambda: [1.0] * 4,
    "empty list": list,
    "nested list": lambda: [[1.0, 2.0, 3.0]],
    "ragged list": lambda: [1.0, [2.0, 3.0], 4.0],
    "list of arrays": lambda: [np.array(1.0), np.array(2.0), np.array([3.0])],
    "list of rows": lambda: [np.ones(3)],
    "range": lambda: range(3),
    "generator": lambda: (x for x in (1.0, 2.0, 3.0)),
    "dict": lambda: {0: 1.0},
    "set": lambda: {1.0, 2.0, 3.0},
    "array.array": lambda: array.array("f", [1, 2, 3]),
    "memoryview": lambda: memoryview(b"abc"),
    "matrix memoryview": lambda: memoryview(np.ones((1, 3))),
    "with __float__": WithFloat,
    "with __index__": WithIndex,
    "with __array__": WithArray,
    "with a faulty __array__": WithFaultyArray,
    "with items": WithItems,
    "float subclass": lambda: FloatSubclass(2.0),
    "list subclass": lambda: ListSubclass([1.0, 2.0, 3.0]),
    "object": object,
    "class": lambda: float,
    "ellipsis": lambda: ...,
}


@BOTH_ROADS
@pytest.mark.parametrize("make", OTHERS.values(), ids=OTHERS.keys())
def test_what_is_no_array_is_assigned_as_numpy_assigns_it(evaluator, make, bound):
    expected, fault = np.zeros((2, COLUMNS)), None
    with warnings.catch_warnings(record=True) as warned:
        warnings.simplefilter("always")
        try:
            expected[0, :] = make()
        except (ArithmeticError, LookupError, TypeError, ValueError) as error:
            fault = error
    with warnings.catch_warnings(record=True) as warned_in_the_run:
        warnings.simplefilter("always")
        if fault is None:
            expected[1] = expected[0]
            same_bits(rows_of(evaluator, lambda _: make(), bound), expected)
        else:
            with pytest.raises(type(fault)) as caught:
                rows_of(evaluator, lambda _: make(), bound)
            assert type(caught.value) is type(fault)
            assert str(caught.value) == str(fault)
            assert type(caught.value.__cause__) is type(fault.__cause__)
    assert [w.category for w in warned_in_the_run] == [w.category for w in warned] * (
        2 if fault is None else 1
    )


@BOTH_ROADS
def test_an_assignment_that_fails_is_not_the_functions_failure(evaluator, bound):
    fault = LookupError("float")

    class Faulty:
        def __float__(self) -> float:
            raise fault

    with pytest.raises(LookupError) as caught:
        rows_of(evaluator, lambda _: Faulty(), bound)
    assert caught.value is fault


@BOTH_ROADS
def test_results_may_differ_in_kind_from_row_to_row(evaluator, bound):
    results = iter([1, np.arange(3.0), [4.0, 5.0, 6.0], None, np.float32(0.5), np.arange(6.0)[::2]])
    expected = np.array(
        [[1.0] * 3, [0.0, 1.0, 2.0], [4.0, 5.0, 6.0], [np.nan] * 3, [0.5] * 3, [0.0, 2.0, 4.0]]
    )
    same_bits(rows_of(evaluator, lambda _: next(results), bound, rows=6), expected)


def test_a_scalar_result_serves_a_parent_as_a_full_row(evaluator):
    parent = RecordingFunction()
    context = make_context(evaluator, {"a": counting_matrix(1)})
    evaluator.evaluate(
        rotation("f", rotation("g", number(1.0))),
        context,
        bound_function_instances={"root.c0": RecordingFunction(7), "root": parent},
    )
    assert parent.calls[0].values[0].tolist() == [7.0, 7.0, 7.0]
