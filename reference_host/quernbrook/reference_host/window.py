"""A rolling window of rows, the statistics over it, and the instances that hold one."""

from __future__ import annotations

from typing import Any

import numpy as np
from quernbrook.reference_host.arrays import Block, Row
from quernbrook.reference_host.states import SavedState
from quernbrook.reference_host.sums import sum_of_rows


class RollingWindow:
    """The last `size` rows and the number of all rows that ever came in, `count`.

    Each row is stored twice, `size` apart, so that the window is always one contiguous block with
    its oldest row first: statistics see the rows in the same order, and so give the same bits,
    wherever the ring stands.
    """

    def __init__(self, size: int) -> None:
        self.size = size
        self.count = 0
        self._storage: Block | None = None

    @property
    def is_full(self) -> bool:
        return self.count >= self.size

    @property
    def rows(self) -> Block:
        """A view of shape (min(count, size), width), oldest row first."""
        if self._storage is None:
            return np.empty((0, 0))
        if not self.is_full:
            return self._storage[: self.count]
        start = self.count % self.size
        return self._storage[start : start + self.size]

    def push(self, row: Row) -> None:
        """Take in a copy of `row`. Raises ValueError for another width than that of the first."""
        if self._storage is None:
            self._storage = np.empty((2 * self.size, len(row)))
        width = self._storage.shape[1]
        if len(row) != width:
            raise ValueError(f"row has {len(row)} values; the window holds rows of {width}")
        slot = self.count % self.size
        self._storage[slot] = row
        self._storage[slot + self.size] = row
        self.count += 1

    def restore(self, count: int, rows: list[list[float]]) -> None:
        """Hold `rows`, oldest first, as the last of `count`.

        Raises TypeError for a count that is no int, ValueError for rows that don't fit.
        """
        if not isinstance(count, int):
            raise TypeError(f"count must be an int; got {count!r}")
        if len(rows) != min(count, self.size):
            raise ValueError(f"{len(rows)} rows of {count} for a window of {self.size}")
        self.count = count - len(rows)
        self._storage = None
        for row in rows:
            self.push(np.asarray(row, dtype=np.float64))


class RollingInstance:
    """Base of the stateful instances, which hold the `extra_rows + window` newest rows of an input.

    The state is plain data, "count" (of all rows seen), "window" and "buffer" (the rows, oldest
    first), which JSON keeps to the last bit, infinities included; a NaN stays some NaN. With more
    than one input there is a list of such buffers instead, "buffers".
    """

    name: str
    extra_rows = 0
    stateful = True

    def __init__(self, window: int, inputs: int = 1) -> None:
        """Raises ValueError for a window below 1."""
        if window < 1:
            raise ValueError(f"window must be at least 1; got {window}")
        self.window = window
        self._windows = [RollingWindow(self.extra_rows + window) for _ in range(inputs)]

    @property
    def _rows(self) -> RollingWindow:
        """The window of the first input."""
        return self._windows[0]

    def get_state(self) -> SavedState:
        data: dict[str, Any] = {"count": self._rows.count, "window": self.window}
        buffers = [window.rows.tolist() for window in self._windows]
        if len(buffers) == 1:
            data["buffer"] = buffers[0]
        else:
            data["buffers"] = buffers
        return SavedState(self.name, data)

    def restore(self, state_data: dict[str, Any]) -> None:
        """Raises KeyError, TypeError or ValueError for data that don't fit this instance."""
        if state_data["window"] != self.window:
            raise ValueError(
                f"saved with window {state_data['window']}, configured with {self.window}"
            )
        count, inputs = state_data["count"], len(self._windows)
        buffers = [state_data["buffer"]] if inputs == 1 else state_data["buffers"]
        if len(buffers) != inputs:
            raise ValueError(f"{len(buffers)} buffers for {inputs} inputs")
        windows = [RollingWindow(window.size) for window in self._windows]
        for window, buffer in zip(windows, buffers, strict=True):
            window.restore(count, buffer)
        if len({window.rows.shape[1] for window in windows}) > 1:
            raise ValueError("buffers hold rows of different widths")
        self._windows = windows


def mean(rows: Block) -> Row:
    """The mean of each column."""
    return sum_of_rows(rows) / len(rows)


def deviations(rows: Block) -> Block:
    """`rows` less the mean of each column.

    Measured from the newest row first, so that a constant column gives exact zeros.
    """
    shifted = rows - rows[-1]
    shifted -= mean(shifted)
    return shifted


def root_mean_square(rows: Block) -> Row:
    """The root of the mean square of each column; of deviations, the population std."""
    return np.sqrt(mean(rows * rows))
