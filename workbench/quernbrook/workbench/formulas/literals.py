"""Literals and the values of configurations, as a formula holds them."""

from __future__ import annotations

import json
import math
import operator
import re
from collections.abc import Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.formulas.signs import ATOM, UNARY, Text

IDENTIFIER = re.compile(r"[^\W\d]\w*")
DOTTED_NAME = re.compile(r"[^\W\d]\w*(\.[^\W\d]\w*)*")

# Values of a configuration that are written as names.
NAMED_VALUES: Mapping[str, bool | float | None] = {
    "true": True,
    "false": False,
    "null": None,
    "nan": math.nan,
    "inf": math.inf,
}


def quoted(text: str) -> str:
    return json.dumps(text, ensure_ascii=False)


def argument(node: Node) -> Text:
    """A literal in a call: 2 is an int and 2.0 a float.

    Raises TypeError for a literal whose value isn't of its kind.
    """
    if node.type == "string":
        if not isinstance(node.node, str):
            raise TypeError(f"a string literal can't hold {node.node!r}")
        return Text(quoted(node.node), ATOM)
    if node.type == "bool":
        return Text("true" if node.node else "false", ATOM)
    value = _value(node)
    if not math.isfinite(value):
        return Text(f'float("{value}")', ATOM)
    return _signed(value)


def row(node: Node) -> Text:
    """A float literal as an operand of a sign, where every number is a float. Raises TypeError."""
    value = float(_value(node))
    is_negative_zero = value == 0.0 and math.copysign(1.0, value) < 0.0
    if value.is_integer() and abs(value) < 1e15 and not is_negative_zero:
        return _signed(int(value))
    return argument(node)


def _value(node: Node) -> int | float:
    try:
        return operator.index(node.node) if node.type == "int" else float(node.node)
    except (TypeError, ValueError):
        raise TypeError(f"a literal of kind {node.type} can't hold {node.node!r}") from None


def _signed(value: int | float) -> Text:
    text = repr(value)
    return Text(text, UNARY if text.startswith("-") else ATOM)


def setting(name: str, value: Any) -> str:
    """Raises TypeError for a value that has no text."""
    key = name if IDENTIFIER.fullmatch(name) else quoted(name)
    return f"{key}={_setting_value(value)}"


def _setting_value(value: Any) -> str:
    if value is None or isinstance(value, bool | str):
        return json.dumps(value, ensure_ascii=False)
    if isinstance(value, int):
        return int.__repr__(value)
    if isinstance(value, float):
        return float.__repr__(value)
    if isinstance(value, list | tuple):
        return f"[{', '.join(map(_setting_value, value))}]"
    if isinstance(value, Mapping) and all(isinstance(key, str) for key in value):
        items = (f"{quoted(key)}: {_setting_value(item)}" for key, item in value.items())
        return f"{{{', '.join(items)}}}"
    raise TypeError(f"a value of type {type(value).__name__} in the configuration has no text")
