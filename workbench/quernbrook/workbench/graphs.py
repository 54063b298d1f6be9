"""Expression graphs as values: their kinds of nodes, a walk over them, and when two are equal."""

from __future__ import annotations

import math
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.simulator_engine.expression_evaluator import FILTRATION_NODE_TYPES
from quernbrook.workbench.names import suggestion

LEAVES = frozenset({"feature", "aggregation"})
LITERALS = frozenset({"float", "int", "string", "bool"})
FUNCTIONS = frozenset({"rotation", "reduction"})
FILTERS: frozenset[str] = FILTRATION_NODE_TYPES
KINDS = LEAVES | LITERALS | FUNCTIONS | FILTERS

# Where a node stands: its parent's place and its number among the children, or None for the root.
Place = tuple["Place", int] | None


class GraphError(ValueError):
    """A graph that has no such form; the message starts with the path of the node at fault."""

    def __init__(self, place: Place, text: str) -> None:
        self.path = path_of(place)
        super().__init__(f"{self.path}: {text}")


@dataclass(frozen=True)
class Visit:
    """A node on a walk."""

    node: FunctionGraphNode
    children: tuple[FunctionGraphNode, ...]
    place: Place


def path_of(place: Place) -> str:
    """The path as the evaluator spells it, "root.c0.c2"."""
    steps = []
    while place is not None:
        place, number = place
        steps.append(f".c{number}")
    return "root" + "".join(reversed(steps))


def children_first(graph: FunctionGraphNode) -> Iterator[Visit]:
    """Visit every node after its children, in their order; deep graphs need no deep stack.

    Raises GraphError for what is no node, and for a node that is its own ancestor.
    """
    open_visits: list[tuple[Visit, Iterator[tuple[int, FunctionGraphNode]]]] = []
    ancestors: set[int] = set()

    def enter(node: FunctionGraphNode, place: Place) -> None:
        if not isinstance(node, FunctionGraphNode):
            raise GraphError(place, f"{type(node).__name__} is no FunctionGraphNode")
        if id(node) in ancestors:
            raise GraphError(place, "the node is its own ancestor")
        ancestors.add(id(node))
        children = tuple(node.children or ())
        open_visits.append((Visit(node, children, place), iter(tuple(enumerate(children)))))

    enter(graph, None)
    while open_visits:
        visit, remaining = open_visits[-1]
        following = next(remaining, None)
        if following is None:
            open_visits.pop()
            ancestors.discard(id(visit.node))
            yield visit
        else:
            number, child = following
            enter(child, (visit.place, number))


def same_graph(left: FunctionGraphNode, right: FunctionGraphNode) -> bool:
    """Whether both graphs have the same nodes in the same places.

    Kinds, names, literal values, configuration and ``canonical_id`` count. No children and an
    empty sequence are the same, and so are no configuration and an empty one. NaN equals NaN.
    """
    pairs = [(left, right)]
    while pairs:
        one, other = pairs.pop()
        children, others = one.children or (), other.children or ()
        if len(children) != len(others) or not _same_fields(one, other):
            return False
        pairs += zip(children, others, strict=True)
    return True


def check_node(visit: Visit) -> None:
    """Raise GraphError unless a node has what its kind allows: a kind that is known, a name, and
    children and configuration only where they mean something."""
    node, kind = visit.node, visit.node.type
    if kind not in KINDS:
        raise GraphError(visit.place, f"unknown kind {kind!r}{suggestion(str(kind), KINDS)}")
    if kind in FILTERS and node.node not in FILTERS:
        near = suggestion(str(node.node), FILTERS)
        raise GraphError(visit.place, f"unknown filter {node.node!r}{near}")
    if kind not in LITERALS and not isinstance(node.node, str):
        raise GraphError(visit.place, f"the name of a {kind} must be a text; got {node.node!r}")
    if visit.children and kind in LEAVES | LITERALS:
        raise GraphError(visit.place, f"a {kind} has no children; got {len(visit.children)}")
    if node.config and kind not in FUNCTIONS:
        raise GraphError(visit.place, f"a {kind} has no configuration; got {dict(node.config)!r}")


def canonical_id(node: FunctionGraphNode) -> str | None:
    found: str | None = getattr(node, "canonical_id", None)
    return found


def _same_fields(left: FunctionGraphNode, right: FunctionGraphNode) -> bool:
    return (
        left.type == right.type
        and _same_literal(left, right)
        and same_value(dict(left.config or {}), dict(right.config or {}))
        and canonical_id(left) == canonical_id(right)
    )


def _same_literal(left: FunctionGraphNode, right: FunctionGraphNode) -> bool:
    if left.type == "float":
        return same_value(float(left.node), float(right.node))
    return bool(left.node == right.node)


def same_value(left: Any, right: Any) -> bool:
    """Whether two values of configurations are equal, their types included; NaN equals NaN."""
    if isinstance(left, Mapping) and isinstance(right, Mapping):
        return left.keys() == right.keys() and all(same_value(left[k], right[k]) for k in left)
    if isinstance(left, list | tuple) and isinstance(right, list | tuple):
        return len(left) == len(right) and all(map(same_value, left, right))
    if type(left) is not type(right):
        return False
    if isinstance(left, float):
        both_nan = math.isnan(left) and math.isnan(right)
        return both_nan or (left == right and math.copysign(1, left) == math.copysign(1, right))
    return bool(left == right)
