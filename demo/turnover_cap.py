"""A function of the demo's own: weights that follow a target at a limited pace."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray
from quernbrook.reference_host import FunctionEntry, Parameter, SavedState

Row = NDArray[np.float64]


class TurnoverCap:
    """Go towards the target on a straight line, as far as `limit` of turnover a day allows.

    The first target is taken whole. A NaN target counts as none, and a row of them as no change.
    """

    name = "turnover_cap"
    arity = 1
    stateful = True

    def __init__(self, limit: float) -> None:
        """Raises ValueError unless `limit` is above 0."""
        if not limit > 0.0:
            raise ValueError(f"limit must be above 0; got {limit}")
        self.limit = limit
        self._held: Row | None = None

    def __call__(self, target: Row, *, context: Any = None) -> Row:
        missing = np.isnan(target)
        if missing.all():
            return target
        wanted = np.where(missing, 0.0, target)
        change = wanted if self._held is None else wanted - self._held
        turnover = np.abs(change).sum()
        if self._held is None or turnover <= self.limit:
            self._held = wanted
        else:
            self._held = self._held + change * (self.limit / turnover)
        return np.where(missing, np.nan, self._held)

    def get_state(self) -> SavedState:
        held = None if self._held is None else self._held.tolist()
        return SavedState(self.name, {"held": held})

    def restore(self, state_data: dict[str, Any]) -> None:
        held = state_data["held"]
        self._held = None if held is None else np.array(held)


ENTRY = FunctionEntry(
    TurnoverCap.name,
    "demo",
    build=TurnoverCap,
    param_schema={"limit": Parameter("float")},
    stateful=True,
)
