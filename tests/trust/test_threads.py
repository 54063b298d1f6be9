"""Many threads at once: nothing hangs, nothing is torn, and other threads go on meanwhile."""

from __future__ import annotations

import pickle
import threading
import time
from collections.abc import Callable
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from support.children import run_child
from support.graphs import feature, integer, rotation
from support.leak_roads import STUBS, Function
from support.runs import counting_matrix, make_context

THREADS = 8
RUNS = 25
ROWS = 20


def in_threads(*works: Callable[[], None]) -> None:
    """Starts all at the same moment; a thread that hangs or fails fails the test."""
    together = threading.Barrier(len(works))
    failures: list[BaseException] = []

    def attempt(work: Callable[[], None]) -> None:
        try:
            together.wait(timeout=600)
            work()
        except BaseException as failure:  # noqa: BLE001 - a thread must report everything
            failures.append(failure)

    threads = [threading.Thread(target=attempt, args=(work,), daemon=True) for work in works]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=600)
    assert not any(thread.is_alive() for thread in threads), "a thread hangs"
    assert failures == []


def graph_of() -> Any:
    return rotation("f", rotation("f", feature("a")), feature("a"))


def bound() -> dict[str, Any]:
    # A function that lets others in while it works.
    def add_one(row: np.ndarray, *_: Any) -> np.ndarray:
        time.sleep(0)
        return row + 1.0

    return {"root": Function(add_one), "root.c0": Function(add_one)}


def checked_run(evaluator: ModuleType, graph: Any, context: Any, start: float) -> None:
    result = evaluator.evaluate(graph, context, bound_function_instances=bound())
    matrix = counting_matrix(ROWS, start=start)
    np.testing.assert_array_equal(result.weights, matrix + 2.0)
    np.testing.assert_array_equal(result.node_outputs["root.c0"], matrix + 1.0)


def repeated(work: Callable[..., None], *arguments: Any) -> Callable[[], None]:
    def run() -> None:
        for _ in range(RUNS):
            work(*arguments)

    return run


def test_one_context(evaluator: ModuleType) -> None:
    context = make_context(evaluator, {"a": counting_matrix(ROWS)})
    in_threads(*[repeated(checked_run, evaluator, graph_of(), context, 1.0)] * THREADS)


def test_one_graph_on_a_context_for_each_thread(evaluator: ModuleType) -> None:
    """The threads share the record on the graph, and one of them takes it away again and again."""
    graph = graph_of()

    def forget() -> None:
        for _ in range(RUNS * 10):
            evaluator.invalidate_graph_evaluation_caches(graph)
            time.sleep(0)

    works = [
        repeated(
            checked_run,
            evaluator,
            graph,
            make_context(evaluator, {"a": counting_matrix(ROWS, start=float(k))}),
            float(k),
        )
        for k in range(THREADS)
    ]
    in_threads(*works, forget)


def test_pickling_beside_the_runs(evaluator: ModuleType) -> None:
    context = make_context(evaluator, {"a": counting_matrix(ROWS)})
    copies: list[Any] = []

    def copy() -> None:
        for _ in range(RUNS):
            copies.append(pickle.loads(pickle.dumps(context.__getstate__())))

    runs = [repeated(checked_run, evaluator, graph_of(), context, 1.0)] * (THREADS - 2)
    in_threads(*runs, copy, copy)
    assert len(copies) == 2 * RUNS
    for attributes in copies:
        restored = context.__class__.__new__(context.__class__)
        restored.__setstate__(attributes)
        checked_run(evaluator, graph_of(), restored, 1.0)


def test_ranks_of_a_matrix_that_others_write(evaluator: ModuleType) -> None:
    """They may be of any state of it, or declined for a tie in it, but stay ranks, and nothing beside
    the row is read.
    """
    generator = np.random.default_rng(0)

    def close_together() -> np.ndarray:
        # The first steps of a sort can't tell these from each other, so that it compares them.
        steps = generator.permuted(np.tile(np.arange(3_000.0), (20, 1)), axis=1)
        matrix = 1.0 + steps * 2.0**-52
        matrix[:, :2] = 1e300, -1e300
        return matrix

    matrix, others = close_together(), [close_together() for _ in range(2)]
    context = evaluator.EvaluationContext((matrix,), {"a": 0})
    graph = rotation("latitudinal_rank", feature("a"))
    ranked: list[np.ndarray] = []

    def write() -> None:
        for _ in range(100):
            for other in others:
                np.copyto(matrix, other)
                np.negative(matrix, out=matrix)

    def rank() -> None:
        for _ in range(RUNS):
            ranks = evaluator._evaluate_simple_rank_fast(graph, context)
            if ranks is not None:
                assert ((ranks >= 0.0) & (ranks <= 1.0)).all()
                ranked.append(ranks)

    in_threads(write, rank)
    assert ranked


CHILD = """
import importlib, sys, threading, time
import numpy as np
from support.functions import RecordingFunction
from support.graphs import feature, integer, reduction, rotation
from support.leak_roads import STUBS, functions_registry
from support.pools import make_pool
from support.runs import make_context

evaluator = importlib.import_module(sys.argv[1])
ROWS = 100_000
features = {"a": np.random.default_rng(0).random((ROWS, 20))}
roads = {
    "function": (rotation("f", feature("a")), {"registry": functions_registry()}),
    "reduction": (
        reduction("mean"),
        {"registry": functions_registry(), "useful_signals": make_pool("abc", ROWS, 20)},
    ),
    "kernel": (rotation("longitudinal_mean", feature("a"), integer(9)), {"registry": STUBS}),
}
graph, options = roads[sys.argv[2]]

def work():
    context = make_context(evaluator, features, **options)
    while True:
        evaluator.evaluate(graph, context)

for _ in range(2):
    threading.Thread(target=work, daemon=True).start()
time.sleep(0.3)
"""


@pytest.mark.parametrize("road", ["function", "reduction", "kernel"])
def test_an_interpreter_ends_while_threads_evaluate(
    evaluator: ModuleType, request: pytest.FixtureRequest, road: str
) -> None:
    finished = run_child(request, CHILD, road)
    assert (finished.returncode, finished.stderr) == (0, "")


# --- other Python threads beside a kernel --------------------------------------------------------


class Counter(threading.Thread):
    """Writes down when it got to run."""

    def __init__(self) -> None:
        super().__init__(daemon=True)
        self.done = False
        self.moments: list[float] = []

    def run(self) -> None:
        while not self.done:
            self.moments.append(time.perf_counter())
            time.sleep(0.0005)


@pytest.mark.parametrize("road", ["rank", "longitudinal"])
def test_a_python_thread_goes_on_while_a_kernel_runs(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, road: str
) -> None:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("the plain evaluator has no kernels")
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 0)
    generator = np.random.default_rng(0)
    shape = (2_000, 1_500) if road == "rank" else (100_000, 40)
    graph = (
        rotation("latitudinal_rank", feature("a"))
        if road == "rank"
        else rotation("longitudinal_std", feature("a"), integer(9))
    )
    context = make_context(
        evaluator, {"a": generator.random(shape)}, registry=STUBS if road != "rank" else None
    )
    # On a busy machine the other thread may not get a processor: one good run of a few will do.
    assert any(goes_on_beside(lambda: evaluator.evaluate(graph, context)) for _ in range(6))


def test_a_python_thread_goes_on_beside_a_run_without_functions(evaluator: ModuleType) -> None:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("the plain evaluator is Python itself")
    # Long enough for a dozen turns of the other thread on any machine.
    context = make_context(evaluator, {"a": counting_matrix(3_000_000, 1)})
    # Marked as missing data, the leaf is not taken as a whole matrix.
    assert any(
        goes_on_beside(lambda: evaluator.evaluate(feature("a"), context, data_nan_features=["a"]))
        for _ in range(6)
    )


def goes_on_beside(run: Callable[[], Any]) -> bool:
    counter = Counter()
    counter.start()
    start = time.perf_counter()
    run()
    end = time.perf_counter()
    counter.done = True
    counter.join(timeout=10)
    inside = [start, *(moment for moment in counter.moments if start < moment < end), end]
    # A kernel that kept the interpreter would leave one gap, nearly as long as the run.
    return len(inside) > 8 and bool(max(np.diff(inside)) < 0.5 * (end - start))
