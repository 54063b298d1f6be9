"""An explanation as plain data."""

from __future__ import annotations

import math
from collections.abc import Mapping
from dataclasses import fields, is_dataclass
from typing import Any

from quernbrook.workbench.explanation.records import ExplainedRun


def document_of(explanation: ExplainedRun) -> dict[str, Any]:
    """The records' own fields, and the sum of the memory. Values that JSON lacks are texts."""
    document = {
        one.name: _plain(getattr(explanation, one.name))
        for one in fields(explanation)
        if one.name != "inputs"
    }
    document["memory"]["total"] = explanation.memory.total
    return document


def _plain(value: Any) -> Any:
    if value is None or type(value) in (bool, int, str):
        return value
    if type(value) is float and math.isfinite(value):
        return value
    if is_dataclass(value) and not isinstance(value, type):
        return {one.name: _plain(getattr(value, one.name)) for one in fields(value)}
    if isinstance(value, Mapping):
        return {str(name): _plain(one) for name, one in value.items()}
    if isinstance(value, list | tuple):
        return [_plain(one) for one in value]
    return repr(value)
