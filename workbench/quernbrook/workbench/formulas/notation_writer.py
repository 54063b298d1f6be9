"""Nodes that formulas have a name or a sign for."""

from __future__ import annotations

from collections.abc import Sequence
from functools import lru_cache

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.formulas import literals, notation, signs
from quernbrook.workbench.formulas.notation import Notation
from quernbrook.workbench.formulas.reader import parse_formula
from quernbrook.workbench.formulas.signs import ATOM, Text
from quernbrook.workbench.graphs import Visit, canonical_id, same_graph, same_value

_UNARY = {function.function: function for function in notation.UNARY}
_BINARY = {function.function: function for function in notation.BINARY}
_CALLS = {function.function: function for function in notation.CALLS}


def text(visit: Visit, texts: Sequence[Text]) -> Text | None:
    """The text of a node from those of its children, or None if the notation has none for it."""
    node = visit.node
    if node.type != "rotation":
        return None
    name = _defined_name(node)
    if name is not None:
        return Text(name, ATOM)
    rows = [*map(row, visit.children, texts)]
    if _is(visit, notation.CHOICE):
        return signs.choice(*rows)
    if node.node in _UNARY and _is(visit, _UNARY[node.node]):
        return signs.unary(_UNARY[node.node].name, *rows)
    if node.node in _BINARY and _is(visit, _BINARY[node.node]):
        return signs.binary(_BINARY[node.node].name, *rows)
    if node.node in _CALLS and _is(visit, _CALLS[node.node]):
        return _call(_CALLS[node.node], visit.children, rows)
    return None


def row(node: Node, as_argument: Text) -> Text:
    """The text of a child where every number is a float."""
    return literals.row(node) if _is_number(node, "float") else as_argument


def _is_number(node: Node, kind: str) -> bool:
    return node.type == kind and canonical_id(node) is None


def _is(visit: Visit, function: Notation) -> bool:
    """Whether a call of `function` would make this node."""
    node, children = visit.node, visit.children
    fewest = function.rows + function.has_window
    return (
        node.node == function.function
        and same_value(dict(node.config or {}), dict(function.settings))
        and fewest <= len(children) <= len(function.signature)
        and not any(child.type in ("int", "string", "bool") for child in children[: function.rows])
        and all(_is_last_number(child, function) for child in children[function.rows :])
    )


def _is_last_number(node: Node, function: Notation) -> bool:
    if function.has_window:
        return _is_number(node, "int") and int(node.node) >= 1
    return _is_number(node, "float")


def _call(function: Notation, children: Sequence[Node], rows: Sequence[Text]) -> Text:
    operands = [text.text for text in rows]
    if function.name in notation.ALONG_TIME and _is_number(children[1], "float"):
        # A plain number would be read as a window.
        operands[1] = f"float({operands[1]})"
    if function.function == notation.GROUPING and _is_group(children[1]):
        operands[1] = notation.GROUP_PREFIX + children[1].node
    return signs.call(function.name, operands)


def _is_group(node: Node) -> bool:
    return node.type == "feature" and node.node in notation.GROUPS and canonical_id(node) is None


def _defined_name(node: Node) -> str | None:
    """The name of the definition that a node is the root of, whatever its identity."""
    last = (node.children or [node])[-1]
    number = last.node if last.type == "int" else ""
    for name in notation.DEFINED_NAMES:
        candidate = name.replace("{d}", str(number))
        formula = notation.definition(candidate)
        if formula is not None and _is_same_but_for_identity(node, _graph(formula)):
            return candidate
    return None


@lru_cache(maxsize=1024)
def _graph(formula: str) -> Node:
    return parse_formula(formula)


def _is_same_but_for_identity(node: Node, definition: Node) -> bool:
    if node.node != definition.node:
        return False
    return same_graph(Node(node.type, node.node, node.children, node.config), definition)
