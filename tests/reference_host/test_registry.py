"""The registry: what it knows, what it makes, what it refuses."""

from __future__ import annotations

import json
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import (
    FunctionEntry,
    FunctionRegistry,
    Parameter,
    SavedState,
    default_registry,
)
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
from quernbrook.simulator_engine._types import FunctionExecutionError

ENTRIES = [default_registry(compiled=False).get_entry(name) for name in default_registry()]
STATELESS = [entry.name for entry in ENTRIES if not entry.stateful]
STATEFUL = [entry.name for entry in ENTRIES if entry.stateful]


class Doubler:
    stateful = False
    arity = 1

    def __init__(self, factor: float) -> None:
        self.factor = factor

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row * self.factor


@pytest.fixture(params=["compiled", "plain"])
def registry(request: pytest.FixtureRequest) -> FunctionRegistry:
    return default_registry(compiled=request.param == "compiled")


@pytest.mark.parametrize("name", STATELESS + STATEFUL)
def test_library_functions_are_known_and_left_to_the_evaluator(
    registry: FunctionRegistry, name: str
) -> None:
    entry = registry.get_entry(name)
    assert registry.has(name)
    assert not registry.has_factory(name)
    assert entry.factory is None
    assert entry.stateful == (name in STATEFUL)
    assert entry.function_version == 1


@pytest.mark.parametrize("name", STATELESS + STATEFUL)
def test_instances_agree_with_their_entries(registry: FunctionRegistry, name: str) -> None:
    config = {"window": 4} if name in STATEFUL else {}
    instance = registry.create_instance(name, **config)
    assert instance.stateful == registry.get_entry(name).stateful
    assert instance.name == name
    if name in STATEFUL:
        assert instance.window == 4
    if not name.startswith(("reduction_", "weighted_by_")):
        assert hasattr(instance, "arity")


def test_registry_meets_the_protocol(registry: FunctionRegistry) -> None:
    assert isinstance(registry, RegistryProtocol)


def test_registry_module_declares_no_typed_state() -> None:
    import quernbrook.reference_host.registry as module

    assert not hasattr(module, "FunctionState")


def test_library() -> None:
    assert {name.split("_")[0] for name in STATELESS} == {"latitudinal", "numerical", "reduction"}
    assert {name.split("_")[0] for name in STATEFUL} == {"longitudinal", "weighted"}


def test_iteration_gives_the_names(registry: FunctionRegistry) -> None:
    assert all(registry.has(name) for name in registry)
    assert len(list(registry)) == len(STATELESS) + len(STATEFUL)


def test_unknown_name(registry: FunctionRegistry) -> None:
    assert not registry.has("no_such")
    assert not registry.has_factory("no_such")
    with pytest.raises(FunctionExecutionError, match="Function 'no_such' is not registered"):
        registry.get_entry("no_such")
    with pytest.raises(FunctionExecutionError, match="Function 'no_such' is not registered"):
        registry.create_instance("no_such")


def test_own_function_is_a_factory(registry: FunctionRegistry) -> None:
    registry.register(
        FunctionEntry("doubler", "mine", build=Doubler, param_schema={"factor": Parameter("float")})
    )
    assert registry.has_factory("doubler")
    instance = registry.create_instance("doubler", factor=2)
    np.testing.assert_array_equal(instance(np.array([1.0, 2.0])), [2.0, 4.0])


def test_own_function_replaces_one_of_the_library_in_its_registry_only(
    registry: FunctionRegistry,
) -> None:
    registry.register(FunctionEntry("latitudinal_rank", "mine", build=lambda: Doubler(2.0)))
    assert registry.has_factory("latitudinal_rank")
    assert isinstance(registry.create_instance("latitudinal_rank"), Doubler)
    assert not default_registry().has_factory("latitudinal_rank")


@pytest.mark.parametrize(
    ("name", "config", "reason"),
    [
        ("numerical_add", {"window": 3}, "unknown parameter(s): window; known: none"),
        ("numerical_less", {"ieee": 1}, "parameter 'ieee' must be flag; got 1"),
        ("latitudinal_relative_rank", {"lone": True}, "parameter 'lone' must be number; got True"),
        ("longitudinal_mean", {"b": 1, "a": 2}, "unknown parameter(s): a, b; known: window"),
        ("longitudinal_mean", {}, "missing parameter: window"),
        ("longitudinal_mean", {"window": 2.0}, "parameter 'window' must be int; got 2.0"),
        ("longitudinal_mean", {"window": True}, "parameter 'window' must be int; got True"),
        ("longitudinal_mean", {"window": 0}, "window must be at least 1; got 0"),
        ("latitudinal_scale", {"total": "1"}, "parameter 'total' must be float; got '1'"),
        (
            "weighted_by_vol",
            {"window": 2, "invert": 1},
            "parameter 'invert' must be bool; got 1",
        ),
        (
            "weighted_by_sharpe",
            {"window": 2, "stat_name": "vol"},
            "unknown stat_name 'vol'; known: sharpe, sortino",
        ),
    ],
)
def test_faulty_configuration(
    registry: FunctionRegistry, name: str, config: dict[str, Any], reason: str
) -> None:
    with pytest.raises(FunctionExecutionError) as caught:
        registry.create_instance(name, **config)
    assert str(caught.value) == f"Function '{name}': {reason}"


def test_int_serves_as_float(registry: FunctionRegistry) -> None:
    instance = registry.create_instance("latitudinal_scale", total=2)
    np.testing.assert_array_equal(instance(np.array([1.0, -3.0])), [0.5, -1.5])


def drive(instance: Any, step: int) -> np.ndarray:
    """One call with data that depend on `step` alone, some of them NaN."""
    rng = np.random.default_rng(step)
    if instance.name.startswith("longitudinal_"):
        row = rng.normal(size=5)
        row[rng.random(5) < 0.1] = np.nan
        return instance(*[row, row[::-1]][: instance.arity])
    block = rng.normal(size=(3, 5))
    block[rng.random((3, 5)) < 0.1] = np.nan
    return instance(block, signal_pnl=rng.normal(size=3))


@pytest.mark.parametrize("name", STATEFUL)
@pytest.mark.parametrize("saved_after", [0, 1, 3, 4, 5, 11])
def test_restored_instance_goes_on_bit_for_bit(
    registry: FunctionRegistry, name: str, saved_after: int
) -> None:
    uninterrupted = registry.create_instance(name, window=4)
    first = registry.create_instance(name, window=4)
    for step in range(saved_after):
        drive(uninterrupted, step)
        drive(first, step)
    saved = first.get_state()
    assert saved.state_data["count"] == saved_after
    assert saved.state_data["window"] == 4
    restored = registry.create_instance_from_state(
        name, SavedState(saved.name, json.loads(json.dumps(saved.state_data))), window=4
    )
    for step in range(saved_after, saved_after + 10):
        assert drive(restored, step).tobytes() == drive(uninterrupted, step).tobytes()
    assert repr(restored.get_state()) == repr(uninterrupted.get_state())


def test_state_is_a_snapshot(registry: FunctionRegistry) -> None:
    instance = registry.create_instance("longitudinal_mean", window=2)
    instance(np.array([1.0]))
    saved = instance.get_state()
    instance(np.array([2.0]))
    assert saved.name == "longitudinal_mean"
    assert saved.state_data == {"count": 1, "window": 2, "buffer": [[1.0]]}


def test_raw_state_data_restores(registry: FunctionRegistry) -> None:
    data = {"count": 1, "window": 2, "buffer": [[1.0]]}
    instance = registry.create_instance_from_state("longitudinal_mean", data, window=2)
    np.testing.assert_array_equal(instance(np.array([2.0])), [1.5])


@pytest.mark.parametrize(
    ("name", "state", "reason"),
    [
        (
            "longitudinal_mean",
            SavedState("longitudinal_sum", {"count": 0, "window": 2, "buffer": []}),
            "can't go on from a state of 'longitudinal_sum'",
        ),
        (
            "longitudinal_mean",
            {"count": 0, "window": 3, "buffer": []},
            "can't restore its state: ValueError: saved with window 3, configured with 2",
        ),
        (
            "longitudinal_mean",
            {"count": 5, "window": 2, "buffer": [[1.0]]},
            "can't restore its state: ValueError: 1 rows of 5 for a window of 2",
        ),
        (
            "longitudinal_mean",
            {"count": 2, "window": 2, "buffer": [[1.0], [1.0, 2.0]]},
            "can't restore its state: ValueError: row has 2 values; the window holds rows of 1",
        ),
        (
            "longitudinal_mean",
            {"count": 0, "window": 2},
            "can't restore its state: KeyError: 'buffer'",
        ),
        (
            "longitudinal_mean",
            {"count": "0", "window": 2, "buffer": []},
            "can't restore its state: TypeError: count must be an int; got '0'",
        ),
    ],
)
def test_state_that_does_not_fit(
    registry: FunctionRegistry, name: str, state: Any, reason: str
) -> None:
    with pytest.raises(FunctionExecutionError) as caught:
        registry.create_instance_from_state(name, state, window=2)
    assert str(caught.value) == f"Function '{name}' {reason}"


def test_stateless_function_has_nothing_to_restore(registry: FunctionRegistry) -> None:
    with pytest.raises(FunctionExecutionError, match="has no state to restore"):
        registry.create_instance_from_state("latitudinal_rank", {"count": 1})
