"""The public classes are what class statements would make them."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import numpy as np
import pytest

CLASSES = ["EvaluationContext", "EvaluationResult", "FunctionState"]


def instance_of(evaluator: ModuleType, name: str, kind: Any = None) -> Any:
    arguments: dict[str, tuple[Any, ...]] = {
        "EvaluationContext": ((np.zeros((1, 1)),), {"a": 0}),
        "EvaluationResult": (np.zeros((1, 1)), {}),
        "FunctionState": ("f",),
    }
    return (kind or getattr(evaluator, name))(*arguments[name])


@pytest.mark.parametrize(
    ("act", "text"),
    [
        (
            lambda module: module.EvaluationContext(),
            "EvaluationContext.__init__() missing 2 required positional arguments: "
            "'features' and 'feature_index'",
        ),
        (
            lambda module: module.EvaluationContext(()),
            "EvaluationContext.__init__() missing 1 required positional argument: 'feature_index'",
        ),
        (
            lambda module: module.EvaluationContext(*range(18)),
            "EvaluationContext.__init__() takes from 3 to 18 positional arguments but 19 were given",
        ),
        (
            lambda module: module.EvaluationContext((), {}, useful=1),
            "EvaluationContext.__init__() got an unexpected keyword argument 'useful'",
        ),
        (
            lambda module: module.EvaluationContext((), {}, features=()),
            "EvaluationContext.__init__() got multiple values for argument 'features'",
        ),
        (
            lambda module: module.EvaluationResult(1),
            "EvaluationResult.__init__() missing 1 required positional argument: 'states'",
        ),
        (
            lambda module: module.EvaluationResult(1, 2).__array__(None, None),
            "EvaluationResult.__array__() takes from 1 to 2 positional arguments but 3 were given",
        ),
        (
            lambda module: module.EvaluationResult(1, 2).__len__(1),
            "EvaluationResult.__len__() takes 1 positional argument but 2 were given",
        ),
        (
            lambda module: module.FunctionState("f").to_bytes(1),
            "FunctionState.to_bytes() takes 1 positional argument but 2 were given",
        ),
        (
            lambda module: module.FunctionState.from_bytes(),
            "FunctionState.from_bytes() missing 1 required positional argument: 'data'",
        ),
        (lambda module: hash(module.FunctionState("f")), "unhashable type: 'FunctionState'"),
        (
            lambda module: module.evaluate(),
            "evaluate() missing 2 required positional arguments: 'graph' and 'context'",
        ),
        (
            lambda module: module.evaluate(1, 2, 3, 4, 5),
            "evaluate() takes from 2 to 4 positional arguments but 5 were given",
        ),
    ],
)
def test_the_messages_name_classes_and_counts(
    evaluator: ModuleType, act: Callable[[ModuleType], Any], text: str
) -> None:
    with pytest.raises(TypeError) as caught:
        act(evaluator)
    assert str(caught.value) == text


@pytest.mark.parametrize("name", ["EvaluationContext", "FunctionState"])
def test_a_missing_attribute(evaluator: ModuleType, name: str) -> None:
    with pytest.raises(AttributeError) as caught:
        instance_of(evaluator, name).no_such_name  # noqa: B018
    assert str(caught.value) == f"'{name}' object has no attribute 'no_such_name'"


@pytest.mark.parametrize("name", CLASSES)
@pytest.mark.parametrize("first", [True, False])
@pytest.mark.parametrize(
    "other", [type("Slots", (), {"__slots__": ("more",)}), dict, Exception, type("Plain", (), {})]
)
def test_classes_combine_with_others(
    evaluator: ModuleType, name: str, first: bool, other: type
) -> None:
    own = getattr(evaluator, name)
    kind = type("Both", (own, other) if first else (other, own), {"__init__": own.__init__})
    both = instance_of(evaluator, name, kind)
    assert isinstance(both, own)
    assert isinstance(both, other)
    assert vars(both).keys() == vars(instance_of(evaluator, name)).keys()
