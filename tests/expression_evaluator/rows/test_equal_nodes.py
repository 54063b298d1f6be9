"""Equal functions that are computed once: from strips, there is no way back to single rows."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.graphs import feature, rotation
from support.guise_runs import GuiseRegistry
from support.opted_in import KernelFunction
from support.runs import make_context, same_bits

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
SHAREABLE = 2
ROWS, COLUMNS = 9, 30_000  # more than two strips


class SharedRegistry(GuiseRegistry):
    """Its instances may stand for each other."""

    def _make(self, name: str, memory: Any) -> Any:
        instance = super()._make(name, memory)
        if isinstance(instance, KernelFunction):
            instance.structure.flags |= SHAREABLE
        return instance


GRAPH = rotation(
    "total",
    rotation("running", feature("a")),
    rotation("total.other", rotation("running", feature("a")), rotation("running", feature("b"))),
)
ALL = {"total": "kernel", "total.other": "kernel", "running": "kernel"}


def run(evaluator: Any, guises: dict[str, str], features: Any, meddle: Any = None) -> Any:
    registry = SharedRegistry(guises)
    context = make_context(evaluator, features, registry=registry, validate_inputs=False)
    if meddle is not None:
        make = registry._make

        def made(name: str, memory: Any) -> Any:
            instance = make(name, memory)
            step = instance.step
            instance.step = lambda memory, *rows: (meddle(context), step(memory, *rows))[1]
            return instance

        registry._make = made  # type: ignore[method-assign]
    return evaluator.evaluate(GRAPH, context), registry.instances


def features_of(dtype: Any = np.float64) -> dict[str, Any]:
    random = np.random.default_rng(1)
    return {name: random.random((ROWS, COLUMNS)).astype(dtype) for name in "ab"}


@pytest.mark.parametrize("dtype", [np.float64, np.float32])
def test_one_instance_is_run_for_both(evaluator, dtype):
    result, instances = run(evaluator, ALL, features_of(dtype))
    expected, _ = run(evaluator, {}, features_of(dtype))
    same_bits(result.weights, expected.weights)
    assert list(result.states.items()) == list(expected.states.items())
    left, equal, other = (instance for instance in instances if instance.stateful)
    assert sum(left.calls) == sum(other.calls) == ROWS
    assert equal.calls == []


def lay_odd_universe(context: Any) -> None:
    context.universe = np.ones((ROWS, COLUMNS), dtype=np.int8)


def exchange_features(context: Any) -> None:
    context.features = [matrix.astype(object) for matrix in context.features]


@pytest.mark.parametrize("meddle", [lay_odd_universe, exchange_features])
def test_what_comes_in_between_is_not_looked_at(evaluator, meddle):
    """As another thread might: the equal node's own instance has not seen the rows before."""
    result, instances = run(evaluator, ALL, features_of(), meddle)
    expected, _ = run(evaluator, {}, features_of())
    same_bits(result.weights, expected.weights)
    assert [instance.calls == [] for instance in instances if instance.stateful] == [
        False,
        True,
        False,
    ]
