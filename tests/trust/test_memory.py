"""Memory stays flat over many runs, cycles are collected, and hostile objects break nothing."""

from __future__ import annotations

import gc
import os
import resource
import sys
import tracemalloc
import weakref
from collections.abc import Iterator
from types import ModuleType
from typing import Any

import numpy as np
import pytest
import structlog
from quernbrook.simulator_engine._types import UsefulSignal
from support.graphs import feature, reduction, rotation
from support.leak_roads import FAILING_ROADS, GOOD_ROADS, Function, functions_registry
from support.runs import counting_matrix, make_context, same_bits

pytestmark = pytest.mark.slow

RUNS = int(os.environ.get("MEMORY_TEST_RUNS", "2000"))
ROADS = {**GOOD_ROADS, **FAILING_ROADS}
#: A thousand levels deep; a tenth of the runs says as much.
SLOW = {"cycle"}


@pytest.fixture(autouse=True)
def quiet() -> Iterator[None]:
    before = structlog.get_config()
    structlog.configure(wrapper_class=structlog.make_filtering_bound_logger(50))
    yield
    structlog.configure(**before)


def repeat(run: Any, times: int) -> None:
    for _ in range(times):
        try:
            run()
        except BaseException as error:  # noqa: BLE001 - interrupts are among the roads
            for fault in (error, error.__context__):
                if fault is not None:
                    fault.__traceback__ = None


def peak_memory() -> int:
    """In bytes; macOS counts in these, Linux in kilobytes."""
    unit = 1 if sys.platform == "darwin" else 1024
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * unit


@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="it keeps freed memory")
def test_memory_stays_flat(evaluator: ModuleType) -> None:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("the plain evaluator has no memory of its own")
    grown = {}
    resident = 0
    for name, road in ROADS.items():
        run = road(evaluator)
        times = RUNS // 10 if name in SLOW else RUNS
        repeat(run, 50)
        gc.collect()
        resident = resident or peak_memory()
        for _ in range(3):  # caches of the interpreter and of NumPy fill only once
            blocks = sys.getallocatedblocks()
            repeat(run, times)
            gc.collect()
            blocks = sys.getallocatedblocks() - blocks
            if abs(blocks) <= times // 20:
                break
        else:
            grown[name] = blocks
    assert grown == {}
    # What is leaked past the interpreter's allocator shows here: a row a run would be far more.
    assert peak_memory() - resident < 40_000_000


@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="no address comes back")
@pytest.mark.parametrize("road", ["leaf", "every kind, bound", "filtered reductions"])
def test_numpy_s_memory_stays_flat(evaluator: ModuleType, road: str) -> None:
    run = GOOD_ROADS[road](evaluator)
    tracemalloc.start()
    try:
        grown = []
        for _ in range(4):  # caches of the interpreter and of NumPy fill only once
            gc.collect()
            before = tracemalloc.get_traced_memory()[0]
            repeat(run, 200)
            gc.collect()
            grown.append(tracemalloc.get_traced_memory()[0] - before)
        assert min(grown) < 200 * 24, grown
    finally:
        tracemalloc.stop()


@pytest.mark.parametrize("made", ["context", "result", "state"])
def test_a_cycle_is_collected(evaluator: ModuleType, made: str) -> None:
    context = make_context(evaluator, {"a": counting_matrix(2)})
    one: Any = context
    if made == "result":
        one = evaluator.evaluate(feature("a"), context)
        one.states["itself"] = one
    elif made == "state":
        one = evaluator.FunctionState("f", {})
        one.state_data["itself"] = one
    else:
        context.metaparameters["itself"] = context
    reference = weakref.ref(one)
    del one, context
    gc.collect()
    assert reference() is None


# --- objects that change what a run is working on ------------------------------------------------

MATRIX = counting_matrix(3)


def run_with(evaluator: ModuleType, act: Any, *, bound: bool = True) -> tuple[Any, Any, Any]:
    """A run of "f" over "a" whose calls do `act(row, context, graph)`."""
    graph = rotation("f", feature("a"), feature("a"))
    context = make_context(evaluator, {"a": MATRIX.copy()}, validate_inputs=False)
    instance = Function(lambda *rows: act(rows[0], context, graph))
    instances = {"root": instance} if bound else None
    if not bound:
        context.registry = functions_registry(g=lambda **_: instance)
        graph.node = "g"
    try:
        return (
            context,
            graph,
            evaluator.evaluate(graph, context, bound_function_instances=instances),
        )
    except Exception as error:  # noqa: BLE001 - some of the acts can't end well
        return context, graph, error


def clear_children(row: Any, _: Any, graph: Any) -> Any:
    graph.children.clear()
    return row


def clear_features(row: Any, context: Any, _: Any) -> Any:
    context.features = ()
    context.feature_index.clear()
    return row


def clear_context(row: Any, context: Any, _: Any) -> Any:
    context.__dict__.clear()
    return row


def clear_graph(row: Any, _: Any, graph: Any) -> Any:
    graph.__dict__.clear()
    gc.collect()
    return row


def shrink_registers(row: Any, *_: Any) -> Any:
    base = row.base if row.base is not None else row
    base.resize((1, 1), refcheck=False)
    return 1.0


def grow_registers(row: Any, *_: Any) -> Any:
    base = row.base if row.base is not None else row
    base.resize((500, 500), refcheck=False)
    return 1.0


def retype_registers(row: Any, *_: Any) -> Any:
    base = row.base if row.base is not None else row
    base.dtype = np.int32
    return 1.0


def reenter(row: Any, context: Any, graph: Any) -> Any:
    return row + 0.0 if len(graph.children) == 0 else float(len(context.features))


ACTS = [
    clear_children,
    clear_features,
    clear_context,
    clear_graph,
    shrink_registers,
    grow_registers,
    retype_registers,
    reenter,
]


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("act", ACTS, ids=lambda act: act.__name__)
def test_hostile_functions_break_nothing(evaluator: ModuleType, act: Any, bound: bool) -> None:
    if evaluator.__name__ == "reference_evaluator" and "registers" in act.__name__:
        pytest.skip("NumPy itself walks over rows that were taken away")
    for _ in range(20):
        run_with(evaluator, act, bound=bound)
    context = make_context(evaluator, {"a": MATRIX})
    same_bits(evaluator.evaluate(feature("a"), context).weights, MATRIX)


@pytest.mark.parametrize("shape", [(0, 0), (1, 1), (500, 3)])
def test_an_extraction_buffer_that_is_resized(
    evaluator: ModuleType, shape: tuple[int, int]
) -> None:
    if evaluator.__name__ == "reference_evaluator":
        pytest.skip("NumPy itself walks over rows that were taken away")

    def resize(block: Any, **_: Any) -> Any:
        base = block if block.base is None else block.base
        base.resize(shape, refcheck=False)
        return 1.0

    class Resizing(Function):
        def __call__(self, block: Any, **_: Any) -> Any:
            return resize(block)

    pool = {name: UsefulSignal(np.ones((3, 3)), np.ones((3, 1))) for name in "xyz"}
    for _ in range(20):
        context = make_context(evaluator, {"a": MATRIX.copy()}, useful_signals=dict(pool))
        instances = {"root": Resizing(stateful=True)}
        try:
            result = evaluator.evaluate(
                reduction("sum"), context, bound_function_instances=instances
            )
        except Exception as error:  # noqa: BLE001 - as long as it is a Python error
            assert str(error)
        else:
            same_bits(result.weights, np.ones((3, 3)))


def test_a_pool_that_changes_while_it_is_walked(evaluator: ModuleType) -> None:
    pool: dict[str, Any] = {}

    class Signal:
        pnl = None

        @property
        def weights(self) -> Any:
            pool.clear()
            gc.collect()
            return np.ones((3, 3))

    pool.update(x=Signal(), y=Signal())
    context = make_context(
        evaluator,
        {"a": MATRIX},
        useful_signals=pool,
        registry=functions_registry(),
        validate_inputs=False,
    )
    with pytest.raises((KeyError, RuntimeError, TypeError)):
        evaluator.evaluate(reduction("mean"), context)
