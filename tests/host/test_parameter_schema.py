"""Reading the parameters that a registry entry describes."""

from __future__ import annotations

from collections import namedtuple
from collections.abc import Iterator
from types import MappingProxyType, ModuleType, SimpleNamespace
from typing import Any
from unittest.mock import Mock

import pytest
from support.functions import raising
from support.registries import entry


class Pair(tuple):  # type: ignore[type-arg]
    pass


class Constraint(dict):  # type: ignore[type-arg]
    pass


class Text(str):
    pass


Parameter = namedtuple("Parameter", ["name", "type"])


def item(**attributes: Any) -> SimpleNamespace:
    return SimpleNamespace(**attributes)


def test_kinds_of_literal_configuration(evaluator: ModuleType) -> None:
    assert {"float", "int", "string", "bool"} == evaluator._CONFIG_CHILD_TYPES
    assert isinstance(evaluator._CONFIG_CHILD_TYPES, (set, frozenset))


def test_no_schema_has_no_items(evaluator: ModuleType) -> None:
    assert evaluator._iter_schema_items(None) == ()


@pytest.mark.parametrize("schema", [[1, 2], [], (), {}, "text", 0, object()])
def test_schema_itself_is_the_iterable(evaluator: ModuleType, schema: Any) -> None:
    assert evaluator._iter_schema_items(schema) is schema


PARAMETERS: list[tuple[Any, Any]] = [
    (("window", {"type": "int"}), ("window", "int")),
    (("window", {}), ("window", None)),
    (("window", Constraint(type="int")), ("window", "int")),
    (("window", "int"), ("window", "int")),
    (("window", Text("int")), ("window", "int")),
    (("window", item(type="int")), ("window", "int")),
    (("window", object()), ("window", None)),
    (("window", None), ("window", None)),
    (("window", MappingProxyType({"type": "int"})), ("window", None)),
    ((None, "int"), (None, "int")),
    (("", {"type": None, "name": "other"}), ("", None)),
    (Pair(("window", "int")), ("window", "int")),
    (("window",), ("fallback", None)),
    (("window", "int", 3), ("fallback", None)),
    ((), ("fallback", None)),
    (["window", "int"], ("fallback", None)),
    ({"name": "window", "type": "int"}, ("window", "int")),
    ({"type": "float"}, ("fallback", "float")),
    ({"name": None, "type": "float"}, (None, "float")),
    ({}, ("fallback", None)),
    (Constraint(name="window"), ("window", None)),
    (item(name="window", type="int"), ("window", "int")),
    (item(type="int"), ("fallback", "int")),
    (item(name=None), (None, None)),
    (None, ("fallback", None)),
    ("window", ("fallback", None)),
    (5, ("fallback", None)),
    # a pair wins over the names that a tuple may carry
    (Parameter({"of": "pair"}, "int"), ({"of": "pair"}, "int")),
]


@pytest.mark.parametrize(("given", "expected"), PARAMETERS)
def test_name_and_type_of_an_item(evaluator: ModuleType, given: Any, expected: Any) -> None:
    found = evaluator._schema_param_name_and_type(given, "fallback")
    assert type(found) is tuple
    assert found == expected
    without = evaluator._schema_param_name_and_type(given)
    assert without == tuple(None if part == "fallback" else part for part in expected)


def test_name_and_type_keep_identity(evaluator: ModuleType) -> None:
    name, kind = object(), object()
    for given in ((name, {"type": kind}), {"name": name, "type": kind}, item(name=name, type=kind)):
        found = evaluator._schema_param_name_and_type(given, "fallback")
        assert found[0] is name and found[1] is kind


def test_triple_with_attributes(evaluator: ModuleType) -> None:
    triple = namedtuple("triple", ["name", "type", "doc"])("window", "int", "")
    assert evaluator._schema_param_name_and_type(triple) == ("window", "int")


def test_dict_methods_of_a_subclass_are_used(evaluator: ModuleType) -> None:
    class Shouting(dict):  # type: ignore[type-arg]
        def get(self, key: Any, default: Any = None) -> Any:
            return f"{key}!"

    assert evaluator._schema_param_name_and_type(Shouting()) == ("name!", "type!")
    assert evaluator._schema_param_name_and_type(("a", Shouting())) == ("a", "type!")


@pytest.mark.parametrize(
    "given",
    [
        lambda fail: type("Item", (), {"name": property(fail)})(),
        lambda fail: type("Item", (), {"type": property(fail)})(),
        lambda fail: ("window", type("Constraint", (), {"type": property(fail)})()),
    ],
)
def test_failing_attribute_passes_through(evaluator: ModuleType, given: Any) -> None:
    error = OSError("gone")
    with pytest.raises(OSError) as caught:
        evaluator._schema_param_name_and_type(given(raising(error)))
    assert caught.value is error


SCHEMAS: list[tuple[Any, list[str]]] = [
    ([{"name": "a", "type": "array"}, {"type": "int"}], ["param_1"]),
    ({"window": {"type": "int"}, "data": {"type": "array"}, "k": "float"}, ["window", "k"]),
    (Constraint(window="int", flag={"type": "bool"}), ["window", "flag"]),
    ({1: "int", "": "int", None: "int", 0: "int", (2,): "string"}, ["1", "(2,)"]),
    ([("a", "int"), ["b", "int"], ("c", "string")], ["a", "c"]),
    (
        [item(name="a", type="float"), item(type="bool"), item(name=3, type="int")],
        ["a", "param_1", "3"],
    ),
    ([{"name": "", "type": "int"}, {"name": None, "type": "int"}], []),
    ([{"name": "a", "type": "INT"}, {"name": "b", "type": None}, {"name": "c"}], []),
    ([{"name": "a", "type": Text("int")}, {"name": "a", "type": "int"}], ["a", "a"]),
    ((("a", "int"),), ["a"]),
    ("int", []),
    ([], []),
    ({}, []),
    (None, []),
]


@pytest.mark.parametrize(("schema", "names"), SCHEMAS)
def test_names_that_literal_children_fill(
    evaluator: ModuleType, schema: Any, names: list[str]
) -> None:
    found = evaluator._config_param_names(entry(param_schema=schema))
    assert type(found) is list
    assert found == names
    assert all(type(name) is str for name in found)


def test_any_iterable_is_a_schema(evaluator: ModuleType) -> None:
    def items() -> Iterator[Any]:
        yield {"type": "int"}
        yield {"type": "array"}
        yield {"type": "bool"}

    names = evaluator._config_param_names(entry(param_schema=items()))
    assert names == ["param_0", "param_2"]


def test_mapping_that_is_no_dict_is_iterated(evaluator: ModuleType) -> None:
    schema = MappingProxyType({"window": {"type": "int"}})
    assert evaluator._config_param_names(entry(param_schema=schema)) == []


def test_entry_without_a_schema(evaluator: ModuleType) -> None:
    assert evaluator._config_param_names(entry()) == []
    assert evaluator._config_param_names(None) == []


def test_names_are_converted_by_str(evaluator: ModuleType) -> None:
    class Name:
        def __str__(self) -> str:
            return "window"

    assert evaluator._config_param_names(entry(param_schema=[(Name(), "int")])) == ["window"]


def test_items_of_a_dict_are_taken_at_once(evaluator: ModuleType) -> None:
    schema: dict[str, Any] = {}

    class Adding:
        @property
        def type(self) -> str:
            schema["more"] = "int"
            return "int"

    schema["a"] = Adding()
    assert evaluator._config_param_names(entry(param_schema=schema)) == ["a"]
    assert list(schema) == ["a", "more"]


def test_name_is_asked_for_its_truth_only_when_the_type_counts(evaluator: ModuleType) -> None:
    class Unsure:
        def __bool__(self) -> bool:
            raise ArithmeticError("unsure")

    schema = [(Unsure(), "array")]
    assert evaluator._config_param_names(entry(param_schema=schema)) == []
    with pytest.raises(ArithmeticError, match="unsure"):
        evaluator._config_param_names(entry(param_schema=[(Unsure(), "int")]))


@pytest.mark.parametrize(
    ("schema", "error"),
    [
        (5, TypeError),
        ([("a", ["int"])], None),
        ([{"name": "a", "type": ["int"]}], TypeError),
        ({"a": {"type": {}}}, TypeError),
    ],
)
def test_what_cannot_be_read(
    evaluator: ModuleType, schema: Any, error: type[Exception] | None
) -> None:
    described = entry(param_schema=schema)
    if error is None:
        assert evaluator._config_param_names(described) == []
    else:
        with pytest.raises(error):
            evaluator._config_param_names(described)


@pytest.mark.parametrize("error", [OSError("gone"), KeyboardInterrupt()], ids=["error", "stop"])
def test_failing_schema_passes_through(evaluator: ModuleType, error: BaseException) -> None:
    fail = raising(error)
    for described in (
        type("Entry", (), {"param_schema": property(fail)})(),
        entry(param_schema=type("Schema", (), {"__iter__": fail})()),
        entry(param_schema=type("Schema", (dict,), {"items": fail})()),
    ):
        with pytest.raises(type(error)) as caught:
            evaluator._config_param_names(described)
        assert caught.value is error


def test_kinds_are_looked_up_when_used(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(evaluator, "_CONFIG_CHILD_TYPES", {"array"})
    described = entry(param_schema={"a": "int", "b": "array"})
    assert evaluator._config_param_names(described) == ["b"]


def test_what_claims_to_be_a_dict_is_read_as_one(evaluator: ModuleType) -> None:
    schema = Mock(spec=dict)
    schema.items.return_value = [("window", {"type": "int"})]
    schema.keys.return_value = ["window"]
    described = entry(param_schema=schema)
    assert evaluator._config_param_names(described) == ["window"]
    assert evaluator._param_schema_names(described) == {"window"}
    constraint = Mock(spec=dict)
    constraint.get.return_value = "int"
    assert evaluator._schema_param_name_and_type(("a", constraint)) == ("a", "int")
