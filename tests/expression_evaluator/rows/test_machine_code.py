"""Kernels compiled from C: they run without the interpreter's lock."""

from __future__ import annotations

import signal
import threading
from collections.abc import Iterator
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import FunctionExecutionError
from support.c_kernels import CFunction
from support.graphs import feature, number, rotation
from support.runs import make_context, same_bits

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
A, B = feature("a"), feature("b")


def context_of(evaluator: Any, rows: int, columns: int) -> Any:
    random = np.random.default_rng(rows * columns)
    return make_context(evaluator, {name: random.normal(size=(rows, columns)) for name in "ab"})


@pytest.mark.parametrize("shape", [(5, 3), (50, 2_000), (3, 70_000)], ids=str)
def test_a_chain_of_kernels(evaluator, shape):
    context = context_of(evaluator, *shape)
    graph: Any = A
    bound: dict[str, Any] = {}
    expected = context.features[0]
    for level in range(20):
        graph = rotation("add", graph, B)
        bound["root" + ".c0" * level] = CFunction("add")
        expected = expected + context.features[1]
    result = evaluator.evaluate(graph, context, bound_function_instances=bound)
    same_bits(result.weights, expected)


@pytest.mark.parametrize("columns", [3, 20_000])
@pytest.mark.parametrize("universe", [False, True])
def test_states(evaluator, columns, universe):
    context = context_of(evaluator, 9, columns)
    if universe:
        context.universe = np.ones((9, columns))
    state = np.zeros(columns + 1)
    sums = CFunction("running_sum", state)
    graph = rotation("add", rotation("sum", A), number(0.5))
    bound = {"root": CFunction("add"), "root.c0": sums}
    result = evaluator.evaluate(graph, context, bound_function_instances=bound)
    expected = np.zeros(columns)
    for row, values in enumerate(context.features[0]):
        expected = expected + values
        same_bits(result.weights[row], expected + 0.5)
    assert result.states["root.c0"]["count"] == 9
    assert state[1:].tolist() == expected.tolist()


@pytest.mark.parametrize("row", range(6))
def test_failures(evaluator, row):
    context = context_of(evaluator, 6, 4)
    context.features[0][row, 0] = np.inf
    graph = rotation("sum", A)
    with pytest.raises(FunctionExecutionError) as caught:
        evaluator.evaluate(
            graph,
            context,
            bound_function_instances={"root": CFunction("running_sum", np.zeros(5))},
        )
    assert str(caught.value) == f"Function 'sum' failed at row {row}: infinity in the first column"
    assert type(caught.value.__cause__) is OverflowError


class Interrupted(Exception):
    pass


@pytest.fixture
def interruptible() -> Iterator[None]:
    def interrupt(*_: Any) -> None:
        raise Interrupted

    before = signal.signal(signal.SIGUSR1, interrupt)
    yield
    signal.signal(signal.SIGUSR1, before)


@pytest.mark.usefixtures("interruptible")
@pytest.mark.parametrize("promise", [False, True])
def test_a_signal_ends_the_run_after_its_strip(evaluator, promise):
    rows, columns = 400, 20_000
    seen = np.zeros(1)
    matrix = np.broadcast_to(np.ones((1, columns)), (rows, columns)).copy()
    matrix[40, 0] = -1.0
    context = make_context(evaluator, {"a": matrix})
    graph = rotation("signalling", A)
    bound: dict[str, Any] = {"root": CFunction("signalling", seen)}
    if promise:
        graph = rotation("plain", graph)
        bound = {"root": np.negative, "root.c0": CFunction("signalling", seen)}
        bound["root"] = Negative()
        context._reads_rows_ahead = True
    with pytest.raises(Interrupted):
        evaluator.evaluate(graph, context, bound_function_instances=bound)
    assert 41 <= seen[0] < 100
    assert context.current_day_index < 100


class Negative:
    arity = 1
    stateful = False

    def __call__(self, row: np.ndarray, context: Any = None) -> np.ndarray:
        return -row


def test_other_threads_run_while_kernels_do(evaluator):
    """The kernel waits for a number that another thread of Python sets."""
    flag = np.zeros(1)
    is_over = threading.Event()

    def watch() -> None:
        while not is_over.wait(0.01):
            flag[0] = 1.0

    context = context_of(evaluator, 20, 5_000)
    watcher = threading.Thread(target=watch)
    function = CFunction("waiting", flag)
    watcher.start()
    try:
        result = evaluator.evaluate(
            rotation("waiting", A), context, bound_function_instances={"root": function}
        )
    finally:
        is_over.set()
        watcher.join()
    same_bits(result.weights, context.features[0])


def test_threads_with_contexts_of_their_own(evaluator):
    results: dict[int, np.ndarray] = {}
    contexts = {number: context_of(evaluator, 60 + number, 3_000) for number in range(4)}

    def work(number: int) -> None:
        context = contexts[number]
        for _ in range(5):
            bound = {
                "root": CFunction("add"),
                "root.c0": CFunction("running_sum", np.zeros(3_001)),
            }
            graph = rotation("add", rotation("sum", A), B)
            results[number] = evaluator.evaluate(
                graph, context, bound_function_instances=bound
            ).weights

    threads = [threading.Thread(target=work, args=(number,)) for number in contexts]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(results) == 4
    for place, context in contexts.items():
        a, b = context.features
        same_bits(results[place], np.cumsum(a, axis=0) + b)
