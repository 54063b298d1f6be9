"""What stands between two signs of a formula while it is read, each with its place in the text."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node


class Fault(Exception):
    """Something wrong at an offset of the text."""

    def __init__(self, text: str, at: int) -> None:
        super().__init__(text)
        self.at = at


@dataclass(frozen=True)
class Number:
    """A number whose kind depends on where it stands: a row, a window or a literal.

    is_plain: it has neither sign nor parentheses.
    """

    at: int
    value: int | float
    is_plain: bool = False


@dataclass(frozen=True)
class Name:
    """A name without parentheses after it: a feature, a definition, or a text in a filter."""

    at: int
    text: str


@dataclass(frozen=True)
class Built:
    at: int
    node: Node


Operand = Number | Name | Built


@dataclass(frozen=True)
class Keyword:
    """An argument that is given by name."""

    at: int
    name: str
    operand: Operand


@dataclass(frozen=True)
class Call:
    """A name with arguments; `config` stands after the semicolon, or is None."""

    at: int
    name: str
    operands: Sequence[Operand]
    keywords: Sequence[Keyword]
    config: dict[str, Any] | None


def as_float(value: float, at: int) -> float:
    """Raises Fault."""
    try:
        return float(value)
    except OverflowError:
        raise Fault("the number is too large for a float", at) from None


def refuse_keywords(call: Call) -> None:
    """Raises Fault."""
    if call.keywords:
        raise Fault(f"{call.name} has no arguments with names", call.keywords[0].at)


def refuse_config(call: Call) -> None:
    """Raises Fault."""
    if call.config is not None:
        raise Fault(f"{call.name} has no configuration", call.at)


def count(things: Sequence[object], name: str) -> str:
    return f"{len(things) or 'no'} {name}{'' if len(things) == 1 else 's'}"
