"""Moments along time over a rolling window of rows; warm-up and NaN as in `rolling`."""

from __future__ import annotations

import numpy as np
from quernbrook.reference_host.arrays import Block, Row
from quernbrook.reference_host.entries import Parameter
from quernbrook.reference_host.rolling import RollingRotation, rolling_entry
from quernbrook.reference_host.window import deviations, mean


class _WithChoice(RollingRotation):
    """Of the population in the window by default, estimated from it as a sample with `sample`."""

    def __init__(self, window: int, sample: bool) -> None:
        super().__init__(window)
        self.sample = sample

    def mean_product(self, products: Block) -> Row:
        """The mean of products of two deviations, over one less of a sample."""
        if self.sample and self.window == 1:
            return np.full(products.shape[1], np.nan)
        return np.add.reduce(products, axis=0) / (self.window - self.sample)


class LongitudinalVariance(_WithChoice):
    """The variance; of a sample of one row NaN."""

    name = "longitudinal_variance"

    def compute(self, rows: Block) -> Row:
        return self.mean_product(deviations(rows) ** 2)


class LongitudinalSampleStd(RollingRotation):
    """The root of the sample variance. Of the population it is longitudinal_std."""

    name = "longitudinal_sample_std"

    def compute(self, rows: Block) -> Row:
        if self.window == 1:
            return np.full(rows.shape[1], np.nan)
        return np.sqrt(np.add.reduce(deviations(rows) ** 2, axis=0) / (self.window - 1))


class LongitudinalCovariance(_WithChoice):
    """The covariance of two rows; of a sample of one row NaN."""

    name = "longitudinal_covariance"
    arity = 2

    def compute(self, x: Block, y: Block) -> Row:
        return self.mean_product(deviations(x) * deviations(y))


class LongitudinalCorrelation(RollingRotation):
    """Pearson's correlation of two rows; NaN where all values of one are equal.

    So it is where the squares of their deviations are zero. Exactly -1 or 1 for a window of 2.
    """

    name = "longitudinal_correlation"
    arity = 2

    def compute(self, x: Block, y: Block) -> Row:
        if self.window == 2:
            return _concordance(x, y)
        x, y = deviations(x), deviations(y)
        roots = np.sqrt(mean(x**2)) * np.sqrt(mean(y**2))
        return mean(x * y) / np.where(roots == 0.0, np.nan, roots)


def _concordance(x: Block, y: Block) -> Row:
    """Whether both go the same way, 1 or -1; NaN where one stays or isn't finite."""
    product = np.ones(x.shape[1])
    for rows in (x, y):
        way = np.subtract(rows[1] > rows[0], rows[1] < rows[0], dtype=np.float64)
        product *= np.where(np.isfinite(rows).all(axis=0) & (way != 0.0), way, np.nan)
    return product


class LongitudinalSkewness(_WithChoice):
    """The third standardized moment; NaN where all values are equal.

    Of a sample Fisher's adjusted one, for windows of 3 and more.
    """

    name = "longitudinal_skewness"

    def compute(self, rows: Block) -> Row:
        centred, n = deviations(rows), self.window
        moment = mean(centred**3) / mean(centred**2) ** 1.5
        if not self.sample:
            return moment
        return moment * (np.sqrt(n * (n - 1)) / (n - 2) if n > 2 else np.nan)


class LongitudinalKurtosis(_WithChoice):
    """The fourth standardized moment less 3, which a normal distribution has.

    NaN where all values are equal. Of a sample Fisher's adjusted one, for windows of 4 and more.
    """

    name = "longitudinal_kurtosis"

    def compute(self, rows: Block) -> Row:
        centred, n = deviations(rows), self.window
        excess = mean(centred**4) / mean(centred**2) ** 2 - 3.0
        if not self.sample:
            return excess
        if n < 4:
            return np.full(excess.shape, np.nan)
        return (n - 1) / ((n - 2) * (n - 3)) * ((n + 1) * excess + 6.0)


_SAMPLE = {"sample": Parameter("flag", False)}

FUNCTIONS = (
    rolling_entry(LongitudinalVariance, _SAMPLE),
    rolling_entry(LongitudinalSampleStd),
    rolling_entry(LongitudinalCovariance, _SAMPLE),
    rolling_entry(LongitudinalCorrelation),
    rolling_entry(LongitudinalSkewness, _SAMPLE),
    rolling_entry(LongitudinalKurtosis, _SAMPLE),
)
