"""The lock of a context: who takes it, who makes it, what may stand in its place."""

from __future__ import annotations

import threading
import time
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import (
    EvaluationError,
)
from support.contexts import look_alike
from support.functions import RecordingFunction, raising
from support.graphs import feature, rotation
from support.registries import RecordingRegistry

DATA = np.arange(6.0).reshape(3, 2)


def make_context(evaluator: ModuleType, **keywords: Any) -> Any:
    return evaluator.EvaluationContext((DATA.copy(),), {"x": 0}, **keywords)


class RecordingLock:
    """A context manager that logs its use; `swallow` is what its exit returns."""

    def __init__(self, log: list[Any], swallow: Any = None, error: Exception | None = None) -> None:
        self.log = log
        self.swallow = swallow
        self.error = error

    def __enter__(self) -> Any:
        self.log.append("enter")
        return self

    def __exit__(self, *details: object) -> Any:
        self.log.append(("exit", *details))
        if self.error is not None:
            raise self.error
        return self.swallow


def free_for_other_threads(lock: Any) -> bool:
    taken: list[bool] = []

    def attempt() -> None:
        taken.append(lock.acquire(blocking=False))
        if taken[0]:
            lock.release()

    thread = threading.Thread(target=attempt)
    thread.start()
    thread.join()
    return taken[0]


def test_lock_is_held_during_the_run_and_released_after_it(evaluator: ModuleType) -> None:
    free: list[bool] = []

    def look(*args: Any, context: Any) -> float:
        free.append(free_for_other_threads(context._evaluation_lock))
        return 0.0

    registry = RecordingRegistry(factories={"f": RecordingFunction(look)})
    context = make_context(evaluator, registry=registry)
    evaluator.evaluate(rotation("f", feature("x")), context)
    assert free == [False] * len(DATA)
    assert free_for_other_threads(context._evaluation_lock)


@pytest.mark.parametrize("error", [RuntimeError("no"), KeyboardInterrupt()], ids=["error", "stop"])
def test_lock_is_released_after_a_failure(evaluator: ModuleType, error: BaseException) -> None:
    registry = RecordingRegistry()
    registry.has = raising(error)  # type: ignore[method-assign]
    context = make_context(evaluator, registry=registry)
    with pytest.raises(type(error)) as caught:
        evaluator.evaluate(rotation("f", feature("x")), context)
    assert caught.value is error
    assert free_for_other_threads(context._evaluation_lock)


def test_nested_run_on_the_same_context(evaluator: ModuleType) -> None:
    inner: list[Any] = []

    def nested(row: np.ndarray, context: Any) -> np.ndarray:
        inner.append(evaluator.evaluate(feature("x"), context).weights)
        return row

    registry = RecordingRegistry(factories={"f": RecordingFunction(nested)})
    context = make_context(evaluator, registry=registry)
    result = evaluator.evaluate(rotation("f", feature("x")), context)
    np.testing.assert_array_equal(result.weights, DATA)
    assert len(inner) == len(DATA)
    for weights in inner:
        np.testing.assert_array_equal(weights, DATA)


def test_two_threads_on_one_context_take_turns(evaluator: ModuleType) -> None:
    inside: list[int] = []
    rows: list[tuple[int, bool]] = []

    def work(row: np.ndarray, context: Any) -> np.ndarray:
        me = threading.get_ident()
        rows.append((me, bool(inside)))
        inside.append(me)
        time.sleep(0.001)  # lets the other thread in, if it can
        inside.pop()
        return row

    registry = RecordingRegistry(factories={"f": RecordingFunction(work)})
    context = make_context(evaluator, registry=registry)
    graph = rotation("f", feature("x"))
    threads = [threading.Thread(target=evaluator.evaluate, args=(graph, context)) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not any(overlap for _, overlap in rows)
    owners = [owner for owner, _ in rows]
    assert len(owners) == 2 * len(DATA)
    assert len(set(owners[: len(DATA)])) == len(set(owners[len(DATA) :])) == 1


def test_two_contexts_run_at_the_same_time(evaluator: ModuleType) -> None:
    meeting = threading.Barrier(2, timeout=600)
    failures: list[BaseException] = []

    def meet(row: np.ndarray, context: Any) -> np.ndarray:
        meeting.wait()
        return row

    def run() -> None:
        registry = RecordingRegistry(factories={"f": RecordingFunction(meet)})
        try:
            evaluator.evaluate(
                rotation("f", feature("x")), make_context(evaluator, registry=registry)
            )
        except BaseException as failure:  # noqa: BLE001  a thread must report everything
            failures.append(failure)

    threads = [threading.Thread(target=run) for _ in range(2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []


@pytest.mark.parametrize("derived", [False, True])
@pytest.mark.parametrize("missing", ["deleted", "none"])
def test_missing_lock_of_a_context_is_made(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, missing: str, derived: bool
) -> None:
    log: list[Any] = []
    locks: list[RecordingLock] = []

    def new_lock() -> RecordingLock:
        locks.append(RecordingLock(log))
        return locks[-1]

    class Derived(evaluator.EvaluationContext):  # type: ignore[name-defined]
        pass

    kind = Derived if derived else evaluator.EvaluationContext
    context = kind((DATA,), {"x": 0})
    if missing == "deleted":
        del context._evaluation_lock
    else:
        context._evaluation_lock = None
    monkeypatch.setattr(evaluator, "threading", SimpleNamespace(RLock=new_lock))
    evaluator.evaluate(feature("x"), context)
    assert len(locks) == 1
    assert context._evaluation_lock is locks[0]
    assert log == ["enter", ("exit", None, None, None)]
    evaluator.evaluate(feature("x"), context)
    assert len(locks) == 1


def test_made_lock_is_reentrant(evaluator: ModuleType) -> None:
    context = make_context(evaluator)
    context._evaluation_lock = None
    evaluator.evaluate(feature("x"), context)
    assert isinstance(context._evaluation_lock, type(threading.RLock()))


def test_lock_stays_when_the_run_fails(evaluator: ModuleType) -> None:
    context = make_context(evaluator)
    context._evaluation_lock = None
    context.features = ()
    with pytest.raises(EvaluationError):
        evaluator.evaluate(feature("x"), context)
    assert context._evaluation_lock is not None


@pytest.mark.parametrize("attributes", [{}, {"_evaluation_lock": None}])
def test_look_alike_without_a_lock_is_not_locked(
    evaluator: ModuleType, attributes: dict[str, Any]
) -> None:
    context = look_alike(**attributes)
    np.testing.assert_array_equal(evaluator.evaluate(feature("x"), context).weights, DATA)
    assert getattr(context, "_evaluation_lock", None) is None
    assert ("_evaluation_lock" in vars(context)) == bool(attributes)


@pytest.mark.parametrize("own", [True, False])
def test_any_context_manager_serves_as_lock(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, own: bool
) -> None:
    log: list[Any] = []
    context = make_context(evaluator) if own else look_alike()
    context._evaluation_lock = RecordingLock(log)
    monkeypatch.setattr(evaluator, "_evaluate_unlocked", lambda *_, **__: log.append("run"))
    evaluator.evaluate(feature("x"), context)
    assert log == ["enter", "run", ("exit", None, None, None)]


def test_falsy_lock_is_still_a_lock(evaluator: ModuleType) -> None:
    class Falsy(RecordingLock):
        def __bool__(self) -> bool:
            return False

    log: list[Any] = []
    context = make_context(evaluator)
    context._evaluation_lock = lock = Falsy(log)
    evaluator.evaluate(feature("x"), context)
    assert log[0] == "enter"
    assert context._evaluation_lock is lock


def test_exit_sees_the_failure(evaluator: ModuleType) -> None:
    log: list[Any] = []
    context = look_alike(features=(), _evaluation_lock=RecordingLock(log))
    with pytest.raises(EvaluationError) as caught:
        evaluator.evaluate(feature("x"), context)
    _, (_, kind, error, _) = log
    assert kind is EvaluationError
    assert error is caught.value


def test_exit_sees_where_the_failure_came_from(evaluator: ModuleType) -> None:
    log: list[Any] = []
    error = OSError("gone")
    registry = RecordingRegistry()
    registry.has = raising(error)  # type: ignore[method-assign]
    context = look_alike(registry=registry, _evaluation_lock=RecordingLock(log))
    with pytest.raises(OSError) as caught:
        evaluator.evaluate(rotation("f"), context)
    assert caught.value is error
    _, (_, kind, seen, trace) = log
    assert kind is OSError and seen is error
    while trace.tb_next is not None:
        trace = trace.tb_next
    assert trace.tb_frame.f_code.co_name == "raise_error"


def test_exit_that_swallows_leaves_no_result(evaluator: ModuleType) -> None:
    context = look_alike(features=(), _evaluation_lock=RecordingLock([], swallow=True))
    assert evaluator.evaluate(feature("x"), context) is None


def test_true_exit_does_not_touch_a_result(evaluator: ModuleType) -> None:
    context = look_alike(_evaluation_lock=RecordingLock([], swallow=True))
    assert isinstance(evaluator.evaluate(feature("x"), context), evaluator.EvaluationResult)


@pytest.mark.parametrize("features", [(), (DATA,)])
def test_exit_that_raises_wins(evaluator: ModuleType, features: tuple[np.ndarray, ...]) -> None:
    error = RuntimeError("exit")
    context = look_alike(features=features, _evaluation_lock=RecordingLock([], error=error))
    with pytest.raises(RuntimeError) as caught:
        evaluator.evaluate(feature("x"), context)
    assert caught.value is error
    assert (error.__context__ is None) == (features != ())
    assert error.__cause__ is None


def test_exit_whose_truth_fails(evaluator: ModuleType) -> None:
    class Unsure:
        def __bool__(self) -> bool:
            raise ValueError("unsure")

    context = look_alike(features=(), _evaluation_lock=RecordingLock([], swallow=Unsure()))
    with pytest.raises(ValueError, match="unsure"):
        evaluator.evaluate(feature("x"), context)


def test_lock_must_be_a_context_manager(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    entered: list[str] = []

    class NoExit:
        def __enter__(self) -> None:
            entered.append("enter")

    class OnInstance:
        def __init__(self) -> None:
            self.__enter__ = lambda: entered.append("enter")
            self.__exit__ = lambda *_: entered.append("exit")

    monkeypatch.setattr(evaluator, "_evaluate_unlocked", lambda *_, **__: entered.append("run"))
    for lock in (object(), NoExit(), OnInstance()):
        # CPython 3.11 made of this AttributeError a TypeError
        with pytest.raises((AttributeError, TypeError)):
            evaluator.evaluate(feature("x"), look_alike(_evaluation_lock=lock))
    assert entered == []


def test_enter_that_raises_ends_the_call(evaluator: ModuleType) -> None:
    log: list[Any] = []

    class Broken(RecordingLock):
        def __enter__(self) -> Any:
            raise TimeoutError("busy")

    with pytest.raises(TimeoutError, match="busy"):
        evaluator.evaluate(feature("x"), look_alike(_evaluation_lock=Broken(log)))
    assert log == []


@pytest.mark.parametrize(
    ("error", "passes"), [(ValueError("no"), False), (AttributeError("no"), True)]
)
def test_lock_property_that_raises(evaluator: ModuleType, error: Exception, passes: bool) -> None:
    class Odd(SimpleNamespace):
        @property
        def _evaluation_lock(self) -> Any:
            raise error

    context = Odd(**vars(look_alike()))
    if passes:
        np.testing.assert_array_equal(evaluator.evaluate(feature("x"), context).weights, DATA)
    else:
        with pytest.raises(ValueError) as caught:
            evaluator.evaluate(feature("x"), context)
        assert caught.value is error
