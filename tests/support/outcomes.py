"""What an operation gives or raises, in a form to compare."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np


def outcome(act: Callable[..., Any], *arguments: Any) -> tuple[Any, ...]:
    """The bits of the array that `act` gives, or the type and text of what it raises."""
    with np.errstate(all="ignore"):
        try:
            result = act(*arguments)
        except Exception as error:  # noqa: BLE001 - whatever it raises is the answer
            return type(error), str(error)
    return type(result), result.dtype, result.shape, result.tobytes()
