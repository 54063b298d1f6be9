"""Foreign code that runs inside a row where no function is called, and what it changes there."""

from __future__ import annotations

import sys
from collections.abc import Callable, Iterator
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import FunctionExecutionError
from support.functions import RecordingFunction
from support.graphs import feature, filtration, integer, node, reduction, rotation
from support.pools import make_pool
from support.runs import make_context

SHAPE = (3, 2)


class Host:
    """A run of one function over nodes between two leaves; each call's arguments are kept."""

    def __init__(self, evaluator: ModuleType, between: Any, **options: Any) -> None:
        self.evaluator = evaluator
        self.graph = rotation("f", feature("a"), between, feature("a"))
        self.context = make_context(
            evaluator, {"a": np.ones(SHAPE)}, universe=np.ones(SHAPE), **options
        )
        self.rows: list[list[list[float]]] = []

    def empty_universe(self) -> None:
        self.context.universe = np.zeros(SHAPE)

    def last_leaf_of_first_row(self) -> list[float]:
        def keep(*rows: np.ndarray) -> float:
            self.rows.append([row.tolist() for row in rows])
            return 0.0

        instances = {"root": RecordingFunction(keep)}
        self.evaluator.evaluate(self.graph, self.context, bound_function_instances=instances)
        return self.rows[0][-1]


def literal(evaluator: ModuleType) -> Host:
    class Literal:
        def __float__(self) -> float:
            host.empty_universe()
            return 1.0

    host = Host(evaluator, integer(Literal()))
    return host


def precomputed(evaluator: ModuleType) -> Host:
    class Stored:
        def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
            host.empty_universe()
            return np.ones(SHAPE[1])

    host = Host(evaluator, feature("a", canonical_id="id"))
    host.context._precomputed_node_outputs = {"id": Stored()}
    return host


def membership(evaluator: ModuleType) -> Host:
    class Outputs(dict):
        def __contains__(self, key: object) -> bool:
            host.empty_universe()
            return False

    host = Host(evaluator, feature("a", canonical_id="id"))
    host.context._precomputed_node_outputs = Outputs()
    return host


def filter_library(evaluator: ModuleType) -> Host:
    class Filtration:
        def __init__(self, tree: Any, registry: Any) -> None:
            pass

        def __call__(self, pool: Any) -> list[str]:
            host.empty_universe()
            return ["a"]

    host = Host(evaluator, filtration("x"), useful_signals=make_pool("ab", *SHAPE))
    host.evaluator.FiltrationInstance = Filtration
    return host


def node_kind(evaluator: ModuleType) -> Host:
    class Kind(str):
        def __eq__(self, other: object) -> bool:
            if host.rows or host.context.current_day_index == 0:
                host.empty_universe()
            return str.__eq__(self, other)

        __hash__ = str.__hash__

    host = Host(evaluator, node(Kind("int"), 3))
    host.context.current_day_index = -1
    return host


@pytest.mark.parametrize("host_of", [literal, precomputed, membership, filter_library, node_kind])
def test_a_universe_that_is_replaced_between_two_leaves(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, host_of: Callable[[ModuleType], Host]
) -> None:
    monkeypatch.setattr(evaluator, "FiltrationInstance", evaluator.FiltrationInstance)
    np.testing.assert_array_equal(host_of(evaluator).last_leaf_of_first_row(), [np.nan, np.nan])


def blocks_of(evaluator: ModuleType, context: Any) -> list[list[list[float]]]:
    blocks: list[list[list[float]]] = []

    def keep(block: np.ndarray, **_: Any) -> float:
        blocks.append(block.tolist())
        return 0.0

    instances = {"root": RecordingFunction(keep, stateful=True)}
    evaluator.evaluate(reduction("f"), context, bound_function_instances=instances)
    return blocks


def test_signals_that_are_replaced_by_one_of_them(evaluator: ModuleType) -> None:
    class Signal:
        pnl = None

        def __init__(self, value: float) -> None:
            self.value = value

        @property
        def weights(self) -> np.ndarray:
            context.useful_signals = {"a": Signal(10.0), "b": Signal(20.0)}
            return np.full(SHAPE, self.value)

    context = make_context(
        evaluator,
        {"a": np.ones(SHAPE)},
        useful_signals={"a": Signal(1.0), "b": Signal(2.0)},
        validate_inputs=False,
    )
    assert blocks_of(evaluator, context)[0] == [[1.0, 1.0], [20.0, 20.0]]


def test_signals_that_are_replaced_by_their_mapping(evaluator: ModuleType) -> None:
    class Pool(dict):
        def __getitem__(self, key: str) -> Any:
            context.useful_signals = others
            return dict.__getitem__(self, key)

    own, others = make_pool("ab", *SHAPE), make_pool("cdab", *SHAPE)
    context = make_context(
        evaluator, {"a": np.ones(SHAPE)}, useful_signals=Pool(own), validate_inputs=False
    )
    first = blocks_of(evaluator, context)[0]
    assert first == [own["a"].weights[0].tolist(), others["b"].weights[0].tolist()]


# --- registers that lose their form --------------------------------------------------------------


def flatten(base: np.ndarray) -> None:
    base.shape = (base.size,)


def shrink(base: np.ndarray) -> None:
    base.resize((1, 1), refcheck=False)


@pytest.mark.parametrize("spoil", [flatten, shrink])
def test_registers_spoilt_by_a_precomputed_output(
    evaluator: ModuleType, spoil: Callable[[np.ndarray], None]
) -> None:
    kept: list[np.ndarray] = []

    class Stored:
        def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
            if kept:
                spoil(kept[0].base)
            return np.arange(4.0)

    context = make_context(evaluator, {"a": np.ones((3, 4))})
    context._precomputed_node_outputs = {"id": Stored()}
    instances = {
        "root.c0": RecordingFunction(lambda row: (kept.append(row), 0.0)[1]),
        "root": RecordingFunction(lambda *rows: 0.0),
    }
    graph = rotation("h", rotation("f", feature("a")), feature("a", canonical_id="id"))
    if evaluator.__name__ == "reference_evaluator" and spoil is shrink:
        pytest.skip("NumPy itself reads what was freed")
    with pytest.raises((RuntimeError, IndexError, ValueError)):
        evaluator.evaluate(graph, context, bound_function_instances=instances)


def test_registers_spoilt_between_two_rows(evaluator: ModuleType) -> None:
    kept: list[np.ndarray] = []

    class Context(evaluator.EvaluationContext):
        def __setattr__(self, name: str, value: Any) -> None:
            if name == "current_day_index" and kept:
                flatten(kept[0].base)
            super().__setattr__(name, value)

    context = Context((np.ones((3, 4)),), {"a": 0})
    instances = {"root": RecordingFunction(lambda row: (kept.append(row), 0.0)[1])}
    with pytest.raises((RuntimeError, IndexError, ValueError)):
        evaluator.evaluate(rotation("f", feature("a")), context, bound_function_instances=instances)


# --- the exception being handled -----------------------------------------------------------------


def test_a_failure_inside_a_generator_leaves_its_caller_s_exception_alone(
    evaluator: ModuleType,
) -> None:
    def fail(*_: Any) -> Any:
        raise RuntimeError("inner")

    context = make_context(evaluator, {"a": np.ones(SHAPE)})

    def handled() -> Iterator[BaseException | None]:
        instances = {"root": RecordingFunction(fail)}
        with pytest.raises(FunctionExecutionError):
            evaluator.evaluate(
                rotation("f", feature("a")), context, bound_function_instances=instances
            )
        yield sys.exc_info()[1]
        yield sys.exc_info()[1]

    generator = handled()
    outer = ValueError("outer")
    try:
        raise outer
    except ValueError:
        assert next(generator) is outer
    assert next(generator) is None
