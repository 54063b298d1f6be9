"""Runs give back every reference that they take, whichever way they end."""

from __future__ import annotations

import gc
import logging
import sys
import weakref
from collections.abc import Callable, Iterator
from types import ModuleType
from typing import Any

import numpy as np
import pytest
import structlog
from quernbrook.simulator_engine._types import FunctionExecutionError
from support.functions import RecordingFunction
from support.graphs import feature, number, rotation
from support.leak_roads import FAILING_ROADS, GOOD_ROADS, Function
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, counting_matrix, make_context
from support.strip_roads import FAILING_STRIP_ROADS, GOOD_STRIP_ROADS

pytestmark = pytest.mark.slow

REPEATS = 100


@pytest.fixture(autouse=True)
def quiet() -> Iterator[None]:
    """Failing states are logged; captured logs would count as growth."""
    before = structlog.get_config()
    structlog.configure(wrapper_class=structlog.make_filtering_bound_logger(logging.CRITICAL))
    yield
    structlog.configure(**before)


def repeat(run: Callable[[], Any], times: int) -> int:
    """How many of the runs failed."""
    failed = 0
    for _ in range(times):
        try:
            run()
        except BaseException as error:  # noqa: BLE001 - interrupts are among the roads
            failed += 1
            for fault in (error, error.__context__):
                if fault is not None:
                    fault.__traceback__ = None
    return failed


def reachable(run: Callable[[], Any], evaluator: Any) -> list[Any]:
    """What the road holds for good: arguments, context, graph, instances and their contents."""
    found: dict[int, Any] = {}
    pending = [cell.cell_contents for cell in run.__closure__ or ()]
    while pending:
        one = pending.pop()
        if one is None or id(one) in found or isinstance(one, (int, ModuleType)):
            continue
        found[id(one)] = one
        if isinstance(one, dict):
            pending += [*one.keys(), *one.values()]
        elif isinstance(one, (list, tuple, set)):
            pending += one
        elif hasattr(one, "__dict__") and not isinstance(one, type):
            pending += vars(one).values()
    shared = [
        evaluator.EvaluationContext,
        evaluator.EvaluationResult,
        evaluator.FunctionState,
        np.ndarray,
        np.dtype(np.float64),
        np.dtype(np.uint8),
        True,
        False,
        "root",
        (),
    ]
    return [*found.values(), *shared]


FAILING = {**FAILING_ROADS, **FAILING_STRIP_ROADS}
#: The plain evaluator calls what declines or lies like any other function.
NATIVE_ALONE = {"an offer that is no capsule", "an offer that raises"}
ROADS = {**GOOD_ROADS, **GOOD_STRIP_ROADS, **FAILING}


def growth(run: Callable[[], Any], watched: list[Any]) -> list[tuple[str, int]]:
    """What grew or shrank by a third of the number of runs, or more, while they were made."""
    gc.collect()
    counts = [sys.getrefcount(one) for one in watched]
    objects, blocks = len(gc.get_objects()), sys.getallocatedblocks()
    repeat(run, REPEATS)
    gc.collect()
    blocks = sys.getallocatedblocks() - blocks
    objects = len(gc.get_objects()) - objects
    changes = [("objects", objects), ("memory blocks", blocks)]
    changes += [
        (f"{type(one).__name__} {one!r:.60}", sys.getrefcount(one) - before)
        for one, before in zip(watched, counts, strict=True)
    ]
    return [change for change in changes if abs(change[1]) >= REPEATS // 3]


def lasting_growth(run: Callable[[], Any], watched: list[Any]) -> list[tuple[str, int]]:
    """A leak grows in every batch; caches of the interpreter and of NumPy fill only once."""
    found = growth(run, watched)
    for _ in range(24):
        if not found:
            break
        found = growth(run, watched)
    return found


@pytest.mark.parametrize("road", ROADS)
def test_no_reference_is_lost_or_given_away(evaluator, road):
    run = ROADS[road](evaluator)
    fails = road in FAILING and not (
        road in NATIVE_ALONE and evaluator.__name__ == "reference_evaluator"
    )
    assert repeat(run, 10) == (10 if fails else 0)
    assert lasting_growth(run, reachable(run, evaluator)) == []


@pytest.mark.parametrize("take", [list, object, lambda: 3.7 * len(SHARED)])
def test_a_leak_is_noticed(take):
    kept: list[Any] = []
    assert lasting_growth(lambda: kept.append(take()), []) != []


def test_a_lost_reference_is_noticed():
    kept: list[Any] = []
    assert lasting_growth(lambda: kept.append(SHARED), [SHARED])[-1][1] >= REPEATS


SHARED = ["watched"]


# --- what a run used dies with it ----------------------------------------------------------------


class Broken(Exception):
    """An exception whose end can be watched, as that of a built-in one can't."""


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("failing", [True, False])
def test_everything_dies_with_its_owner(evaluator, bound, failing):
    watched: list[Any] = []

    def watch(one: Any) -> Any:
        watched.append(weakref.ref(one))
        return one

    def make(**_: Any) -> Any:
        def act(row: np.ndarray) -> Any:
            watch(row)
            if failing and len(watched) > 9:
                raise Broken
            return watch(row + 1.0)

        return watch(Function(act, stateful=True))

    def run() -> Any:
        graph = watch(rotation("f", feature("a")))
        matrix = watch(counting_matrix(3))
        registry = watch(RecordingRegistry(entries={"f": entry()}))
        registry.factories["f"] = make
        context = watch(make_context(evaluator, {"a": matrix}, registry=registry))
        instances = bind_all(graph, make) if bound else None
        try:
            result = evaluator.evaluate(graph, context, bound_function_instances=instances)
        except FunctionExecutionError as error:
            watch(error)
            watch(error.__cause__)
            error.__cause__ = error.__context__ = error.__traceback__ = None
        else:
            watch(result)
            watch(result.weights)
        watch(context.registers)

    run()
    gc.collect()
    assert len(watched) > 9
    assert [reference() for reference in watched if reference() is not None] == []


def test_registry_instances_die_with_the_run(evaluator):
    made: list[Any] = []

    def make(**_: Any) -> Any:
        instance = Function(stateful=True)
        made.append(weakref.ref(instance))
        return instance

    class Registry(RecordingRegistry):
        def _create(self, name: str, config: dict[str, Any]) -> Any:
            return make(**config)

    graph = rotation("f", rotation("f", feature("a")))
    registry = Registry(entries={"f": entry()})
    context = make_context(evaluator, {"a": counting_matrix(2)}, registry=registry)
    result = evaluator.evaluate(graph, context)
    gc.collect()
    assert len(made) == 2
    assert [reference() for reference in made] == [None, None]
    assert len(result.states) == 2


def test_a_cached_graph_keeps_no_instance_and_no_context(evaluator):
    graph = rotation("f", feature("a"))
    instance = RecordingFunction(number_of_columns)
    context = make_context(evaluator, {"a": counting_matrix(2)})
    evaluator.evaluate(graph, context, bound_function_instances={"root": instance})
    references = [weakref.ref(instance), weakref.ref(context)]
    del instance, context
    gc.collect()
    assert graph._collect_nodes_cache is not None
    assert [reference() for reference in references] == [None, None]


def number_of_columns(row: np.ndarray) -> int:
    return len(row)


def test_a_result_keeps_no_context(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    result = evaluator.evaluate(number(1.0), context)
    reference = weakref.ref(context)
    del context
    gc.collect()
    assert reference() is None
    assert result.shape == (2, 3)
