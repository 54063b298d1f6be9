"""The shapes that cross the boundary between the host and the evaluator."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any


class SchemaError(Exception):
    """A value of the wrong type at an interface."""


@dataclass(init=False, eq=False)
class FunctionGraphNode:
    """One node of an expression graph.

    ``type`` is the node's kind ("feature", "rotation", "int", ...), ``node`` its name or literal
    value, ``children`` its operands in order and ``config`` its explicit parameters. Two nodes
    are equal only when they are the same object, so a subtree may stand in a graph twice.

    The evaluator keeps its caches on the node as further attributes, and ``copy.deepcopy``
    copies them with it. ``canonical_id`` is an attribute only of a node that was given one:
    "has no identity" and "shares the identity None" are not the same thing.
    """

    type: str
    node: Any
    children: Sequence[FunctionGraphNode] | None
    config: Mapping[str, Any] | None
    if TYPE_CHECKING:
        # Attributes only of nodes that were given them, so that "has none" can be told from None.
        canonical_id: str
        _state_identity: str

    def __init__(
        self,
        type: str,
        node: Any,
        children: Sequence[FunctionGraphNode] | None = None,
        config: Mapping[str, Any] | None = None,
        canonical_id: str | None = None,
    ) -> None:
        self.type = type
        self.node = node
        self.children = children
        self.config = config
        if canonical_id is not None:
            self.canonical_id = canonical_id


class StageData:
    """Arrays (and any other values) that earlier stages produced, by name.

    A graph may name a two-dimensional array held here as if it were a feature.
    """

    def __init__(self, values: Mapping[str, Any] | None = None) -> None:
        self._values = {} if values is None else dict(values)

    def is_empty(self) -> bool:
        return not self._values

    def value(self, name: str, default: Any = None) -> Any:
        return self._values.get(name, default)

    def __repr__(self) -> str:
        return f"StageData({sorted(self._values)})"
