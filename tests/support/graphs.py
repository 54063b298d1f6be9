"""Short builders of graph nodes."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode

Config = dict[str, Any] | None


def node(
    kind: str,
    value: Any,
    children: Sequence[FunctionGraphNode] | None = None,
    config: Config = None,
    **attributes: Any,
) -> FunctionGraphNode:
    """A node of any kind; further keywords (`canonical_id`, ...) are set as attributes."""
    built = FunctionGraphNode(type=kind, node=value, children=children, config=config)
    for name, attribute in attributes.items():
        setattr(built, name, attribute)
    return built


def feature(name: str, **attributes: Any) -> FunctionGraphNode:
    return node("feature", name, **attributes)


def aggregation(name: str, **attributes: Any) -> FunctionGraphNode:
    return node("aggregation", name, **attributes)


def number(value: Any, **attributes: Any) -> FunctionGraphNode:
    """A literal of kind "float"."""
    return node("float", value, **attributes)


def integer(value: Any, **attributes: Any) -> FunctionGraphNode:
    return node("int", value, **attributes)


def string(value: Any, **attributes: Any) -> FunctionGraphNode:
    return node("string", value, **attributes)


def boolean(value: Any, **attributes: Any) -> FunctionGraphNode:
    return node("bool", value, **attributes)


def rotation(
    function: str, *children: FunctionGraphNode, config: Config = None, **attributes: Any
) -> FunctionGraphNode:
    return node("rotation", function, list(children), config, **attributes)


def reduction(
    function: str, *children: FunctionGraphNode, config: Config = None, **attributes: Any
) -> FunctionGraphNode:
    return node("reduction", function, list(children), config, **attributes)


def filtration(
    operator: str, *children: FunctionGraphNode, config: Config = None, **attributes: Any
) -> FunctionGraphNode:
    return node("filtration", operator, list(children), config, **attributes)
