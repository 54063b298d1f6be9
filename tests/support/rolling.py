"""A stateful rotation and a stateful reduction whose states go through bytes, and their registry."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
from support.registries import RecordingRegistry, entry


class _Rolling:
    """Keeps the newest `window` rows of what it observes, and the number of all it ever saw."""

    name: str
    stateful = True

    def __init__(self, evaluator: ModuleType, window: int, pnl_column: str | None = None) -> None:
        self.evaluator = evaluator
        self.window = window
        self.count = 0
        self.rows: list[list[float]] = []

    def observe(self, row: np.ndarray) -> np.ndarray:
        """The mean of the rows in the window, with this one."""
        self.rows = [*self.rows, row.tolist()][-self.window :]
        self.count += 1
        return np.add.reduce(np.array(self.rows), axis=0) / len(self.rows)

    def get_state(self) -> Any:
        data = {"count": self.count, "window": self.window, "rows": self.rows}
        return self.evaluator.FunctionState(self.name, data)

    def restore(self, data: dict[str, Any]) -> None:
        self.count, self.rows = data["count"], data["rows"]


class RollingMean(_Rolling):
    """The mean over the window."""

    name = "rolling_mean"

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return self.observe(row)


class WeightedByPnl(_Rolling):
    """The signals' sum, each weighted by its mean PnL over the window."""

    name = "weighted_by_pnl"

    def __call__(self, signals: np.ndarray, signal_pnl: np.ndarray) -> np.ndarray:
        shares = self.observe(signal_pnl)
        return np.add.reduce(signals * shares[:, np.newaxis], axis=0)


class Sum:
    """The sum of two rows."""

    name = "sum"
    stateful = False

    def __call__(self, left: np.ndarray, right: np.ndarray, *, context: Any = None) -> np.ndarray:
        return left + right


class RollingRegistry(RecordingRegistry):
    """Makes and restores the functions of this module."""

    def __init__(self, evaluator: ModuleType) -> None:
        functions: dict[str, Any] = {
            made.name: lambda made=made, **config: made(evaluator, **config)
            for made in (RollingMean, WeightedByPnl)
        }
        entries = {name: entry(stateful=True) for name in functions}
        super().__init__(entries, {**functions, Sum.name: lambda: Sum()})

    def create_instance_from_state(self, name: str, restore_state: Any, **config: Any) -> Any:
        instance = super().create_instance_from_state(name, restore_state, **config)
        instance.restore(restore_state.state_data)
        return instance
