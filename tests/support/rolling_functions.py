"""Rolling functions that take one row at a time and round as the whole-matrix road does."""

from __future__ import annotations

from typing import Any

import numpy as np

EXTENDED = np.longdouble


class RollingTotals:
    """A longitudinal rotation over running totals in extended precision."""

    stateful = True
    arity = 1

    def __init__(self, name: str, window: int) -> None:
        self.name, self.window = name, window
        self.sums: list[Any] = [EXTENDED(0.0)]
        self.squares: list[Any] = [EXTENDED(0.0)]
        self.holes: list[Any] = [0]

    def get_state(self) -> dict[str, Any]:
        return {}

    def __call__(self, row: np.ndarray, **_: Any) -> np.ndarray:
        empty = np.isnan(row)
        filled = np.where(empty, 0.0, row).astype(EXTENDED)
        # The first row is the first total: added to zero, a -0.0 would lose its sign.
        is_first = len(self.sums) == 1
        self.sums.append(filled if is_first else self.sums[-1] + filled)
        self.squares.append(self.squares[-1] + filled * filled)
        self.holes.append(self.holes[-1] + empty)
        if len(self.sums) <= self.window:
            return np.full(row.shape, np.nan)
        clean = self.holes[-1] - self.holes[-1 - self.window] == 0
        return np.where(clean, self.statistic(row), np.nan).astype(np.float64)

    def statistic(self, row: np.ndarray) -> Any:
        mean = (self.sums[-1] - self.sums[-1 - self.window]) / self.window
        if self.name == "longitudinal_mean":
            return mean
        mean_square = (self.squares[-1] - self.squares[-1 - self.window]) / self.window
        std = np.sqrt(np.maximum(0.0, mean_square - mean * mean))
        if self.name == "longitudinal_std":
            return std
        return np.where(std != 0.0, (row.astype(EXTENDED) - mean) / std, 0.0)
