"""The host's node builders with further attributes and any children; and nodes of any kind."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from functools import wraps
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import graphs

Config = dict[str, Any] | None
Builder = Callable[..., FunctionGraphNode]


def node(
    kind: str,
    value: Any,
    children: Sequence[FunctionGraphNode] | None = None,
    config: Config = None,
    **attributes: Any,
) -> FunctionGraphNode:
    """A node of any kind; further keywords (`canonical_id`, ...) are set as attributes."""
    return _set(FunctionGraphNode(kind, value, children, config), attributes)


def _set(built: FunctionGraphNode, attributes: dict[str, Any]) -> FunctionGraphNode:
    for name, attribute in attributes.items():
        setattr(built, name, attribute)
    return built


def _leaf(build: Builder) -> Builder:
    @wraps(build)
    def built(value: Any, **attributes: Any) -> FunctionGraphNode:
        return _set(build(value), attributes)

    return built


def _over_children(build: Builder) -> Builder:
    """The host's builder takes nodes and values; here whatever is given becomes a child."""

    @wraps(build)
    def built(value: str, *children: Any, **attributes: Any) -> FunctionGraphNode:
        return _set(build(value), {"children": list(children), **attributes})

    return built


feature = _leaf(graphs.feature)
aggregation = _leaf(graphs.aggregation)
number = _leaf(graphs.number)
integer = _leaf(graphs.integer)
string = _leaf(graphs.string)
boolean = _leaf(graphs.boolean)
rotation = _over_children(graphs.rotation)
reduction = _over_children(graphs.reduction)
filtration = _over_children(graphs.filtration)
