"""Values as short text."""

from __future__ import annotations

import reprlib
from collections.abc import Mapping
from typing import Any

_REPR = reprlib.Repr()
_REPR.maxstring = _REPR.maxother = 60
_REPR.maxlist = _REPR.maxtuple = _REPR.maxset = _REPR.maxdict = 3


def shown(value: Any) -> str:
    """A mapping as its keys: its values may be matrices."""
    if isinstance(value, Mapping):
        return f"{len(value)}: {_REPR.repr(list(value))}"
    return _REPR.repr(value)
