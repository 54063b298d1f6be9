"""Adapting states to what a registry wants to be given."""

from __future__ import annotations

import sys
from collections.abc import Iterator
from pathlib import Path
from types import MappingProxyType, ModuleType, SimpleNamespace
from typing import Any
from unittest.mock import MagicMock

import pytest
from support.functions import raising
from support.registries import RecordingRegistry
from support.typed_registry import FunctionState as TypedState
from support.typed_registry import TypedStateRegistry


class Payload(dict):  # type: ignore[type-arg]
    pass


class Untouchable:
    def __getattribute__(self, name: str) -> Any:
        raise AssertionError(f"read {name}")


# --- payload ---------------------------------------------------------------------------------


def test_payload(evaluator: ModuleType) -> None:
    raw: dict[str, Any] = {"a": 1}
    read = evaluator._function_state_data
    assert read(raw) is raw
    assert read(evaluator.FunctionState("f", raw)) is raw
    assert read(SimpleNamespace(state_data=raw)) is raw
    nested = {"state_data": raw}
    assert read(nested) is nested
    for falsy in ({}, [], 0, "", False):
        assert read(falsy) is falsy
        assert read(SimpleNamespace(state_data=falsy)) is falsy


def test_absent_payload_is_a_new_dict(evaluator: ModuleType) -> None:
    read = evaluator._function_state_data
    for state in (None, SimpleNamespace(state_data=None)):
        assert read(state) == {} and type(read(state)) is dict
        assert read(state) is not read(state)


def test_failing_payload_passes_through(evaluator: ModuleType) -> None:
    error = OSError("gone")
    state = type("State", (), {"state_data": property(raising(error))})()
    with pytest.raises(OSError) as caught:
        evaluator._function_state_data(state)
    assert caught.value is error


# --- version ---------------------------------------------------------------------------------


class VersionRegistry:
    """Answers with a version; logs what it is asked."""

    def __init__(self) -> None:
        self.log: list[tuple[str, Any]] = []

    def get_function_version(self, name: str) -> Any:
        self.log.append(("get_function_version", name))
        return {"odd": "version"}

    def get_entry(self, name: str) -> Any:
        self.log.append(("get_entry", name))
        return SimpleNamespace(function_version=4)


@pytest.mark.parametrize(
    ("state", "version"),
    [
        (SimpleNamespace(function_version=7), 7),
        (SimpleNamespace(function_version=None), None),
        ({"function_version": 7}, 7),
        ({"function_version": None}, None),
        (Payload(function_version=0), 0),
    ],
)
def test_version_of_the_state_needs_no_registry(
    evaluator: ModuleType, state: Any, version: Any
) -> None:
    assert evaluator._function_state_version(Untouchable(), "f", state) == version


def test_attribute_wins_over_key(evaluator: ModuleType) -> None:
    state = Payload(function_version=1)
    state.function_version = 2  # type: ignore[attr-defined]
    assert evaluator._function_state_version(None, "f", state) == 2


@pytest.mark.parametrize(
    "state", [{}, None, MappingProxyType({"function_version": 7}), "function_version"]
)
def test_version_of_the_registry(evaluator: ModuleType, state: Any) -> None:
    registry = VersionRegistry()
    assert evaluator._function_state_version(registry, "f", state) == {"odd": "version"}
    assert registry.log == [("get_function_version", "f")]


@pytest.mark.parametrize("version", [None, "text", 3])
def test_version_method_that_cannot_be_called(evaluator: ModuleType, version: Any) -> None:
    registry = VersionRegistry()
    registry.get_function_version = version  # type: ignore[method-assign]
    assert evaluator._function_state_version(registry, "f", {}) == 4
    assert registry.log == [("get_entry", "f")]


@pytest.mark.parametrize(
    ("registry", "version"),
    [
        (None, 1),
        (object(), 1),
        (SimpleNamespace(get_entry=5), 1),
        (SimpleNamespace(get_entry=lambda name: None), 1),
        (SimpleNamespace(get_entry=lambda name: SimpleNamespace()), 1),
        (SimpleNamespace(get_entry=lambda name: SimpleNamespace(function_version=None)), None),
        (SimpleNamespace(get_entry=lambda name: SimpleNamespace(function_version=name)), "f"),
        (SimpleNamespace(get_function_version=lambda name: None), None),
    ],
)
def test_version_of_an_entry_or_none_at_all(
    evaluator: ModuleType, registry: Any, version: Any
) -> None:
    assert evaluator._function_state_version(registry, "f", {}) == version


@pytest.mark.parametrize("error", [OSError("gone"), KeyboardInterrupt()], ids=["error", "stop"])
def test_failing_registry_passes_through(evaluator: ModuleType, error: BaseException) -> None:
    fail = raising(error)
    for registry in (
        SimpleNamespace(get_function_version=fail),
        SimpleNamespace(get_entry=fail),
        type("Registry", (), {"get_function_version": property(fail)})(),
        type("Registry", (), {"get_entry": property(fail)})(),
    ):
        with pytest.raises(type(error)) as caught:
            evaluator._function_state_version(registry, "f", {})
        assert caught.value is error


# --- the registry's class --------------------------------------------------------------------


def registry_of(module: Any, base: type = object) -> Any:
    return type("Registry", (base,), {"__module__": module})()


@pytest.fixture
def declaring(monkeypatch: pytest.MonkeyPatch) -> Iterator[ModuleType]:
    """A module named "declaring", imported already, without a state class as yet."""
    module = ModuleType("declaring")
    monkeypatch.setitem(sys.modules, "declaring", module)
    yield module


def test_class_of_the_registry_s_module(evaluator: ModuleType, declaring: ModuleType) -> None:
    registry = registry_of("declaring")
    find = evaluator._registry_function_state_class
    assert find(registry) is None
    declaring.FunctionState = 5  # type: ignore[attr-defined]
    assert find(registry) == 5
    declaring.FunctionState = TypedState  # type: ignore[attr-defined]
    assert find(registry) is TypedState
    assert find(TypedStateRegistry()) is TypedState
    assert find(RecordingRegistry()) is None


def test_module_of_a_base_class_does_not_count(evaluator: ModuleType) -> None:
    registry = registry_of("support.registries", TypedStateRegistry)
    assert evaluator._registry_function_state_class(registry) is None


@pytest.mark.parametrize("module", ["", None, 0, 5, "no.such.module", ".relative", "json.nothing"])
def test_no_module_no_class(evaluator: ModuleType, module: Any) -> None:
    assert evaluator._registry_function_state_class(registry_of(module)) is None


def test_no_registry_no_class(evaluator: ModuleType) -> None:
    assert evaluator._registry_function_state_class(None) is None


def test_class_that_the_registry_claims(evaluator: ModuleType) -> None:
    class Proxy:
        @property
        def __class__(self) -> Any:
            return TypedStateRegistry

    assert evaluator._registry_function_state_class(Proxy()) is TypedState


def test_module_is_imported_when_it_must_be(
    evaluator: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.syspath_prepend(tmp_path)
    (tmp_path / "late_registry.py").write_text("FunctionState = 'late'\n")
    (tmp_path / "broken_registry.py").write_text("raise OSError('broken')\n")
    (tmp_path / "stopping_registry.py").write_text("raise KeyboardInterrupt\n")
    find = evaluator._registry_function_state_class
    try:
        assert find(registry_of("late_registry")) == "late"
        assert find(registry_of("broken_registry")) is None
        with pytest.raises(KeyboardInterrupt):
            find(registry_of("stopping_registry"))
    finally:
        sys.modules.pop("late_registry", None)


def test_only_the_import_is_guarded(evaluator: ModuleType, declaring: ModuleType) -> None:
    error = ValueError("no")
    declaring.__getattr__ = raising(error)  # type: ignore[method-assign]
    with pytest.raises(ValueError) as caught:
        evaluator._registry_function_state_class(registry_of("declaring"))
    assert caught.value is error


def test_importlib_is_looked_up_when_used(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    asked: list[Any] = []

    def import_module(*args: Any, **kwargs: Any) -> Any:
        asked.append((args, kwargs))
        return SimpleNamespace(FunctionState="patched")

    monkeypatch.setattr(evaluator, "importlib", SimpleNamespace(import_module=import_module))
    for _ in range(2):
        assert evaluator._registry_function_state_class(registry_of("anywhere")) == "patched"
    assert asked == [(("anywhere",), {})] * 2
    assert evaluator._registry_function_state_class(registry_of("")) is None
    assert len(asked) == 2


# --- what the registry is handed -------------------------------------------------------------


def test_no_state(evaluator: ModuleType) -> None:
    assert evaluator._state_for_registry_restore(Untouchable(), "f", None) is None


def test_typed_state_passes_unchanged(evaluator: ModuleType) -> None:
    for state in (
        TypedState("g", 3, {"a": 1}),
        SimpleNamespace(function_name=None, function_version=None, data=None),
    ):
        assert evaluator._state_for_registry_restore(Untouchable(), "f", state) is state


def test_typed_state_is_told_by_three_attributes_in_order(evaluator: ModuleType) -> None:
    asked: list[str] = []

    class Almost:
        function_name = "g"
        function_version = 5

        def __getattr__(self, name: str) -> Any:
            asked.append(name)
            raise AttributeError(name)

    class Nothing:
        def __getattr__(self, name: str) -> Any:
            asked.append(name)
            raise AttributeError(name)

    registry = TypedStateRegistry()
    state = Almost()
    restored = evaluator._state_for_registry_restore(registry, "f", state)
    assert asked[0] == "data"
    assert restored == TypedState("f", 5, state)
    asked.clear()
    evaluator._state_for_registry_restore(registry, "f", Nothing())
    assert asked[0] == "function_name"
    assert "data" not in asked


def test_state_of_this_module_becomes_typed(evaluator: ModuleType) -> None:
    data = {"a": 1}
    registry = TypedStateRegistry({"f": SimpleNamespace(function_version=6)})
    state = evaluator.FunctionState("its own name", data)
    restored = evaluator._state_for_registry_restore(registry, "f", state)
    assert restored == TypedState("f", 6, data)
    assert restored.data is data


@pytest.mark.parametrize(
    ("state", "version", "payload"),
    [
        ({"a": 1}, 1, {"a": 1}),
        ({"function_version": 9}, 9, {"function_version": 9}),
        ({"function_name": "g", "data": {}}, 1, {"function_name": "g", "data": {}}),
        (SimpleNamespace(state_data=None, function_version=2), 2, {}),
        (
            MappingProxyType({"function_name": 1, "function_version": 2, "data": 3}),
            1,
            MappingProxyType({"function_name": 1, "function_version": 2, "data": 3}),
        ),
    ],
)
def test_other_states_become_typed(
    evaluator: ModuleType, state: Any, version: Any, payload: Any
) -> None:
    restored = evaluator._state_for_registry_restore(TypedStateRegistry(), "f", state)
    assert restored == TypedState("f", version, payload)


@pytest.mark.parametrize("kind", [dict, Payload])
def test_raw_form_of_a_typed_state(evaluator: ModuleType, kind: type) -> None:
    registry = TypedStateRegistry()
    state = kind(function_name="g", function_version=None, data=7, more=8)
    restored = evaluator._state_for_registry_restore(registry, "f", state)
    assert restored == TypedState("g", None, 7)
    assert registry.calls == []


@pytest.mark.parametrize("registry", [RecordingRegistry(), None])
def test_registry_without_a_typed_state_gets_what_there_is(
    evaluator: ModuleType, registry: Any
) -> None:
    for state in (
        {"function_name": "g", "function_version": 1, "data": {}},
        {"a": 1},
        evaluator.FunctionState("f", {"a": 1}),
        5,
    ):
        assert evaluator._state_for_registry_restore(registry, "f", state) is state


def test_state_class_with_another_constructor(evaluator: ModuleType) -> None:
    registry = registry_of(evaluator.__name__)
    assert evaluator._registry_function_state_class(registry) is evaluator.FunctionState
    state = {"a": 1}
    assert evaluator._state_for_registry_restore(registry, "f", state) is state


def test_state_class_is_called_with_keywords(evaluator: ModuleType, declaring: ModuleType) -> None:
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def build(*args: Any, **kwargs: Any) -> str:
        calls.append((args, kwargs))
        return "built"

    declaring.FunctionState = build  # type: ignore[attr-defined]
    registry = registry_of("declaring")
    assert evaluator._state_for_registry_restore(registry, "f", {"a": 1}) == "built"
    assert calls == [((), {"function_name": "f", "function_version": 1, "data": {"a": 1}})]


@pytest.mark.parametrize("error", [ValueError("no"), KeyboardInterrupt(), TypeError("no")])
def test_only_a_type_error_of_the_state_class_is_tolerated(
    evaluator: ModuleType, declaring: ModuleType, error: BaseException
) -> None:
    declaring.FunctionState = raising(error)  # type: ignore[attr-defined]
    registry, state = registry_of("declaring"), {"a": 1}
    if isinstance(error, TypeError):
        assert evaluator._state_for_registry_restore(registry, "f", state) is state
    else:
        with pytest.raises(type(error)) as caught:
            evaluator._state_for_registry_restore(registry, "f", state)
        assert caught.value is error


def test_type_error_of_the_version_lookup_is_not(evaluator: ModuleType) -> None:
    error = TypeError("no version")
    registry = TypedStateRegistry()
    registry.get_entry = raising(error)  # type: ignore[method-assign]
    with pytest.raises(TypeError) as caught:
        evaluator._state_for_registry_restore(registry, "f", {"a": 1})
    assert caught.value is error


def test_what_claims_to_be_a_dict_is_read_as_one(evaluator: ModuleType) -> None:
    state = MagicMock(spec=dict)
    state.__contains__.side_effect = {"function_version": 9}.__contains__
    state.__getitem__.side_effect = {"function_version": 9}.__getitem__
    assert evaluator._function_state_version(None, "f", state) == 9
