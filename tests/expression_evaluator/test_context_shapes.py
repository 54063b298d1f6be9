"""The shapes that a context validates."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationError, UsefulSignal
from support.runs import fails

MATRIX = np.zeros((3, 2))


def shaped(*shape: int) -> Any:
    """The validator looks at nothing but the shape."""
    return SimpleNamespace(shape=shape)


def signal(weights: Any = None, pnl: Any = None) -> UsefulSignal:
    return UsefulSignal(weights=weights, pnl=pnl)


FAULTS: list[tuple[str, Any, Any, Any, str]] = [
    (
        "lowest feature",
        (shaped(3, 2), shaped(3, 3), shaped(4, 2)),
        None,
        None,
        "Feature dimension mismatch: 'feature_0' shape (3, 2) vs 'feature_1' shape (3, 3)",
    ),
    (
        "second feature",
        [shaped(100, 5), shaped(100, 5), shaped(100)],
        None,
        None,
        "Feature dimension mismatch: 'feature_0' shape (100, 5) vs 'feature_2' shape (100,)",
    ),
    (
        "feature before universe",
        (shaped(3, 2), shaped(2, 3)),
        shaped(1, 1),
        None,
        "Feature dimension mismatch: 'feature_0' shape (3, 2) vs 'feature_1' shape (2, 3)",
    ),
    (
        "universe",
        (shaped(3, 2),),
        shaped(2),
        None,
        "Feature dimension mismatch: features shape (3, 2) vs universe shape (2,)",
    ),
    (
        "universe before signals",
        (shaped(3, 2),),
        shaped(),
        {"s": signal(shaped(1, 1))},
        "Feature dimension mismatch: features shape (3, 2) vs universe shape ()",
    ),
    (
        "list is no tuple",
        (shaped(3, 2),),
        SimpleNamespace(shape=[3, 2]),
        None,
        "Feature dimension mismatch: features shape (3, 2) vs universe shape [3, 2]",
    ),
    (
        "weights",
        (shaped(3, 2),),
        None,
        {"s": signal(shaped(3, 3))},
        "useful signal 's' weights shape (3, 3) does not match feature shape (3, 2)",
    ),
    (
        "weights before pnl",
        (shaped(3, 2),),
        None,
        {"s": signal(shaped(1, 2), shaped(4, 4))},
        "useful signal 's' weights shape (1, 2) does not match feature shape (3, 2)",
    ),
    (
        "pnl",
        (shaped(3, 2),),
        shaped(3, 2),
        {"s": signal(shaped(3, 2), shaped(4, 2))},
        "useful signal 's' pnl shape (4, 2) does not match feature shape (3, 2)",
    ),
    (
        "first signal first",
        (shaped(3, 2),),
        None,
        {"z": signal(None, shaped(2)), "a": signal(shaped(1, 1))},
        "useful signal 'z' pnl shape (2,) does not match feature shape (3, 2)",
    ),
]


@pytest.mark.parametrize(
    ("features", "universe", "signals", "text"),
    [fault[1:] for fault in FAULTS],
    ids=[fault[0] for fault in FAULTS],
)
def test_shape_faults(
    evaluator: ModuleType, features: Any, universe: Any, signals: Any, text: str
) -> None:
    with fails(EvaluationError, text):
        evaluator._validate_evaluation_shapes(features, universe, signals)
    with fails(EvaluationError, text):
        evaluator.EvaluationContext(features, {}, signals, None, universe)
    context = evaluator.EvaluationContext(
        features, {}, signals, None, universe, validate_inputs=False
    )
    assert context.universe is universe


@pytest.mark.parametrize(
    ("features", "universe", "signals"),
    [
        (None, object(), {"s": object()}),
        ((), object(), {"s": object()}),
        ([], shaped(1), None),
        ((shaped(3, 2), shaped(3, 2)), None, None),
        ((shaped(3, 2),), shaped(3, 2), {}),
        ((shaped(3, 2),), None, []),
        ((shaped(3, 2),), None, {"s": signal()}),
        ((shaped(3, 2),), None, {"s": signal(shaped(3, 2), shaped(3))}),
        ((shaped(3, 2),), None, {"s": signal(None, shaped(3, 7))}),
        ((shaped(3),), shaped(3), {"s": signal(shaped(3), shaped(3, 1, 1))}),
    ],
)
def test_shapes_that_fit(evaluator: ModuleType, features: Any, universe: Any, signals: Any) -> None:
    assert evaluator._validate_evaluation_shapes(features, universe, signals) is None


def test_features_may_be_one_array_of_matrices(evaluator: ModuleType) -> None:
    features = np.zeros((2, 3, 4))  # it has a length but no truth value
    context = evaluator.EvaluationContext(features, {"x": 1}, {"s": signal(features[0])})
    assert context.features is features
    assert context.extraction_buffer.shape == (1, 4)
    with pytest.raises(EvaluationError, match="universe shape"):
        evaluator._validate_evaluation_shapes(features, shaped(3, 3), None)


def test_dtype_and_content_are_not_looked_at(evaluator: ModuleType) -> None:
    features = (np.full((3, 2), "text"), np.full((3, 2), np.nan), np.zeros((3, 2), dtype="M8[s]"))
    assert evaluator._validate_evaluation_shapes(features, np.zeros((3, 2), bool), {}) is None


@pytest.mark.parametrize(
    ("features", "universe", "signals", "error"),
    [
        ((object(),), None, None, AttributeError),
        ((MATRIX,), object(), None, AttributeError),
        ((MATRIX,), [[1.0]], None, AttributeError),
        ((MATRIX,), None, {"s": object()}, AttributeError),
        ((MATRIX,), None, {"s": SimpleNamespace(weights=MATRIX)}, AttributeError),
        ((MATRIX,), None, {"s": signal(None, np.float64(1.0))}, IndexError),
        ((MATRIX,), None, [1], AttributeError),
        (5, None, None, TypeError),
        ({"x": MATRIX}, None, None, KeyError),
    ],
)
def test_what_has_no_shape_fails_by_itself(
    evaluator: ModuleType, features: Any, universe: Any, signals: Any, error: type[Exception]
) -> None:
    with pytest.raises(error) as caught:
        evaluator._validate_evaluation_shapes(features, universe, signals)
    assert type(caught.value) is error
