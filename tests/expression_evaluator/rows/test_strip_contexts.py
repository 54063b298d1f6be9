"""Contexts of other classes meet functions that opted in."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.contexts import look_alike
from support.graphs import feature, number, rotation
from support.guise_runs import bits, make_instance
from support.runs import counting_matrix


@pytest.mark.parametrize("guise", ["kernel", "block"])
@pytest.mark.parametrize("slots", [False, True])
def test_contexts_of_other_classes(evaluator, guise, slots):
    graph = rotation("running", feature("x"), number(0.5))
    attributes = vars(
        look_alike(features=(counting_matrix(5, 2),), registry=None, metaparameters={})
    )
    names = [*attributes, "registers", "current_day_index"]
    kind: Any = type("Odd", (), {"__slots__": names} if slots else {})

    def observe(guise: str) -> Any:
        context = kind()
        for name, value in attributes.items():
            setattr(context, name, value)
        instance = make_instance("running", guise)
        result = evaluator.evaluate(graph, context, bound_function_instances={"root": instance})
        left = bits(context.registers), context.current_day_index
        return bits(result.weights), result.states, left

    assert observe(guise) == observe("plain")


class Watching:
    """A context that is told of every day, and hands out what it likes."""

    def __init__(self, inner: Any) -> None:
        vars(self).update(inner=inner, days=[])

    def __getattr__(self, name: str) -> Any:
        return getattr(self.inner, name)

    def __setattr__(self, name: str, value: Any) -> None:
        if name == "current_day_index":
            self.days.append(value)
        setattr(self.inner, name, value)


@pytest.mark.parametrize("guise", ["plain", "kernel", "block"])
def test_a_context_that_watches_sees_every_day(evaluator, guise):
    context = Watching(
        look_alike(features=(counting_matrix(5, 2),), registry=None, metaparameters={})
    )
    evaluator.evaluate(
        rotation("running", feature("x")),
        context,
        bound_function_instances={"root": make_instance("running", guise)},
    )
    assert context.days == [0, 1, 2, 3, 4]


class PropertyContext:
    """Its universe, features and day are computed."""

    def __init__(self, inner: Any) -> None:
        self.inner = inner
        self.reads = 0
        self.day: Any = None

    def __getattr__(self, name: str) -> Any:
        return getattr(vars(self)["inner"], name)

    @property
    def universe(self) -> Any:
        self.reads += 1
        return np.full((5, 2), self.reads % 2, dtype=np.float64)

    @property
    def current_day_index(self) -> Any:
        return self.day

    @current_day_index.setter
    def current_day_index(self, value: Any) -> None:
        self.day = value


@pytest.mark.parametrize("guise", ["kernel", "block"])
def test_properties_of_a_context_are_read_as_ever(evaluator, guise):
    def observe(guise: str) -> Any:
        inner = look_alike(
            features=(counting_matrix(5, 2),),
            registry=None,
            metaparameters={},
            universe_mask=np.ones((5, 2)),
        )
        context = PropertyContext(inner)
        result = evaluator.evaluate(
            rotation("running", feature("x")),
            context,
            bound_function_instances={"root": make_instance("running", guise)},
        )
        return bits(result.weights), context.reads, context.day

    assert observe(guise) == observe("plain")
