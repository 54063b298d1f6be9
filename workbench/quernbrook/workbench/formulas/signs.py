"""How tightly the signs of a formula bind."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

CHOICE, OR, AND, EQUALITY, COMPARISON, SUM, PRODUCT, UNARY, POWER, ATOM = range(10)

# The level of a sign, and the levels that its operands need to go without parentheses.
_BINARY = {
    "||": (OR, OR, AND),
    "&&": (AND, AND, EQUALITY),
    "==": (EQUALITY, COMPARISON, COMPARISON),
    "!=": (EQUALITY, COMPARISON, COMPARISON),
    "<": (COMPARISON, SUM, SUM),
    "<=": (COMPARISON, SUM, SUM),
    ">": (COMPARISON, SUM, SUM),
    ">=": (COMPARISON, SUM, SUM),
    "+": (SUM, SUM, PRODUCT),
    "-": (SUM, SUM, PRODUCT),
    "*": (PRODUCT, PRODUCT, UNARY),
    "/": (PRODUCT, PRODUCT, UNARY),
    "^": (POWER, ATOM, UNARY),
}


@dataclass(frozen=True)
class Text:
    """A part of a formula and the level of its outermost sign."""

    text: str
    level: int

    def within(self, level: int) -> str:
        """The part as an operand that must bind at least as tightly as `level`."""
        return self.text if self.level >= level else f"({self.text})"


def binary(sign: str, left: Text, right: Text) -> Text:
    level, for_left, for_right = _BINARY[sign]
    return Text(f"{left.within(for_left)} {sign} {right.within(for_right)}", level)


def unary(sign: str, operand: Text) -> Text:
    # A plain number after a minus would be read as a negative number.
    is_number = operand.level == ATOM and operand.text[0] in ".0123456789"
    return Text(sign + (f"({operand.text})" if is_number else operand.within(UNARY)), UNARY)


def choice(condition: Text, chosen: Text, other: Text) -> Text:
    return Text(f"{condition.within(OR)} ? {chosen.text} : {other.text}", CHOICE)


def call(name: str, arguments: Sequence[str], settings: Sequence[str] = ()) -> Text:
    inside = ", ".join(arguments)
    if settings:
        inside += f"; {', '.join(settings)}"
    return Text(f"{name}({inside})", ATOM)
