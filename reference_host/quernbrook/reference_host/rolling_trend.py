"""Weighted means and lines along time over a rolling window; warm-up and NaN as in `rolling`."""

from __future__ import annotations

import numpy as np
from quernbrook.reference_host.arrays import Block, Row
from quernbrook.reference_host.rolling import RollingRotation, rolling_entry
from quernbrook.reference_host.window import deviations, mean


class LongitudinalDecayMean(RollingRotation):
    """The mean with weights that fall linearly with age, from `window` for the newest row to 1."""

    name = "longitudinal_decay_mean"

    def compute(self, rows: Block) -> Row:
        weights = np.arange(1.0, self.window + 1.0)
        return np.add.reduce(rows * weights[:, np.newaxis], axis=0) / weights.sum()


class LongitudinalExponentialMean(RollingRotation):
    """The mean with weights that fall with age in the ratio 1 - 2 / (window + 1).

    Nothing before the window counts.
    """

    name = "longitudinal_exponential_mean"

    def compute(self, rows: Block) -> Row:
        ages = np.arange(self.window - 1.0, -1.0, -1.0)
        weights = (1.0 - 2.0 / (self.window + 1.0)) ** ages
        return np.add.reduce(rows * weights[:, np.newaxis], axis=0) / weights.sum()


class _Line(RollingRotation):
    """The line of least squares over the rows of the window."""

    def slope(self, rows: Block) -> Row:
        """A row; NaN for a window of 1."""
        time = np.arange(self.window) - (self.window - 1) / 2
        products = deviations(rows) * time[:, np.newaxis]
        return np.add.reduce(products, axis=0) / np.sum(time * time)

    def rise(self, rows: Block) -> Row:
        """From the middle of the line to its ends; a line over one row is level."""
        if self.window == 1:
            return rows[0] - rows[0]
        return self.slope(rows) * ((self.window - 1) / 2)


class LongitudinalSlope(_Line):
    """Its rise from a row to the next; NaN for a window of 1."""

    name = "longitudinal_slope"

    def compute(self, rows: Block) -> Row:
        return self.slope(rows)


class LongitudinalIntercept(_Line):
    """Its value at the oldest row of the window."""

    name = "longitudinal_intercept"

    def compute(self, rows: Block) -> Row:
        return mean(rows) - self.rise(rows)


class LongitudinalResidual(_Line):
    """The newest value less the line's value there."""

    name = "longitudinal_residual"

    def compute(self, rows: Block) -> Row:
        return deviations(rows)[-1] - self.rise(rows)


FUNCTIONS = (
    rolling_entry(LongitudinalDecayMean),
    rolling_entry(LongitudinalExponentialMean),
    rolling_entry(LongitudinalSlope),
    rolling_entry(LongitudinalIntercept),
    rolling_entry(LongitudinalResidual),
)
