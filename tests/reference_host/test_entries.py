"""Entries and parameters refuse what a registry couldn't use, when they are made."""

from __future__ import annotations

import copy
import dataclasses
import pickle
from functools import partial
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, Parameter, default_registry
from quernbrook.simulator_engine._types import FunctionExecutionError


class Clip:
    stateful = False
    arity = 1

    def __init__(self, limit: float) -> None:
        self.limit = limit

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return np.clip(row, -self.limit, self.limit)


class Total:
    """Has all that a stateful instance needs but `restore`."""

    stateful = True
    arity = 1

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row

    def get_state(self) -> dict[str, Any]:
        return {"count": 1}


LIMIT = {"limit": Parameter("float", 3.0)}


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        (
            ("integer",),
            "a parameter's type is one of int, float, string, bool, number, flag; got 'integer'",
        ),
        (
            (int,),
            "a parameter's type is one of int, float, string, bool, number, flag; got <class 'int'>",
        ),
        (
            (["int"],),
            "a parameter's type is one of int, float, string, bool, number, flag; got ['int']",
        ),
        (("int", 2.0), "the default of a parameter of type int can't be 2.0"),
        (("int", True), "the default of a parameter of type int can't be True"),
        (("float", "1"), "the default of a parameter of type float can't be '1'"),
        (("string", None), "the default of a parameter of type string can't be None"),
        (("bool", 0), "the default of a parameter of type bool can't be 0"),
    ],
)
def test_parameter_that_no_graph_could_fill(arguments: tuple[Any, ...], text: str) -> None:
    with pytest.raises(ValueError) as caught:
        Parameter(*arguments)
    assert str(caught.value) == text


def test_required_parameters_stay_required_in_a_copy() -> None:
    registry = default_registry()
    for copied in (copy.deepcopy(registry), pickle.loads(pickle.dumps(registry))):
        with pytest.raises(FunctionExecutionError, match="missing parameter: window"):
            copied.create_instance("longitudinal_mean")


def test_parameter_with_a_default_of_its_type() -> None:
    for kind, default in (("int", 2), ("float", 2), ("float", 2.5), ("string", ""), ("bool", True)):
        assert Parameter(kind, default).default == default


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ({"name": 3}, "a function's name must be a text; got 3"),
        ({"name": ""}, "a function's name must be a text; got ''"),
        ({"family": None}, "Function 'clip': family must be a text; got None"),
        ({"build": Clip(1.0).limit}, "Function 'clip': build must be callable; got 1.0"),
        ({"stateful": 0}, "Function 'clip': stateful must be True or False; got 0"),
        ({"library": "no"}, "Function 'clip': library must be True or False; got 'no'"),
        ({"function_version": "2"}, "Function 'clip': function_version must be an int; got '2'"),
        (
            {"param_schema": [("limit", "float")]},
            "Function 'clip': param_schema must be a dict of name to Parameter; "
            "got [('limit', 'float')]",
        ),
        (
            {"param_schema": {"limit": "float"}},
            "Function 'clip': param_schema must be a dict of name to Parameter; "
            "got 'float' for 'limit'",
        ),
        (
            {"param_schema": {1: Parameter("float")}},
            "Function 'clip': param_schema must be a dict of name to Parameter; got the name 1",
        ),
    ],
)
def test_entry_of_the_wrong_types(arguments: dict[str, Any], text: str) -> None:
    with pytest.raises(TypeError) as caught:
        FunctionEntry(
            **{"name": "clip", "family": "mine", "build": Clip, "param_schema": LIMIT, **arguments}
        )
    assert str(caught.value) == text


@pytest.mark.parametrize("name", ["A", "N_alloc"])
def test_parameter_with_a_name_of_the_engine_s_own(name: str) -> None:
    with pytest.raises(ValueError) as caught:
        FunctionEntry("clip", "mine", build=dict, param_schema={name: Parameter("int")})
    assert str(caught.value) == (
        f"Function 'clip': no graph may set '{name}', which is the engine's own"
    )


@pytest.mark.parametrize(
    ("build", "schema", "reason"),
    [
        (Clip, {}, "missing a required argument: 'limit'"),
        (Clip, {"bound": Parameter("float")}, "missing a required argument: 'limit'"),
        (
            Clip,
            {**LIMIT, "invert": Parameter("bool", False)},
            "got an unexpected keyword argument 'invert'",
        ),
    ],
)
def test_class_with_another_init_is_named(build: Any, schema: Any, reason: str) -> None:
    with pytest.raises(TypeError) as caught:
        FunctionEntry("clip", "mine", build=build, param_schema=schema)
    parameters = ", ".join(schema) or "none"
    assert str(caught.value) == (
        f"Function 'clip': Clip can't be made from its parameters ({parameters}): {reason}"
    )


def test_function_that_builds_is_held_to_the_parameters_too() -> None:
    def build(limit: float) -> Clip:
        return Clip(limit)

    FunctionEntry("clip", "mine", build=build, param_schema=LIMIT)
    FunctionEntry("clip", "mine", build=partial(build, limit=2.0))
    FunctionEntry("clip", "mine", build=lambda **config: Clip(**config), param_schema=LIMIT)
    with pytest.raises(TypeError, match="missing a required argument: 'limit'"):
        FunctionEntry("clip", "mine", build=build)


def test_what_tells_no_signature_is_taken() -> None:
    FunctionEntry("map", "mine", build=dict, param_schema=LIMIT)


def test_stateful_class_without_restore_is_named() -> None:
    with pytest.raises(TypeError) as caught:
        FunctionEntry("total", "mine", build=Total, stateful=True)
    assert str(caught.value) == (
        "Function 'total': Total has no method restore(state_data), which a stateful function needs"
    )


def test_stateful_class_without_get_state_is_named() -> None:
    with pytest.raises(TypeError) as caught:
        FunctionEntry("clip", "mine", build=Clip, param_schema=LIMIT, stateful=True)
    assert str(caught.value) == (
        "Function 'clip': Clip has no method get_state(), which a stateful function needs"
    )


def test_instance_without_restore_is_named() -> None:
    registry = FunctionRegistry([FunctionEntry("total", "mine", lambda: Total(), stateful=True)])
    with pytest.raises(FunctionExecutionError) as caught:
        registry.create_instance_from_state("total", {"count": 3})
    assert str(caught.value) == (
        "Function 'total' can't restore its state: Total has no method restore(state_data)"
    )


def test_instance_that_cannot_be_made_is_named() -> None:
    def build(limit: float) -> Clip:
        return Clip(limit, "surplus")  # type: ignore[call-arg]

    registry = FunctionRegistry([FunctionEntry("clip", "mine", build, LIMIT)])
    with pytest.raises(FunctionExecutionError) as caught:
        registry.create_instance("clip")
    assert str(caught.value).startswith("Function 'clip' can't be made with limit=3.0: TypeError: ")
    assert isinstance(caught.value.__cause__, TypeError)


class Named:
    stateful = False

    def __init__(self, name: str, restore_state: str) -> None:
        self.parameters = (name, restore_state)


def test_parameters_may_have_any_name() -> None:
    registry = FunctionRegistry()
    text = Parameter("string")
    registry.register(FunctionEntry("named", "mine", Named, {"name": text, "restore_state": text}))
    made = registry.create_instance("named", name="a", restore_state="b")
    assert made.parameters == ("a", "b")


def test_registry_takes_entries_alone() -> None:
    with pytest.raises(TypeError) as caught:
        FunctionRegistry().register(Clip)  # type: ignore[arg-type]
    assert str(caught.value) == f"a registry takes a FunctionEntry; got {Clip!r}"


def test_names() -> None:
    registry = default_registry()
    registry.register(FunctionEntry("clip", "mine", Clip, LIMIT))
    names = registry.names()
    assert "clip" in names and "longitudinal_mean" in names
    assert names == sorted(names)
    assert all(map(registry.has, names))


def test_entry_can_be_altered_by_a_copy() -> None:
    entry = default_registry().get_entry("longitudinal_mean")
    assert dataclasses.replace(entry, library=False).factory is entry.build
