"""Short builders of graph nodes.

Operands are nodes or plain values: an int becomes a node of kind "int", a float one of "float", a
text one of "string", a truth value one of "bool". So ``rotation("longitudinal_mean",
feature("price"), 20)`` is the mean of the last 20 prices.
"""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode

Operand = FunctionGraphNode | bool | int | float | str
Config = Mapping[str, Any] | None


def feature(name: str, *, canonical_id: str | None = None) -> FunctionGraphNode:
    """The rows of a feature of the context."""
    return FunctionGraphNode("feature", name, canonical_id=canonical_id)


def aggregation(name: str, *, canonical_id: str | None = None) -> FunctionGraphNode:
    """The rows of a loaded aggregate, which is read like a feature."""
    return FunctionGraphNode("aggregation", name, canonical_id=canonical_id)


def number(value: float) -> FunctionGraphNode:
    """A literal of kind "float"."""
    return FunctionGraphNode("float", value)


def integer(value: int) -> FunctionGraphNode:
    """A literal of kind "int"."""
    return FunctionGraphNode("int", value)


def string(value: str) -> FunctionGraphNode:
    """A literal of kind "string"."""
    return FunctionGraphNode("string", value)


def boolean(value: bool) -> FunctionGraphNode:
    """A literal of kind "bool"."""
    return FunctionGraphNode("bool", value)


def rotation(
    function: str, *operands: Operand, config: Config = None, canonical_id: str | None = None
) -> FunctionGraphNode:
    """A function of rows. Raises TypeError for an operand that is neither node nor value."""
    return FunctionGraphNode("rotation", function, _nodes(operands), config, canonical_id)


def reduction(
    function: str, *operands: Operand, config: Config = None, canonical_id: str | None = None
) -> FunctionGraphNode:
    """A function of the signals that a filtration among its operands passes, or of all.

    Raises TypeError like `rotation`.
    """
    return FunctionGraphNode("reduction", function, _nodes(operands), config, canonical_id)


def filtration(operator: str, *operands: Operand) -> FunctionGraphNode:
    """The filter of a reduction, as in ``filtration("top_n", "sharpe", 3)``.

    Raises TypeError like `rotation`.
    """
    return FunctionGraphNode("filtration", operator, _nodes(operands))


def condition(operator: str, *operands: Operand) -> FunctionGraphNode:
    """A filter below another, as in ``filtration("and_", condition("gt", "sharpe", 0.5), ...)``.

    Raises TypeError like `rotation`.
    """
    return FunctionGraphNode(operator, operator, _nodes(operands))


def signal() -> FunctionGraphNode:
    """The place of the signal's graph in the template of a transform stage."""
    return FunctionGraphNode("signal", "signal")


def _nodes(operands: tuple[Operand, ...]) -> list[FunctionGraphNode]:
    return [_node(operand) for operand in operands]


def _node(operand: Operand) -> FunctionGraphNode:
    if isinstance(operand, FunctionGraphNode):
        return operand
    # A bool is an int, too.
    if isinstance(operand, bool):
        return boolean(operand)
    if isinstance(operand, int):
        return integer(operand)
    if isinstance(operand, float):
        return number(operand)
    if isinstance(operand, str):
        return string(operand)
    raise TypeError(
        f"an operand is a node, an int, a float, a text or a bool; got {operand!r} "
        f"({type(operand).__name__})"
    )
