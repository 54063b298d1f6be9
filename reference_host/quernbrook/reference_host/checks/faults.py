"""What a check finds."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import dataclass
from difflib import get_close_matches
from typing import Any


@dataclass(frozen=True)
class Fault:
    """One fault: where it is, what it is, and the known name that comes nearest, if one is near.

    path: a node's path ("root.c0"); "smooth[on].root" in the template of the stage "smooth" for
        the option "on"; or the name of the argument that is at fault.
    """

    path: str
    text: str
    suggestion: str | None = None

    def __str__(self) -> str:
        hint = "" if self.suggestion is None else f"; did you mean '{self.suggestion}'?"
        return f"{self.path}: {self.text}{hint}"


def nearest(name: Any, known: Iterable[Any]) -> str | None:
    """Return the known name most like `name`, whatever the case of its letters."""
    if not isinstance(name, str):
        return None
    folded = {other.casefold(): other for other in known if isinstance(other, str)}
    found = get_close_matches(name.casefold(), sorted(folded), n=1)
    return folded[found[0]] if found else None
