"""Contexts, states and results through `pickle` and `copy`."""

from __future__ import annotations

import copy
import pickle
import sys
import threading
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import StageData
from support.graphs import feature
from support.registries import RecordingRegistry

PROTOCOLS = range(2, pickle.HIGHEST_PROTOCOL + 1)


def full_context(evaluator: ModuleType) -> Any:
    data = np.arange(6.0).reshape(3, 2)
    context = evaluator.EvaluationContext(
        (data, data + 1),
        {"x": 0, "y": 1},
        {"s": SimpleNamespace(weights=data * 2, pnl=np.ones(3))},
        RecordingRegistry(),
        np.array([[1.0, 0.0]] * 3),
        {"stage": "option"},
        stage_data=StageData({"z": data}),
        column_labels=["a"],
        signal_pnl_vectors={"s": {"a": 1.0}},
        pool_id="pool",
        transforms_already_combined=True,
        validate_inputs=False,
    )
    context.of_the_host = {"epoch": 5}
    return context


def assert_equal(one: Any, other: Any) -> None:
    if isinstance(one, np.ndarray):
        assert type(other) is type(one) and other.dtype == one.dtype
        np.testing.assert_array_equal(other, one)
    elif isinstance(one, (tuple, list)):
        assert type(other) is type(one) and len(other) == len(one)
        for mine, theirs in zip(one, other, strict=True):
            assert_equal(mine, theirs)
    elif isinstance(one, dict):
        assert list(other) == list(one)
        for name in one:
            assert_equal(one[name], other[name])
    elif hasattr(one, "__dict__"):
        assert type(other) is type(one)
        assert_equal(vars(one), vars(other))
    else:
        assert type(other) is type(one) and other == one


def assert_restored(context: Any, restored: Any) -> None:
    """`restored` has all that `context` has, and a lock of its own."""
    assert type(restored) is type(context)
    names = [name for name in vars(context) if name != "_evaluation_lock"]
    assert list(vars(restored)) == [*names, "_evaluation_lock"]
    for name in names:
        assert_equal(getattr(context, name), getattr(restored, name))
    assert isinstance(restored._evaluation_lock, type(threading.RLock()))
    assert restored._evaluation_lock is not getattr(context, "_evaluation_lock", None)


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_context_round_trip(evaluator: ModuleType, protocol: int) -> None:
    context = full_context(evaluator)
    restored = pickle.loads(pickle.dumps(context, protocol))
    assert_restored(context, restored)
    assert restored._skip_evaluation_shape_validation is True
    assert restored.extraction_buffer is not context.extraction_buffer
    weights = evaluator.evaluate(feature("y"), restored).weights
    np.testing.assert_array_equal(weights, evaluator.evaluate(feature("y"), context).weights)


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_context_after_a_run(evaluator: ModuleType, protocol: int) -> None:
    context = full_context(evaluator)
    evaluator.evaluate(feature("x"), context)
    restored = pickle.loads(pickle.dumps(context, protocol))
    assert_restored(context, restored)
    assert restored.registers is not None and restored.universe_mask is not None


def test_matrices_may_travel_out_of_band(evaluator: ModuleType) -> None:
    context = full_context(evaluator)
    buffers: list[pickle.PickleBuffer] = []
    stream = pickle.dumps(context, 5, buffer_callback=buffers.append)
    assert len(buffers) >= len(context.features)
    restored = pickle.loads(stream, buffers=buffers)
    assert_restored(context, restored)
    for one, other in zip(context.features, restored.features, strict=True):
        assert np.shares_memory(one, other)


@pytest.mark.parametrize("duplicate", [copy.copy, copy.deepcopy])
def test_context_copies(evaluator: ModuleType, duplicate: Any) -> None:
    context = full_context(evaluator)
    other = duplicate(context)
    assert_restored(context, other)
    shared = duplicate is copy.copy
    for name in ("features", "feature_index", "registry", "universe", "stage_data"):
        assert (getattr(other, name) is getattr(context, name)) == shared


def test_running_context_copies_with_a_free_lock(evaluator: ModuleType) -> None:
    context = full_context(evaluator)
    with context._evaluation_lock:
        other = copy.copy(context)
        taken: list[bool] = []

        def attempt() -> None:
            taken.append(other._evaluation_lock.acquire(blocking=False))

        thread = threading.Thread(target=attempt)
        thread.start()
        thread.join()
    assert taken == [True]


def test_state_is_a_shallow_copy_without_the_lock(evaluator: ModuleType) -> None:
    context = full_context(evaluator)
    state = context.__getstate__()
    assert type(state) is dict
    assert list(state) == [name for name in vars(context) if name != "_evaluation_lock"]
    for name, value in state.items():
        assert value is getattr(context, name)
    state.clear()
    assert context.feature_index == {"x": 0, "y": 1}
    assert context._evaluation_lock is not None


def test_state_of_a_context_without_a_lock(evaluator: ModuleType) -> None:
    context = full_context(evaluator)
    del context._evaluation_lock
    assert context.__getstate__() == vars(context)
    assert_restored(context, pickle.loads(pickle.dumps(context)))


def test_setting_a_state_merges_and_renews_the_lock(evaluator: ModuleType) -> None:
    context = full_context(evaluator)
    lock, features = context._evaluation_lock, context.features
    assert context.__setstate__({"pool_id": 7, "new": 8, "_evaluation_lock": "stale"}) is None
    assert (context.pool_id, context.new) == (7, 8)
    assert context.features is features
    assert isinstance(context._evaluation_lock, type(threading.RLock()))
    assert context._evaluation_lock is not lock


def test_state_is_whatever_a_dict_can_be_updated_with(evaluator: ModuleType) -> None:
    context = full_context(evaluator)
    lock = context._evaluation_lock
    context.__setstate__([("pool_id", 9)])
    assert context.pool_id == 9
    renewed = context._evaluation_lock
    assert renewed is not lock
    with pytest.raises(TypeError):
        context.__setstate__(None)
    assert context._evaluation_lock is renewed


def test_restoring_validates_nothing_and_makes_no_buffer(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext.__new__(evaluator.EvaluationContext)
    assert vars(context) == {}
    context.__setstate__({"features": (np.zeros(1),), "universe": np.zeros((9, 9))})
    assert list(vars(context)) == ["features", "universe", "_evaluation_lock"]


def test_new_lock_comes_from_the_module_s_threading(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    context = full_context(evaluator)
    monkeypatch.setattr(evaluator, "threading", SimpleNamespace(RLock=lambda: "lock"))
    context.__setstate__({})
    assert context._evaluation_lock == "lock"


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_derived_context_round_trip(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, protocol: int
) -> None:
    class Derived(evaluator.EvaluationContext):  # type: ignore[name-defined]
        def __getstate__(self) -> dict[str, Any]:
            return {**super().__getstate__(), "stamp": 1}

    Derived.__qualname__ = "Derived"
    monkeypatch.setattr(sys.modules[__name__], "Derived", Derived, raising=False)
    context = Derived((np.ones((1, 1)),), {"x": 0})
    restored = pickle.loads(pickle.dumps(context, protocol))
    context.stamp = 1
    del context._evaluation_lock  # a restored context has its lock last
    assert_restored(context, restored)


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_function_state_round_trip(evaluator: ModuleType, protocol: int) -> None:
    state = evaluator.FunctionState("f", {"rows": [1.0, None], "text": "ä"})
    for other in (
        pickle.loads(pickle.dumps(state, protocol)),
        copy.copy(state),
        copy.deepcopy(state),
    ):
        assert type(other) is evaluator.FunctionState
        assert other == state and other is not state
    assert copy.copy(state).state_data is state.state_data


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_result_can_be_written_but_not_read_back(evaluator: ModuleType, protocol: int) -> None:
    # the empty object is asked for __setstate__ and hands the question to weights it lacks
    stream = pickle.dumps(evaluator.EvaluationResult(np.ones(2), {}), protocol)
    with pytest.raises(RecursionError):
        pickle.loads(stream)
