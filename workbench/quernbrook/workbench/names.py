"""What to suggest for a name that nobody knows."""

from __future__ import annotations

import difflib
from collections.abc import Iterable


def nearest(name: str, known: Iterable[str]) -> str | None:
    """The known name that is most like `name`, in any case, or None if none comes close."""
    by_lower = {candidate.lower(): candidate for candidate in known}
    found = difflib.get_close_matches(name.lower(), by_lower, n=1)
    return by_lower[found[0]] if found else None


def suggestion(name: str, known: Iterable[str]) -> str:
    """The end of a message: "; the nearest is 'close'", or nothing."""
    found = nearest(name, known)
    return "" if found is None else f"; the nearest is '{found}'"
