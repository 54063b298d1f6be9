"""The state record: its fields and its bytes."""

from __future__ import annotations

import dataclasses
import json
import math
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest


def test_is_a_plain_dataclass(evaluator: ModuleType) -> None:
    kind = evaluator.FunctionState
    assert dataclasses.is_dataclass(kind)
    assert kind.__bases__ == (object,)
    name, data = dataclasses.fields(kind)
    assert (name.name, data.name) == ("name", "state_data")
    assert name.default is dataclasses.MISSING and name.default_factory is dataclasses.MISSING
    assert data.default is dataclasses.MISSING and data.default_factory is dict
    assert list(kind.__annotations__) == ["name", "state_data"]
    assert kind.__match_args__ == ("name", "state_data")


def test_construction(evaluator: ModuleType) -> None:
    data: dict[str, Any] = {}
    for state in (
        evaluator.FunctionState("f", data),
        evaluator.FunctionState(name="f", state_data=data),
    ):
        assert vars(state) == {"name": "f", "state_data": {}}
        assert state.state_data is data
    with pytest.raises(TypeError):
        evaluator.FunctionState()
    with pytest.raises(TypeError):
        evaluator.FunctionState("f", {}, 1)


def test_default_data_is_a_new_dict(evaluator: ModuleType) -> None:
    one, two = evaluator.FunctionState("f"), evaluator.FunctionState("g")
    assert one.state_data == {} and one.state_data is not two.state_data


def test_text_equality_and_hash(evaluator: ModuleType) -> None:
    state = evaluator.FunctionState("f", {"a": 1})
    assert repr(state) == "FunctionState(name='f', state_data={'a': 1})"
    assert state == evaluator.FunctionState("f", {"a": 1})
    assert state != evaluator.FunctionState("g", {"a": 1})
    assert state != evaluator.FunctionState("f")
    assert state != ("f", {"a": 1})
    assert state.__eq__(SimpleNamespace(name="f", state_data={"a": 1})) is NotImplemented
    with pytest.raises(TypeError, match="unhashable"):
        hash(state)
    with pytest.raises(TypeError):
        state < state  # noqa: B015, PLR0124
    assert evaluator.FunctionState.__hash__ is None


def test_fields_are_mutable(evaluator: ModuleType) -> None:
    state = evaluator.FunctionState("f")
    state.name, state.state_data, state.more = "g", None, 1
    assert (state.name, state.state_data, state.more) == ("g", None, 1)
    assert dataclasses.replace(state, name="h").name == "h"
    assert dataclasses.asdict(evaluator.FunctionState("f", {"a": [1]})) == {
        "name": "f",
        "state_data": {"a": [1]},
    }


# --- bytes -----------------------------------------------------------------------------------

BYTES: list[tuple[Any, Any, bytes]] = [
    ("f", {}, b'{"name": "f", "state_data": {}}'),
    (
        "longitudinal_mean",
        {"count": 3},
        b'{"name": "longitudinal_mean", "state_data": {"count": 3}}',
    ),
    ("é\n", {"ü": "\u2028"}, b'{"name": "\\u00e9\\n", "state_data": {"\\u00fc": "\\u2028"}}'),
    ("\U0001f600", {}, b'{"name": "\\ud83d\\ude00", "state_data": {}}'),
    ("\ud800", {}, b'{"name": "\\ud800", "state_data": {}}'),
    (
        "f",
        {"b": 1, "a": [1.5, True, None]},
        b'{"name": "f", "state_data": {"b": 1, "a": [1.5, true, null]}}',
    ),
    (
        "f",
        {"x": math.inf, "y": -math.inf, "z": math.nan},
        b'{"name": "f", "state_data": {"x": Infinity, "y": -Infinity, "z": NaN}}',
    ),
    (
        "f",
        {1: 2, 1.5: 3, False: 4, None: 5},
        b'{"name": "f", "state_data": {"1": 2, "1.5": 3, "false": 4, "null": 5}}',
    ),
    (None, [1, (2, 3)], b'{"name": null, "state_data": [1, [2, 3]]}'),
    ("f", np.float64(0.1), b'{"name": "f", "state_data": 0.1}'),
]


@pytest.mark.parametrize(("name", "data", "stream"), BYTES)
def test_exact_bytes(evaluator: ModuleType, name: Any, data: Any, stream: bytes) -> None:
    written = evaluator.FunctionState(name, data).to_bytes()
    assert type(written) is bytes
    assert written == stream


@pytest.mark.parametrize(
    ("name", "data"),
    [
        ("é\U0001f600\ud800", {"a": [1, 2.5, None, True, "x"]}),
        ("", {}),
        ("f", {"deep": {"er": []}}),
    ],
)
def test_round_trip(evaluator: ModuleType, name: str, data: Any) -> None:
    state = evaluator.FunctionState(name, data)
    assert evaluator.FunctionState.from_bytes(state.to_bytes()) == state


def test_nan_survives(evaluator: ModuleType) -> None:
    stream = evaluator.FunctionState("f", {"x": math.nan}).to_bytes()
    assert math.isnan(evaluator.FunctionState.from_bytes(stream).state_data["x"])


def test_keys_come_back_as_text(evaluator: ModuleType) -> None:
    stream = evaluator.FunctionState("f", {1: 2}).to_bytes()
    assert evaluator.FunctionState.from_bytes(stream).state_data == {"1": 2}


@pytest.mark.parametrize(
    "data", [np.zeros(2), np.int64(1), np.bool_(True), {1}, b"bytes", object(), {(1, 2): 3}]
)
def test_what_json_cannot_write(evaluator: ModuleType, data: Any) -> None:
    payload = data if isinstance(data, dict) else {"x": data}
    with pytest.raises(TypeError) as caught:
        evaluator.FunctionState("f", payload).to_bytes()
    assert caught.value.__cause__ is None


def test_circular_data(evaluator: ModuleType) -> None:
    data: dict[str, Any] = {}
    data["self"] = data
    with pytest.raises(ValueError, match="Circular"):
        evaluator.FunctionState("f", data).to_bytes()


READ: list[tuple[bytes, type[Exception], str | None]] = [
    (b"\xff", UnicodeDecodeError, None),
    (b"{", json.JSONDecodeError, None),
    (b"", json.JSONDecodeError, None),
    (b"\xef\xbb\xbf{}", json.JSONDecodeError, None),
    (b"{}", KeyError, "'name'"),
    (b'{"state_data": {}}', KeyError, "'name'"),
    (b'{"name": "f"}', KeyError, "'state_data'"),
    (b"null", TypeError, "'NoneType' object is not subscriptable"),
    (b"1", TypeError, "'int' object is not subscriptable"),
    (b'["name"]', TypeError, "list indices must be integers or slices, not str"),
]


@pytest.mark.parametrize(("stream", "error", "text"), READ)
def test_what_cannot_be_read(
    evaluator: ModuleType, stream: bytes, error: type[Exception], text: str | None
) -> None:
    with pytest.raises(error) as caught:
        evaluator.FunctionState.from_bytes(stream)
    assert type(caught.value) is error
    assert text is None or str(caught.value) == text
    assert caught.value.__cause__ is None


@pytest.mark.parametrize("data", ["{}", memoryview(b"{}"), None, 5])
def test_only_what_decodes_is_read(evaluator: ModuleType, data: Any) -> None:
    with pytest.raises(AttributeError, match="decode"):
        evaluator.FunctionState.from_bytes(data)


def test_reading_takes_surplus_members_and_any_spacing(evaluator: ModuleType) -> None:
    stream = b' {"more": 1,\n"state_data":null, "name" : "f", "name": "g"} '
    state = evaluator.FunctionState.from_bytes(data=bytearray(stream))
    assert (state.name, state.state_data) == ("g", None)


def test_reading_makes_the_class_it_was_called_on(evaluator: ModuleType) -> None:
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    class Derived(evaluator.FunctionState):  # type: ignore[name-defined]
        def __init__(self, *args: Any, **kwargs: Any) -> None:
            calls.append((args, kwargs))
            super().__init__(*args, **kwargs)

    stream = evaluator.FunctionState("f", {"a": 1}).to_bytes()
    state = Derived.from_bytes(stream)
    assert type(state) is Derived
    assert calls == [((), {"name": "f", "state_data": {"a": 1}})]
    assert type(state.from_bytes(stream)) is Derived
    assert state.to_bytes() == stream


def test_json_is_looked_up_when_used(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    calls: list[tuple[Any, ...]] = []

    def dumps(*args: Any, **kwargs: Any) -> str:
        calls.append(("dumps", args, kwargs))
        return "é"

    def loads(*args: Any, **kwargs: Any) -> Any:
        calls.append(("loads", args, kwargs))
        return {"name": "n", "state_data": "d"}

    monkeypatch.setattr(evaluator, "json", SimpleNamespace(dumps=dumps, loads=loads))
    assert evaluator.FunctionState("f", {"a": 1}).to_bytes() == "é".encode()
    state = evaluator.FunctionState.from_bytes("é".encode())
    assert (state.name, state.state_data) == ("n", "d")
    assert calls == [
        ("dumps", ({"name": "f", "state_data": {"a": 1}},), {}),
        ("loads", ("é",), {}),
    ]
    assert list(calls[0][1][0]) == ["name", "state_data"]
