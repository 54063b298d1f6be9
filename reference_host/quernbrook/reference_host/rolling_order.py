"""Extremes, ranks and quantiles over a rolling window of rows; warm-up and NaN as in `rolling`."""

from __future__ import annotations

import numpy as np
from quernbrook.reference_host.arrays import Block, Row
from quernbrook.reference_host.entries import Parameter
from quernbrook.reference_host.rolling import RollingRotation, rolling_entry


class LongitudinalMax(RollingRotation):
    """The greatest value of the window."""

    name = "longitudinal_max"

    def compute(self, rows: Block) -> Row:
        return np.max(rows, axis=0)


class LongitudinalMin(RollingRotation):
    """The least value of the window."""

    name = "longitudinal_min"

    def compute(self, rows: Block) -> Row:
        return np.min(rows, axis=0)


class LongitudinalDaysSinceMax(RollingRotation):
    """Rows since the greatest value: 0 for the newest, the earliest of equal ones."""

    name = "longitudinal_days_since_max"

    def compute(self, rows: Block) -> Row:
        return _age(rows, np.argmax(rows, axis=0))


class LongitudinalDaysSinceMin(RollingRotation):
    """Rows since the least value: 0 for the newest, the earliest of equal ones."""

    name = "longitudinal_days_since_min"

    def compute(self, rows: Block) -> Row:
        return _age(rows, np.argmin(rows, axis=0))


class LongitudinalRank(RollingRotation):
    """The rank of the newest value in the window, from 0 (smallest) to 1 (largest).

    Equal values share the average of their ranks. NaN for a window of 1, where nothing is compared.
    """

    name = "longitudinal_rank"

    def compute(self, rows: Block) -> Row:
        if self.window == 1:
            return np.full(rows.shape[1], np.nan)
        below = np.sum(rows < rows[-1], axis=0)
        equal = np.sum(rows == rows[-1], axis=0)
        rank = (below + (equal - 1) / 2) / (self.window - 1)
        return np.where(_any_nan(rows), np.nan, rank)


class LongitudinalQuantile(RollingRotation):
    """The value below which a share of the window lies, between two values in proportion.

    Hyndman and Fan's seventh definition (Sample Quantiles in Statistical Packages, 1996), which is
    NumPy's, too.
    """

    name = "longitudinal_quantile"

    def __init__(self, window: int, share: float) -> None:
        """Raises ValueError for a window below 1 and a share that isn't from 0 to 1."""
        super().__init__(window)
        if not 0.0 <= share <= 1.0:
            raise ValueError(f"share must be at least 0 and at most 1; got {share:g}")
        self.share = share

    def compute(self, rows: Block) -> Row:
        in_order = np.sort(rows, axis=0)
        place = self.share * (self.window - 1)
        lower = int(place)
        upper = min(lower + 1, self.window - 1)
        step = in_order[upper] - in_order[lower]
        # Infinities of one kind are no way apart.
        step = np.where(in_order[upper] == in_order[lower], 0.0, step)
        quantile = in_order[lower] + (place - lower) * step
        return np.where(_any_nan(rows), np.nan, quantile)


def _any_nan(rows: Block) -> np.ndarray:
    return np.any(np.isnan(rows), axis=0)


def _age(rows: Block, place: np.ndarray) -> Row:
    return np.where(_any_nan(rows), np.nan, len(rows) - 1.0 - place)


FUNCTIONS = (
    rolling_entry(LongitudinalMax),
    rolling_entry(LongitudinalMin),
    rolling_entry(LongitudinalDaysSinceMax),
    rolling_entry(LongitudinalDaysSinceMin),
    rolling_entry(LongitudinalRank),
    rolling_entry(LongitudinalQuantile, {"share": Parameter("float", 0.5)}),
)
