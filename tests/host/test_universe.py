"""The two rules for the universe: masking of data, and the context's `universe_mask`."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from support.graphs import feature

VALUES = [np.nan, np.inf, -np.inf, 0.0, -0.0, 0.5, -1.0, 1.0, 5e-324]
ACTIVE = [False, True, True, False, False, True, True, True, True]
IN_MASK = [0, 0, 0, 0, 0, 1, 1, 1, 1]

UNIVERSES = {
    "float64": np.array([VALUES]),
    "float32": np.array([VALUES[:-1]], dtype=np.float32),
    "float16": np.array([VALUES[:-1]], dtype=np.float16),
    "longdouble": np.array([VALUES], dtype=np.longdouble),
    "complex": np.array([[0j, 1j, complex(np.nan, 0), complex(0, np.nan), 0.5]]),
    "int": np.array([[0, 1, -3]]),
    "uint8": np.array([[0, 1, 255]], dtype=np.uint8),
    "bool": np.array([[True, False, True]]),
    "big-endian": np.array([VALUES], dtype=">f8"),
    "fortran": np.asfortranarray(np.array([VALUES, VALUES[::-1]])),
    "strided": np.array([VALUES, VALUES])[:, ::2],
    "reversed": np.array([VALUES, VALUES])[::-1, ::-1],
    "read-only": np.broadcast_to(np.array(VALUES), (3, len(VALUES))),
    "empty": np.empty((0, 4)),
}


def expected_masking(data: Any, universe: Any) -> Any:
    return np.where((universe == 0.0) | np.isnan(universe), np.nan, data)


def test_without_universe_data_itself_comes_back(evaluator: ModuleType) -> None:
    for data in (np.ones((2, 2)), np.ones(2), [1.0], object()):
        assert evaluator._apply_universe_mask(data, None) is data


def test_inactive_cells(evaluator: ModuleType) -> None:
    data = np.arange(9.0)
    masked = evaluator._apply_universe_mask(data, np.array(VALUES))
    np.testing.assert_array_equal(masked, np.where(ACTIVE, data, np.nan))
    np.testing.assert_array_equal(data, np.arange(9.0))


def test_active_cells_keep_their_bits(evaluator: ModuleType) -> None:
    # a NaN with a payload, a negative zero and a subnormal must come through untouched
    data = np.array([0x7FF8000000001234, 0x8000000000000000, 1], dtype=np.uint64).view(np.float64)
    masked = evaluator._apply_universe_mask(data, np.ones(3))
    np.testing.assert_array_equal(masked.view(np.uint64), data.view(np.uint64))


@pytest.mark.parametrize("shape", [(4,), (3, 4), (0, 4), (3, 0)])
def test_result_is_always_new(evaluator: ModuleType, shape: tuple[int, ...]) -> None:
    data = np.ones(shape)
    masked = evaluator._apply_universe_mask(data, np.ones(shape))
    assert masked is not data
    assert not np.shares_memory(masked, data)
    assert masked.flags.owndata and masked.flags.writeable
    np.testing.assert_array_equal(masked, data)


@pytest.mark.parametrize("dtype", [np.float64, np.float32, np.int64, np.bool_, object])
@pytest.mark.parametrize("kind", UNIVERSES)
def test_rule_for_any_dtype(evaluator: ModuleType, kind: str, dtype: Any) -> None:
    universe = UNIVERSES[kind]
    data = np.arange(universe.size).reshape(universe.shape).astype(dtype)
    masked = evaluator._apply_universe_mask(data, universe)
    expected = expected_masking(data, universe)
    assert type(masked) is np.ndarray
    assert masked.dtype == expected.dtype
    # no two NaN compare equal inside an array of objects
    np.testing.assert_array_equal(masked.astype(np.float64), expected.astype(np.float64))


def test_rows_of_a_universe_broadcast(evaluator: ModuleType) -> None:
    data = np.arange(6.0).reshape(2, 3)
    universe = np.array([1.0, 0.0, 1.0])
    masked = evaluator._apply_universe_mask(data, universe)
    np.testing.assert_array_equal(masked, expected_masking(data, universe))
    row = evaluator._apply_universe_mask(data[0], np.ones((2, 3)))
    assert row.shape == (2, 3)


def test_subclasses_give_plain_arrays(evaluator: ModuleType) -> None:
    class Tagged(np.ndarray):
        pass

    data, universe = np.ones((2, 2)).view(Tagged), np.eye(2).view(Tagged)
    masked = evaluator._apply_universe_mask(data, universe)
    assert type(masked) is np.ndarray
    np.testing.assert_array_equal(masked, [[1.0, np.nan], [np.nan, 1.0]])


@pytest.mark.parametrize(
    ("data", "universe", "error"),
    [
        (np.ones((2, 3)), np.ones((2, 2)), ValueError),
        (np.ones(2), np.array(["a", "b"]), TypeError),
        (np.ones(2), np.array([object(), 1.0], dtype=object), TypeError),
        (np.ones(2), np.array(["2020", "2021"], dtype="M8[Y]"), None),
    ],
    ids=["shapes", "text", "objects", "dates"],
)
def test_what_arrays_cannot_compare(
    evaluator: ModuleType, data: Any, universe: Any, error: type[Exception] | None
) -> None:
    if error is None:
        masked = evaluator._apply_universe_mask(data, universe)
        np.testing.assert_array_equal(masked, expected_masking(data, universe))
    else:
        with pytest.raises(error):
            evaluator._apply_universe_mask(data, universe)


def run_leaf(evaluator: ModuleType, universe: Any, **keywords: Any) -> Any:
    data = np.ones(universe.shape)
    context = evaluator.EvaluationContext((data,), {"x": 0}, universe=universe, **keywords)
    return evaluator.evaluate(feature("x"), context).weights, context


def test_mask_excludes_infinities_that_masking_keeps(evaluator: ModuleType) -> None:
    weights, context = run_leaf(evaluator, np.array([VALUES]))
    np.testing.assert_array_equal(context.universe_mask, [IN_MASK])
    np.testing.assert_array_equal(~np.isnan(weights), [ACTIVE])


@pytest.mark.parametrize("kind", UNIVERSES)
def test_mask_is_a_contiguous_byte_matrix(evaluator: ModuleType, kind: str) -> None:
    universe = UNIVERSES[kind]
    weights, context = run_leaf(evaluator, universe)
    mask = context.universe_mask
    assert type(mask) is np.ndarray
    assert mask.dtype == np.uint8
    assert mask.flags.c_contiguous and mask.flags.writeable
    np.testing.assert_array_equal(mask, np.isfinite(universe) & (universe != 0.0))
    np.testing.assert_array_equal(weights, expected_masking(np.ones(universe.shape), universe))
    assert context.universe is universe


@pytest.mark.parametrize("shape", [(3, 2), (0, 2), (3, 0)])
def test_mask_without_universe_is_all_ones(evaluator: ModuleType, shape: tuple[int, int]) -> None:
    context = evaluator.EvaluationContext((np.zeros(shape),), {"x": 0})
    evaluator.evaluate(feature("x"), context)
    assert context.universe_mask.dtype == np.uint8
    assert context.universe_mask.shape == shape
    assert context.universe_mask.flags.c_contiguous
    assert context.universe_mask.all()


@pytest.mark.parametrize("given", [np.zeros((1, 1)), "anything", 0, False])
def test_mask_that_is_there_is_kept(evaluator: ModuleType, given: Any) -> None:
    _, context = run_leaf(evaluator, np.eye(2), universe_mask=given)
    assert context.universe_mask is given


def test_mask_is_not_rebuilt_for_a_new_universe(evaluator: ModuleType) -> None:
    _, context = run_leaf(evaluator, np.ones((2, 2)))
    mask = context.universe_mask
    context.universe = np.eye(2)
    again = evaluator.evaluate(feature("x"), context).weights
    assert context.universe_mask is mask
    np.testing.assert_array_equal(again, [[1.0, np.nan], [np.nan, 1.0]])


@pytest.mark.parametrize("dtype", ["U1", object])
def test_universe_that_has_no_finiteness(evaluator: ModuleType, dtype: str) -> None:
    context = evaluator.EvaluationContext(
        (np.ones((1, 2)),), {"x": 0}, universe=np.array([["a", "b"]], dtype=dtype)
    )
    with pytest.raises(TypeError):
        evaluator.evaluate(feature("x"), context)
    assert context.universe_mask is None
