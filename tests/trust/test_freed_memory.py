"""Foreign code that frees what a run is about to read or to write: nothing freed is touched."""

from __future__ import annotations

import weakref
from collections.abc import Callable
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import FunctionExecutionError, UsefulSignal
from support.functions import RecordingFunction
from support.graphs import feature, integer, number, reduction, rotation
from support.odd_keys import clear_type_cache, odd_class, put_in_front
from support.pools import make_pool
from support.registries import RecordingRegistry
from support.runs import make_context, same_bits

SHAPE = (5, 64)
MATRIX = np.arange(320.0).reshape(SHAPE)


def fill_again() -> list[Any]:
    """Objects in the places of those that were just freed."""
    return [{f"{place}": object()} for place in range(50)]


# --- dictionaries that are replaced during a look-up ---------------------------------------------


@pytest.mark.parametrize("name", ["type", "node", "children", "config", "canonical_id"])
def test_a_node_whose_dictionary_is_replaced(evaluator: ModuleType, name: str) -> None:
    leaf = feature("a")
    graph = rotation("f", leaf, integer(2))

    def replace() -> None:
        for node in (leaf, graph):
            kept = {key: value for key, value in vars(node).items() if type(key) is str}
            node.__dict__ = kept
        fill_again()

    for node in (leaf, graph):
        put_in_front(node, name, replace)
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    result = evaluator.evaluate(graph, make_context(evaluator, {"a": MATRIX}, registry=registry))
    same_bits(result.weights, MATRIX)


@pytest.mark.parametrize("name", ["weights", "pnl"])
def test_a_signal_whose_dictionary_is_replaced(evaluator: ModuleType, name: str) -> None:
    pool = make_pool("abc", *SHAPE)
    expected = sum(signal.weights for signal in pool.values()) / 3

    def replacer(signal: Any) -> Callable[[], None]:
        def replace() -> None:
            signal.__dict__ = {
                key: np.array(value, copy=True) if isinstance(value, np.ndarray) else value
                for key, value in list(signal.__dict__.items())
            }
            fill_again()

        return replace

    for signal in pool.values():
        put_in_front(signal, name, replacer(signal))
    context = make_context(
        evaluator,
        {"a": MATRIX},
        useful_signals=pool,
        registry=RecordingRegistry(factories={"mean": RecordingFunction()}),
    )
    same_bits(evaluator.evaluate(reduction("mean"), context).weights, expected)


@pytest.mark.parametrize("name", ["universe", "useful_signals", "registry", "features"])
def test_a_context_whose_dictionary_is_replaced(evaluator: ModuleType, name: str) -> None:
    pool = make_pool("ab", *SHAPE)
    context = make_context(
        evaluator,
        {"a": MATRIX},
        useful_signals=pool,
        universe=np.ones(SHAPE),
        registry=RecordingRegistry(
            factories={"mean": RecordingFunction(), "f": RecordingFunction()}
        ),
    )

    def replace() -> None:
        copied = dict(context.__dict__)
        copied["universe"] = np.ones(SHAPE)
        copied["useful_signals"] = dict(pool)
        context.__dict__ = copied
        fill_again()

    put_in_front(context, name, replace)
    result = evaluator.evaluate(rotation("f", feature("a"), reduction("mean")), context)
    same_bits(result.weights, MATRIX)


@pytest.mark.parametrize("name", ["weights", "pnl"])
def test_a_pool_that_is_emptied_by_a_class(evaluator: ModuleType, name: str) -> None:
    """The pool and the signals in it go away while the class of the first is asked."""
    pool: dict[str, Any] = {}

    def empty() -> None:
        pool.clear()
        fill_again()

    kind = odd_class(UsefulSignal, name, empty)
    pool.update(
        (id, kind(np.full(SHAPE, value), np.full((SHAPE[0], 2), value)))
        for id, value in (("x", 1.0), ("y", 2.0))
    )
    clear_type_cache()
    stateful = RecordingFunction(lambda block, **_: block[0].copy(), stateful=True)
    context = make_context(
        evaluator,
        {"a": MATRIX},
        useful_signals=pool,
        column_labels=["gross_returns", "net"],
        registry=RecordingRegistry(factories={"sum": stateful}),
        validate_inputs=False,
    )
    # The second signal is missed at once, or all of them in the next row.
    with pytest.raises((KeyError, FunctionExecutionError)):
        evaluator.evaluate(reduction("sum"), context)
    assert pool == {}


# --- registers that are taken away ---------------------------------------------------------------


class Taker:
    """Learns the block behind the views, and frees it when it is told to.

    Another run takes the memory at once; its weights must stay as they are.
    """

    def __init__(self, evaluator: ModuleType) -> None:
        self.evaluator = evaluator
        self.base: Any = None
        self.others: list[np.ndarray] = []
        self.size = 0

    def learn(self, row: np.ndarray, *_: Any) -> float:
        self.base = row.base
        clear_type_cache()
        return 1.0

    def take(self) -> None:
        if self.base is None or self.others:
            return
        rows = self.base.shape[0]
        self.base.resize((1, 1), refcheck=False)
        for _ in range(3):
            context = make_context(self.evaluator, {"b": np.full((rows, SHAPE[1]), 7.0)})
            result = self.evaluator.evaluate(number(7.0), context, data_nan_features=["none"])
            self.others.append(result.weights)

    def run(self, moment: Any, bound: dict[str, Any] | None = None, context: Any = None) -> None:
        """A function that learns of the block, then the moment, then more that uses it."""
        graph = rotation("f", rotation("learn", feature("a")), moment, feature("a"), number(2.0))
        instances = {"root": RecordingFunction(), "root.c0": RecordingFunction(self.learn)}
        if context is None:
            context = make_context(self.evaluator, {"a": MATRIX})
        context._collect_node_outputs = True
        with pytest.raises((RuntimeError, FunctionExecutionError)):
            self.evaluator.evaluate(
                graph, context, bound_function_instances={**instances, **(bound or {})}
            )
        assert self.others, "the block was never taken away"
        for weights in self.others:
            np.testing.assert_array_equal(weights, 7.0)


@pytest.fixture
def taker(evaluator: ModuleType) -> Taker:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("the array library itself reads the freed memory there")
    return Taker(evaluator)


class Row(np.ndarray):
    """A row whose end frees the registers."""

    taker: Any = None

    def __del__(self) -> None:
        if self.taker is not None:
            self.taker.take()

    def __array_finalize__(self, source: Any) -> None:
        self.taker = getattr(source, "taker", None)


def odd_matrix(taker: Taker) -> np.ndarray:
    matrix = MATRIX.view(Row)
    matrix.taker = taker
    return matrix


def test_at_an_odd_key_of_the_context(evaluator: ModuleType, taker: Taker) -> None:
    context = make_context(evaluator, {"a": MATRIX})
    put_in_front(context, "universe", taker.take)
    taker.run(feature("a"), context=context)


def test_at_an_odd_key_of_the_contexts_class(evaluator: ModuleType, taker: Taker) -> None:
    kind = odd_class(evaluator.EvaluationContext, "universe", taker.take)
    context = kind((MATRIX,), {"a": 0})
    clear_type_cache()
    taker.run(feature("a"), context=context)


def test_at_the_end_of_a_leafs_row(evaluator: ModuleType, taker: Taker) -> None:
    context = make_context(evaluator, {"a": MATRIX, "odd": odd_matrix(taker)})
    taker.run(feature("odd"), context=context)


def test_at_the_end_of_the_universe(evaluator: ModuleType, taker: Taker) -> None:
    class Context(evaluator.EvaluationContext):  # type: ignore[name-defined,misc]
        @property
        def universe(self) -> Any:
            # Nobody else holds it.
            return odd_matrix(taker) + 1.0

        @universe.setter
        def universe(self, value: Any) -> None:
            pass

    context = Context((MATRIX,), {"a": 0}, universe_mask=np.ones(SHAPE), validate_inputs=False)
    taker.run(feature("a"), context=context)


def test_at_the_end_of_a_precomputed_output(evaluator: ModuleType, taker: Taker) -> None:
    class Outputs(dict):
        def __getitem__(self, key: str) -> Any:
            return odd_matrix(taker)[0]

    context = make_context(evaluator, {"a": MATRIX})
    context._precomputed_node_outputs = Outputs(id=None)
    taker.run(feature("a", canonical_id="id"), context=context)


def test_at_the_end_of_a_result(taker: Taker) -> None:
    def act(*_: Any) -> Any:
        return odd_matrix(taker)[0]

    taker.run(rotation("g", feature("a")), {"root.c1": RecordingFunction(act)})


def test_at_the_conversion_of_a_result(taker: Taker) -> None:
    class Result:
        def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
            taker.take()
            return MATRIX[0]

    taker.run(rotation("g", feature("a")), {"root.c1": RecordingFunction(lambda _: Result())})


def test_at_a_classs_getattr(taker: Taker) -> None:
    class Function:
        def __call__(self, *rows: Any) -> float:
            return 1.0

        def __getattr__(self, name: str) -> Any:
            if name == "arity":
                taker.take()
            raise AttributeError(name)

    taker.run(rotation("g", feature("a"), integer(2)), {"root.c1": Function()})


def test_at_a_look_up_of_the_call(taker: Taker) -> None:
    kind = odd_class(RecordingFunction, "__call__", taker.take)
    instance = kind()
    clear_type_cache()
    taker.run(rotation("g", feature("a")), {"root.c1": instance})


def test_at_the_end_of_an_arguments_dtype(taker: Taker) -> None:
    """An argument whose form the function changed goes away with what hangs on it."""

    class Tag:
        def __del__(self) -> None:
            taker.take()

    class Function:
        def __call__(self, first: np.ndarray, second: np.ndarray) -> float:
            second.dtype = np.dtype(np.float64, metadata={"tag": Tag()})
            return 1.0

    taker.run(rotation("g", feature("a"), feature("a")), {"root.c1": Function()})


def test_at_the_callback_of_an_argument(taker: Taker) -> None:
    references: list[Any] = []

    def act(row: np.ndarray) -> float:
        references.append(weakref.ref(row, lambda _: taker.take()))
        return 1.0

    class Function:
        def __call__(self, row: np.ndarray) -> float:
            return act(row)

    taker.run(rotation("g", feature("a")), {"root.c1": Function()})


def test_at_an_odd_kind(taker: Taker) -> None:
    class Kind(str):
        def __eq__(self, other: object) -> bool:
            taker.take()
            return str.__eq__(self, other)

        __hash__ = str.__hash__

    moment = feature("a")
    moment.type = Kind("feature")
    taker.run(moment)


# --- an extraction buffer that is taken away ------------------------------------------------------


@pytest.mark.parametrize("is_stateful", [True, False])
def test_an_extraction_buffer_that_a_property_resizes(
    evaluator: ModuleType, taker: Taker, is_stateful: bool
) -> None:
    """Between the making of the block and its use the instance is asked whether it is stateful."""

    class Learning(RecordingFunction):
        def __call__(self, block: Any, **_: Any) -> Any:
            taker.base = block.base
            return block[0].copy()

    class Resizing(RecordingFunction):
        asked = 0

        @property
        def stateful(self) -> bool:
            self.asked += 1
            if taker.base is not None and self.asked % 2 == 0:
                taker.base.resize((1, 1), refcheck=False)
            return is_stateful

        @stateful.setter
        def stateful(self, value: Any) -> None:
            pass

    context = make_context(
        evaluator, {"a": MATRIX}, useful_signals=make_pool("abc", *SHAPE), validate_inputs=False
    )
    graph = rotation("f", reduction("learn"), reduction("resize"))
    bound = {
        "root": RecordingFunction(),
        "root.c0": Learning(stateful=True),
        "root.c1": Resizing(lambda block, **_: block[0].copy()),
    }
    with pytest.raises(FunctionExecutionError, match="memory of the run's extraction buffer"):
        evaluator.evaluate(graph, context, bound_function_instances=bound)
