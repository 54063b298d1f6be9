"""What features, aggregations and literals leave in their registers."""

from __future__ import annotations

import warnings
from typing import Any

import numpy as np
import pytest
from support.functions import RecordingFunction
from support.graphs import aggregation, boolean, feature, integer, node, number, rotation, string
from support.runs import counting_matrix, fails, make_context, same_bits

NAN = np.nan
SPECIAL = np.array([[1.0, -0.0, NAN], [np.inf, -np.inf, 5e-324], [0.0, -NAN, 1.7e308]])
PAYLOADS = np.array(
    [[0x7FF8000000000123, 0xFFF8000000000001, 0x7FF0000000000001], [0, 1 << 63, 1]], np.uint64
).view(np.float64)


def leaf_rows(evaluator, matrix: Any, make=feature, **options: Any) -> np.ndarray:
    """The weights of a leaf that the row loop copies, over a matrix handed in as it is."""
    options = {"validate_inputs": False, **options}
    context = make_context(evaluator, {"x": matrix}, **options)
    return evaluator.evaluate(make("x"), context, data_nan_features=["unused"]).weights


def masked(matrix: np.ndarray, universe: np.ndarray) -> np.ndarray:
    return np.where((universe == 0.0) | np.isnan(universe), NAN, matrix)


# --- features ------------------------------------------------------------------------------------


@pytest.mark.parametrize("make", [feature, aggregation])
@pytest.mark.parametrize("matrix", [SPECIAL, PAYLOADS])
def test_rows_are_copied_bit_by_bit(evaluator, make, matrix):
    before = matrix.copy()
    same_bits(leaf_rows(evaluator, matrix, make), matrix)
    same_bits(matrix, before)


class Subclass(np.ndarray):
    pass


def big() -> np.ndarray:
    return np.arange(48.0).reshape(6, 8)


def read_only() -> np.ndarray:
    matrix = big()
    matrix.flags.writeable = False
    return matrix


def unaligned() -> np.ndarray:
    raw = np.zeros(6 * 8 * 8 + 1, np.uint8)
    matrix = raw[1:].view(np.float64).reshape(6, 8)
    matrix[:] = big()
    return matrix


LAYOUTS = {
    "float32": lambda: big().astype(np.float32) / 3,
    "float16": lambda: big().astype(np.float16),
    "longdouble": lambda: big().astype(np.longdouble) / 3,
    "int64": lambda: big().astype(np.int64) - 2**60,
    "uint8": lambda: big().astype(np.uint8),
    "bool": lambda: big() > 10,
    "object": lambda: big().astype(object),
    "object with None and text": lambda: np.array([[None, "1.5", 3]], dtype=object),
    "text": lambda: np.array([["1.5", "nan", "-inf"]]),
    "big-endian": lambda: big().astype(">f8"),
    "big-endian float32": lambda: big().astype(">f4"),
    "Fortran": lambda: np.asfortranarray(big()),
    "transposed": lambda: big().T,
    "sliced": lambda: big()[1::2, ::3],
    "backwards": lambda: big()[::-1, ::-1],
    "broadcast": lambda: np.broadcast_to(np.arange(4.0), (3, 4)),
    "read-only": read_only,
    "unaligned": unaligned,
    "subclass": lambda: big().view(Subclass),
    "masked array": lambda: np.ma.masked_greater(big(), 20.0),
    "datetime": lambda: big().astype("datetime64[s]"),
}


@pytest.mark.parametrize("masking", [False, True])
@pytest.mark.parametrize("make", LAYOUTS.values(), ids=LAYOUTS.keys())
def test_matrices_of_any_layout(evaluator, make, masking):
    matrix = make()
    universe = np.ones(matrix.shape)
    universe[0, 0] = 0.0
    universe[0, 1] = -1.0
    expected = np.zeros(matrix.shape)
    fault = None
    for t in range(len(matrix)):
        row = matrix[t, :].copy()
        try:
            expected[t, :] = masked(row, universe[t, :]) if masking else row
        except (TypeError, ValueError) as error:
            fault = error
            break
    if fault is None:
        same_bits(leaf_rows(evaluator, matrix, universe=universe if masking else None), expected)
    else:
        with fails(type(fault), str(fault)):
            leaf_rows(evaluator, matrix, universe=universe)


def test_imaginary_parts_are_dropped_with_a_warning(evaluator):
    matrix = np.array([[1 + 2j, 3 + 0j]])
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        same_bits(leaf_rows(evaluator, matrix), np.array([[1.0, 3.0]]))
    assert [warning.category.__name__ for warning in caught] == ["ComplexWarning"]


def test_an_element_that_is_no_number_stops_the_run_at_its_row(evaluator):
    matrix = np.array([[1.0, 2.0], [3.0, "x"]], dtype=object)
    context = make_context(evaluator, {"x": matrix})
    with fails(ValueError, "could not convert string to float: 'x'"):
        evaluator.evaluate(feature("x"), context, data_nan_features=["unused"])
    assert context.current_day_index == 1
    same_bits(context.registers, np.zeros((1, 2)))


class LookAlike:
    """Has a shape and rows, and records what is asked of it."""

    def __init__(self, rows: list[Any]) -> None:
        self.rows = rows
        self.shape = (len(rows), 3)
        self.asked: list[Any] = []

    def __getitem__(self, key: Any) -> Any:
        self.asked.append(key)
        return self.rows[key[0]]


def test_a_look_alike_is_asked_for_one_row_at_a_time(evaluator):
    matrix = LookAlike([[1, 2, 3], np.array([4, 5, 6]), 7.0, (1.0,), np.array([[1, 2, 3]])])
    expected = np.array([[1, 2, 3], [4, 5, 6], [7, 7, 7], [1, 1, 1], [1, 2, 3]], np.float64)
    same_bits(leaf_rows(evaluator, matrix), expected)
    assert matrix.asked == [(t, slice(None)) for t in range(5)]
    assert all(type(t) is int for t, _ in matrix.asked)


def test_a_look_alike_row_is_copied_before_it_is_masked(evaluator):
    class Row:
        def copy(self) -> np.ndarray:
            return np.array([1.0, 2.0, 3.0])

    matrix = LookAlike([Row()])
    universe = np.array([[1.0, 0.0, 1.0]])
    same_bits(leaf_rows(evaluator, matrix, universe=universe), np.array([[1.0, NAN, 3.0]]))
    with fails(AttributeError, "'list' object has no attribute 'copied'"):
        leaf_rows(evaluator, LookAlike([RaisingCopy()]), universe=universe)


class RaisingCopy:
    def copy(self) -> Any:
        return [].copied


def test_a_row_of_the_wrong_length(evaluator):
    text = "could not broadcast input array from shape (2,) into shape (3,)"
    with fails(ValueError, text):
        leaf_rows(evaluator, LookAlike([[1.0, 2.0]]))


@pytest.mark.parametrize("index", [-1, np.int64(1), True])
def test_positions_are_used_as_the_sequence_takes_them(evaluator, index):
    matrices = (np.zeros((1, 2)), np.ones((1, 2)))
    context = evaluator.EvaluationContext(matrices, {"x": index}, validate_inputs=False)
    weights, _ = evaluator.evaluate(feature("x"), context, data_nan_features=["unused"])
    same_bits(weights, np.ones((1, 2)))


@pytest.mark.parametrize(("index", "kind"), [("0", TypeError), (None, TypeError), (2, IndexError)])
def test_positions_that_the_sequence_refuses(evaluator, index, kind):
    matrices = (np.zeros((1, 2)), np.ones((1, 2)))
    with pytest.raises(kind) as expected:
        matrices[index]
    context = evaluator.EvaluationContext(matrices, {"x": index}, validate_inputs=False)
    with fails(kind, str(expected.value)):
        evaluator.evaluate(feature("x"), context, data_nan_features=["unused"])


# --- universe ------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "convert",
    [
        lambda universe: universe,
        lambda universe: universe.astype(np.float32),
        lambda universe: universe.astype(">f8"),
        np.asfortranarray,
        lambda universe: np.repeat(universe, 2, axis=1)[:, ::2],
        lambda universe: np.nan_to_num(universe, nan=0.0, posinf=9, neginf=-9).astype(np.int32),
        lambda universe: universe == 1.0,
    ],
)
@pytest.mark.parametrize("make", [feature, aggregation])
def test_inactive_cells_become_nan(evaluator, make, convert):
    universe = np.array([[0.0, -0.0, NAN, 1.0], [np.inf, -np.inf, -1.0, 0.5]])
    universe = convert(universe)
    matrix = np.array([[1.0, 2.0, 3.0, -0.0], [5.0, 6.0, PAYLOADS[0, 0], 8.0]])
    same_bits(leaf_rows(evaluator, matrix, make, universe=universe), masked(matrix, universe))


def test_only_leaves_are_masked(evaluator):
    instance = RecordingFunction(lambda row, literal: np.nan_to_num(row, nan=-7.0) + literal)
    context = make_context(
        evaluator, {"x": counting_matrix(1)}, universe=np.array([[0.0, 1.0, NAN]])
    )
    result = evaluator.evaluate(
        rotation("f", feature("x"), number(0.5)),
        context,
        bound_function_instances={"root": instance},
    )
    same_bits(result.node_outputs["root.c0"], np.array([[NAN, 2.0, NAN]]))
    same_bits(result.node_outputs["root.c1"], np.full((1, 3), 0.5))
    same_bits(result.weights, np.array([[-6.5, 2.5, -6.5]]))
    same_bits(evaluator.evaluate(number(4.0), context).weights, np.full((1, 3), 4.0))


def test_the_universe_mask_is_not_what_masks(evaluator):
    universe = np.array([[np.inf, 1.0, 1.0]])
    mask = np.array([[0, 0, 1]], np.uint8)
    rows = leaf_rows(evaluator, counting_matrix(1), universe=universe, universe_mask=mask)
    same_bits(rows, counting_matrix(1))


def test_a_marked_feature_gives_nan_rows_under_the_universe(evaluator):
    context = make_context(evaluator, {"x": counting_matrix(2), "y": counting_matrix(2)})
    graph = rotation("f", feature("x"), aggregation("y"))
    instance = RecordingFunction(0.0)
    result = evaluator.evaluate(
        graph,
        context,
        bound_function_instances={"root": instance},
        data_nan_features=iter(["y", "x", "unused"]),
    )
    for path in ("root.c0", "root.c1", "root"):
        assert np.isnan(result.node_outputs[path]).all()
        assert result.nan_source[path] == "data_nan"


# --- literals ------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("make", "value", "stored"),
    [
        (number, 1.5, 1.5),
        (number, "-inf", -np.inf),
        (number, -0.0, -0.0),
        (number, NAN, NAN),
        (number, True, 1.0),
        (number, np.float32(0.1), float(np.float32(0.1))),
        (integer, 7, 7.0),
        (integer, -(2**53) - 1, float(-(2**53) - 1)),
        (integer, 2.5, 2.5),
        (integer, "3", 3.0),
        (string, "12", 0.0),
        (string, None, 0.0),
        (boolean, True, 1.0),
        (boolean, False, 0.0),
        (boolean, "false", 1.0),
        (boolean, [], 0.0),
        (boolean, NAN, 1.0),
        (lambda value: node("odd", value), 5, 0.0),
        (lambda value: node("Float", value), 5, 0.0),
        (lambda value: node("", value), 5, 0.0),
    ],
)
def test_a_literal_fills_every_row(evaluator, make, value, stored):
    context = make_context(evaluator, {"x": np.zeros((3, 2))}, universe=np.zeros((3, 2)))
    context._collect_node_outputs = True
    result = evaluator.evaluate(make(value), context)
    same_bits(result.weights, np.full((3, 2), stored))
    same_bits(result.node_outputs["root"], np.full((3, 2), stored))
    same_bits(context.registers, np.full((1, 2), stored))


@pytest.mark.parametrize("value", ["x", None, 10**400, [1], 1j])
def test_an_int_literal_that_is_no_number_fails_at_the_first_row(evaluator, value):
    with pytest.raises((TypeError, ValueError, OverflowError)) as expected:
        float(value)
    context = make_context(evaluator, {"x": np.zeros((3, 2))})
    with fails(expected.type, str(expected.value)):
        evaluator.evaluate(integer(value), context)
    same_bits(context.registers, np.zeros((1, 2)))
    evaluator.evaluate(integer(value), make_context(evaluator, {"x": np.zeros((0, 2))}))


def test_int_and_bool_literals_are_read_in_every_row(evaluator):
    class Counting:
        reads = 0

        def __float__(self) -> float:
            self.reads += 1
            return float(self.reads)

        def __bool__(self) -> bool:
            self.reads += 1
            return self.reads % 2 == 0

    context = make_context(evaluator, {"x": np.zeros((3, 1))})
    ints, bools = Counting(), Counting()
    same_bits(evaluator.evaluate(integer(ints), context).weights, [[1.0], [2.0], [3.0]])
    same_bits(evaluator.evaluate(boolean(bools), context).weights, [[0.0], [1.0], [0.0]])


def test_a_bool_literal_without_a_truth_value(evaluator):
    context = make_context(evaluator, {"x": np.zeros((2, 1))})
    with pytest.raises(ValueError, match="truth value of an array"):
        evaluator.evaluate(boolean(np.zeros(2)), context)
    assert context.current_day_index == 0


# --- rewriting -----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("child", "seen"),
    [
        (lambda: number(2.0), [2.0, 2.0, 2.0]),
        (lambda: integer(2), [2.0, 2.0, 2.0]),
        (lambda: feature("x"), [1.0, 2.0, 3.0]),
        (lambda: number(2.0, canonical_id="stored"), [8.0, 8.0, 8.0]),
        (lambda: node("odd", 2.0, canonical_id="stored"), [8.0, 8.0, 8.0]),
        (lambda: node("odd", None), [0.0, 99.0, 99.0]),
        (lambda: node("odd", None, [number(1.0)]), [0.0, 99.0, 99.0]),
    ],
)
def test_a_register_that_a_function_overwrote_is_filled_anew(evaluator, child, seen):
    found = []

    def overwrite(row: np.ndarray) -> float:
        found.append(row[0])
        row[:] = 99.0
        return 0.0

    context = make_context(evaluator, {"x": counting_matrix(3, 1)})
    context._precomputed_node_outputs = {"stored": [8.0]}
    result = evaluator.evaluate(
        rotation("f", child()),
        context,
        bound_function_instances={"root": RecordingFunction(overwrite)},
    )
    assert found == seen
    same_bits(result.node_outputs["root.c0"], np.full((3, 1), 99.0))


@pytest.mark.parametrize("make", [string, boolean])
def test_literals_that_are_no_arguments_are_filled_anew(evaluator, make):
    def overwrite_everything(row: np.ndarray) -> float:
        row.base[:] = 99.0
        return 0.0

    context = make_context(evaluator, {"x": counting_matrix(2, 1)})
    seen: list[float] = []

    def look(row: np.ndarray) -> float:
        seen.append(row.base[1, 0])
        return 0.0

    graph = rotation("f", rotation("g", feature("x"), make(False)))
    evaluator.evaluate(
        graph,
        context,
        bound_function_instances={
            "root.c0": RecordingFunction(look),
            "root": RecordingFunction(overwrite_everything),
        },
    )
    assert seen == [0.0, 0.0]


def test_weights_hold_the_root_as_it_stood_at_the_end_of_the_row(evaluator):
    kept: list[np.ndarray] = []

    def keep_and_change_the_past(row: np.ndarray) -> np.ndarray:
        for old in kept:
            old[:] = -1.0
        kept.append(row)
        return row.copy()

    context = make_context(evaluator, {"x": counting_matrix(3)})
    result = evaluator.evaluate(
        rotation("f", feature("x")),
        context,
        bound_function_instances={"root": RecordingFunction(keep_and_change_the_past)},
    )
    same_bits(result.weights[0], counting_matrix(3)[0])
    same_bits(result.weights[1:], np.full((2, 3), -1.0))
