"""What doesn't fit into memory is told with its size and shape, as the array library tells it."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from support.functions import RecordingFunction
from support.graphs import feature, number, rotation
from support.pools import make_pool
from support.runs import make_context

MANY = 10**14
TEXT = r"^Unable to allocate .* [TP]iB for an array with shape {} and data type {}$"


class Feature:
    """Has the shape that it says."""

    def __init__(self, shape: tuple[int, int]) -> None:
        self.shape = shape


def fails_with(shape: str, kind: str = "float64") -> Any:
    text = TEXT.format(shape.replace("(", r"\(").replace(")", r"\)"), kind)
    return pytest.raises(MemoryError, match=text)


def context_of(evaluator: ModuleType, shape: tuple[int, int], **options: Any) -> Any:
    return make_context(
        evaluator, {"a": Feature(shape)}, universe_mask=1, validate_inputs=False, **options
    )


def test_the_mask(evaluator: ModuleType) -> None:
    context = context_of(evaluator, (MANY, 2))
    context.universe_mask = None
    with fails_with(f"({MANY}, 2)", "uint8"):
        evaluator.evaluate(number(1.0), context)


def test_the_registers(evaluator: ModuleType) -> None:
    with fails_with(f"(2, {MANY})"):
        evaluator.evaluate(
            rotation("f", number(1.0)),
            context_of(evaluator, (2, MANY)),
            bound_function_instances={"root": RecordingFunction()},
        )


def test_the_weights(evaluator: ModuleType) -> None:
    with fails_with(f"({MANY}, 2)"):
        evaluator.evaluate(number(1.0), context_of(evaluator, (MANY, 2)))


def test_the_extraction_buffer(evaluator: ModuleType) -> None:
    with fails_with(f"(3, {MANY})"):
        context_of(evaluator, (2, MANY), useful_signals=make_pool("abc", 2, 2))


@pytest.mark.parametrize("name", ["longitudinal_mean", "longitudinal_zscore"])
def test_a_rolling_statistic(evaluator: ModuleType, name: str) -> None:
    column = np.broadcast_to(1.0, (10**7, 10**7))
    window = 10**8
    with fails_with("(10000000, 10000000)"):
        evaluator._rolling_longitudinal_fast(column, window, name)


def test_a_rank(evaluator: ModuleType) -> None:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("it runs out of memory at an array of its own")
    context = evaluator.EvaluationContext((np.broadcast_to(1.0, (10**7, 10**7)),), {"a": 0})
    with fails_with("(10000000, 10000000)"):
        evaluator._evaluate_simple_rank_fast(rotation("latitudinal_rank", feature("a")), context)
