"""Features whose shape is no pair of plain ints: they fail where a size is used, or not at all."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import numpy as np
import pytest
import reference_evaluator
from support.functions import RecordingFunction
from support.graphs import feature, number, rotation
from support.pools import make_pool
from support.runs import make_context

MATRIX = np.arange(12.0).reshape(4, 3)


class Integer(int):
    pass


class Index:
    def __init__(self, value: int) -> None:
        self.value = value

    def __index__(self) -> int:
        return self.value

    def __eq__(self, other: object) -> bool:
        return self.value == other

    def __hash__(self) -> int:
        return hash(self.value)

    def __repr__(self) -> str:
        return f"Index({self.value})"


class Feature:
    def __init__(self, shape: Any) -> None:
        self.shape = shape

    def __getitem__(self, key: Any) -> Any:
        return MATRIX[key]

    def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
        return np.asarray(MATRIX, dtype=dtype)


SHAPES = {
    "as it is": (4, 3),
    "floats": (4.0, 3.0),
    "a list": [4, 3],
    "a class of ints": (Integer(4), Integer(3)),
    "many rows": (10**30, 3),
    "many columns": (4, 10**30),
    "texts": ("4", "3"),
    "one": (4,),
    "none": None,
    "of the array library": (np.int64(4), np.int64(3)),
    "fewer than no rows": (-4, 3),
    "fewer than no columns": (4, -3),
    "indices": (Index(4), Index(3)),
    "a bool": (True, 3),
    "three": (4, 3, 1),
}


@pytest.fixture
def native(evaluator: ModuleType) -> ModuleType:
    if evaluator is reference_evaluator:
        pytest.skip("compared with itself")
    return evaluator


def leaf(evaluator: ModuleType, context: Any) -> Any:
    return evaluator.evaluate(feature("a"), context)


def rank(evaluator: ModuleType, context: Any) -> Any:
    return evaluator.evaluate(rotation("latitudinal_rank", feature("a")), context)


def literal(evaluator: ModuleType, context: Any) -> Any:
    return evaluator.evaluate(number(2.0), context)


def bound(evaluator: ModuleType, context: Any) -> Any:
    instances = {"root": RecordingFunction()}
    return evaluator.evaluate(
        rotation("f", feature("a")), context, bound_function_instances=instances
    )


def outcome(
    evaluator: ModuleType, run: Callable[[ModuleType, Any], Any], shape: Any, universe: Any
) -> Any:
    """What a run gives and leaves, or the error that it ends in."""
    context = make_context(
        evaluator, {"a": Feature(shape)}, universe=universe, validate_inputs=False
    )
    try:
        weights = run(evaluator, context).weights
    except Exception as error:  # noqa: BLE001 - compared with the other evaluator's
        return type(error), str(error), context.universe_mask is None, context.registers is None
    return weights.tolist(), context.universe_mask.tolist(), np.shape(context.registers)


@pytest.mark.parametrize("universe", [None, np.ones((4, 3))], ids=["no universe", "universe"])
@pytest.mark.parametrize("run", [leaf, rank, literal, bound])
@pytest.mark.parametrize("shape", SHAPES.values(), ids=SHAPES.keys())
def test_a_run(native: ModuleType, run: Any, shape: Any, universe: Any) -> None:
    expected = outcome(reference_evaluator, run, shape, universe)
    assert outcome(native, run, shape, universe) == expected


@pytest.mark.parametrize("shape", SHAPES.values(), ids=SHAPES.keys())
def test_the_buffer_of_a_context(native: ModuleType, shape: Any) -> None:
    def made(evaluator: ModuleType) -> Any:
        try:
            context = make_context(
                evaluator,
                {"a": Feature(shape)},
                useful_signals=make_pool("xy", 4, 3),
                validate_inputs=False,
            )
        except Exception as error:  # noqa: BLE001 - compared with the other evaluator's
            return type(error), str(error)
        return context.extraction_buffer.shape

    assert made(native) == made(reference_evaluator)


def test_a_leaf_needs_no_integers(evaluator: ModuleType) -> None:
    """Nothing but the mask is made from the sizes, and here is one already."""
    context = make_context(
        evaluator, {"a": Feature(("some", "more"))}, universe_mask=1, validate_inputs=False
    )
    np.testing.assert_array_equal(evaluator.evaluate(feature("a"), context).weights, MATRIX)
