"""A graph as the checks see it: every node that can be read, with its place."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host.checks.faults import Fault

_FIELDS = ("type", "node", "children", "config")
_NAMED = frozenset({"feature", "aggregation", "rotation", "reduction"})


@dataclass(eq=False)
class Place:
    """A node at its path.

    children: those that are nodes; `is_whole` tells whether that is all of them.
    """

    path: str
    kind: str
    value: Any
    config: Mapping[Any, Any]
    parent: Place | None
    node: FunctionGraphNode
    children: list[Place] = field(default_factory=list)
    is_whole: bool = True

    def all(self) -> Iterator[Place]:
        """Yield this place and all below it, each before its children."""
        pending = [self]
        while pending:
            place = pending.pop()
            yield place
            pending += reversed(place.children)


def read_graph(graph: Any, path: str) -> tuple[Place | None, list[Fault]]:
    """Return the graph's root, None if it is no node, and the faults of what can't be read."""
    root: Place | None = None
    faults: list[Fault] = []
    pending: list[tuple[Any, str, Place | None]] = [(graph, path, None)]
    while pending:
        node, path, parent = pending.pop()
        fault = _unreadable(node, parent)
        if fault is not None:
            faults.append(Fault(path, fault))
            if parent is not None:
                parent.is_whole = False
            continue
        config, children = node.config, node.children
        place = Place(path, node.type, node.node, {}, parent, node)
        if parent is None:
            root = place
        else:
            parent.children.append(place)
        if place.kind in _NAMED and not isinstance(place.value, str):
            faults.append(
                Fault(path, f"the name of a {place.kind} must be a text; got {place.value!r}")
            )
        if isinstance(config, Mapping):
            place.config = config
        elif config is not None:
            faults.append(Fault(path, f"config must be a mapping or None; got {config!r}"))
        if children is None:
            children = ()
        elif not isinstance(children, Sequence) or isinstance(children, str):
            kind = type(children).__name__
            faults.append(Fault(path, f"children must be a sequence of nodes; got {kind}"))
            place.is_whole = False
            children = ()
        below = [(child, f"{path}.c{i}", place) for i, child in enumerate(children)]
        pending += reversed(below)
    return root, faults


def _unreadable(node: Any, parent: Place | None) -> str | None:
    if not isinstance(node, FunctionGraphNode):
        return f"a node must be a FunctionGraphNode; got {type(node).__name__}"
    missing = [name for name in _FIELDS if not hasattr(node, name)]
    if missing:
        return f"the node has no attribute {', '.join(missing)}"
    if not isinstance(node.type, str):
        return f"the kind of a node must be a text; got {node.type!r}"
    above = parent
    while above is not None:
        if above.node is node:
            return f"the node stands below itself: it is also '{above.path}'"
        above = above.parent
    return None
