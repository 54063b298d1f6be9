"""The functions of the published formulas in pandas and NumPy, for the tests alone.

Frames are dates by symbols. Windows are taken one by one, in extended precision, so that nothing
drifts, and a NaN in a window makes its value NaN.
"""

from __future__ import annotations

import math
from collections.abc import Callable

import numpy as np
import pandas as pd
from numpy.lib.stride_tricks import sliding_window_view
from workbench.pandas_formulas.rounding import Extended, Values, added, rounded

Frame = pd.DataFrame
Operand = Frame | float


class Market:
    """The fields of a panel, and what is derived from them."""

    def __init__(self, fields: dict[str, Frame]) -> None:
        self.open = fields["open"]
        self.high = fields["high"]
        self.low = fields["low"]
        self.close = fields["close"]
        self.volume = fields["volume"]
        self.vwap = fields["vwap"]
        self.cap = fields["cap"]
        self.sector = fields["sector"]
        self.industry = fields["industry"]
        self.subindustry = fields["subindustry"]
        self.returns = ratio(self.close, self.close.shift(1)) - 1

    def adv(self, days: int) -> Frame:
        return mean(self.volume * self.vwap, days)


# --- cell by cell --------------------------------------------------------------------------------


def ratio(x: Operand, y: Frame) -> Frame:
    quotient = x / y
    return quotient.where(np.isfinite(quotient))


def power(x: Frame, exponent: Operand) -> Frame:
    # NumPy has 1 for the power 0 and for the base 1, beside a NaN, too.
    is_known = (x * exponent).notna()
    with np.errstate(all="ignore"):
        return (x**exponent).where(is_known)


def signedpower(x: Frame, exponent: Operand) -> Frame:
    return sign(x) * power(x.abs(), exponent)


def log(x: Frame) -> Frame:
    return x.where(x > 0).transform(np.log)


def sign(x: Frame) -> Frame:
    return x.transform(np.sign)


def where(condition: Frame, x: Operand, y: Operand) -> Frame:
    nothing = condition * np.nan
    chosen = (nothing.fillna(0) + x).where(condition != 0, nothing.fillna(0) + y)
    return chosen.where(condition.notna())


def less(x: Operand, y: Operand) -> Frame:
    # A difference of finite numbers has the sign that the comparison has.
    difference = y - x
    assert isinstance(difference, pd.DataFrame)
    return (difference > 0).astype(float).where(difference.notna())


def equal(x: Frame, y: float) -> Frame:
    return (x == y).astype(float).where(x.notna())


def either(x: Frame, y: Frame) -> Frame:
    """Three-valued: true beside a NaN is true, false beside a NaN is not known."""
    is_true = (x.fillna(0) != 0) | (y.fillna(0) != 0)
    return is_true.astype(float).where(is_true | (x.notna() & y.notna()))


def minimum(x: Frame, y: Frame) -> Frame:
    return x.where((x <= y) | y.isna(), y)


def maximum(x: Frame, y: Frame) -> Frame:
    return x.where((x >= y) | y.isna(), y)


# --- across shares -------------------------------------------------------------------------------


def rank(x: Frame) -> Frame:
    others = x.count(axis=1) - 1
    return (x.rank(axis=1) - 1).div(others.where(others > 0), axis=0)


def scale(x: Frame) -> Frame:
    size = x.abs().sum(axis=1)
    return x.div(size.where(size > 0), axis=0)


def indneutralize(x: Frame, groups: Frame) -> Frame:
    values = x.to_numpy().astype(np.longdouble)
    result: Values = np.full(x.shape, np.nan)
    for group in np.unique(groups):
        members = (groups == group).to_numpy() & x.notna().to_numpy()
        counts = np.maximum(members.sum(axis=1, keepdims=True), 1)
        means = np.where(members, values, 0.0).sum(axis=1, keepdims=True) / counts
        result = np.where(members, added(values - means, np.abs(values)), result)
    return _like(x, result)


# --- along time ----------------------------------------------------------------------------------


def delay(x: Frame, days: float) -> Frame:
    return x.shift(math.floor(days))


def delta(x: Frame, days: float) -> Frame:
    return x - delay(x, days)


def sum_(x: Frame, days: float) -> Frame:
    return _over_windows(lambda w: added(w.sum(axis=2), np.abs(w).sum(axis=2)), days, x)


def mean(x: Frame, days: float) -> Frame:
    return _over_windows(lambda w: added(w.mean(axis=2), np.abs(w).mean(axis=2)), days, x)


def product(x: Frame, days: float) -> Frame:
    return _over_windows(lambda w: rounded(w.prod(axis=2), np.abs(w.prod(axis=2))), days, x)


def stddev(x: Frame, days: float) -> Frame:
    return _over_windows(lambda w: rounded(_deviation(w), _deviation(w)), days, x)


def ts_min(x: Frame, days: float) -> Frame:
    return _over_windows(lambda w: w.min(axis=2), days, x)


def ts_max(x: Frame, days: float) -> Frame:
    return _over_windows(lambda w: w.max(axis=2), days, x)


def ts_argmin(x: Frame, days: float) -> Frame:
    """Days since the minimum: 0 is today; of equal days the earliest."""
    return ts_argmax(-x, days)


def ts_argmax(x: Frame, days: float) -> Frame:
    """Days since the maximum: 0 is today; of equal days the earliest."""
    return _over_windows(lambda w: w.shape[2] - 1 - w.argmax(axis=2), days, x)


def ts_rank(x: Frame, days: float) -> Frame:
    """The place of the newest, from 0 (the lowest of the window) to 1; equal days share theirs."""

    def of_newest(windows: Extended) -> Values:
        newest = windows[:, :, -1:]
        below = (windows < newest).sum(axis=2)
        beside = (windows == newest).sum(axis=2) - 1
        return (below + beside / 2) / (windows.shape[2] - 1)

    return _over_windows(of_newest, days, x)


def decay_linear(x: Frame, days: float) -> Frame:
    def weighted(windows: Extended) -> Values:
        weights = np.arange(1, windows.shape[2] + 1, dtype=np.longdouble)
        weights /= weights.sum()
        return rounded((windows * weights).sum(axis=2), (np.abs(windows) * weights).sum(axis=2))

    return _over_windows(weighted, days, x)


def covariance(x: Frame, y: Frame, days: float) -> Frame:
    def of_pairs(left: Extended, right: Extended) -> Values:
        return rounded(_covariance(left, right), _deviation(left) * _deviation(right))

    return _over_windows(of_pairs, days, x, y)


def correlation(x: Frame, y: Frame, days: float) -> Frame:
    def of_pairs(left: Extended, right: Extended) -> Values:
        spread = _deviation(left) * _deviation(right)
        spread[spread == 0] = np.nan
        return rounded(_covariance(left, right) / spread, np.ones_like(spread))

    return _over_windows(of_pairs, days, x, y)


def _over_windows(function: Callable[..., Values], days: float, *frames: Frame) -> Frame:
    size = math.floor(days)
    first = frames[0]
    result = np.full(first.shape, np.nan)
    if len(first) >= size:
        windows = [
            sliding_window_view(frame.to_numpy().astype(np.longdouble), size, axis=0)
            for frame in frames
        ]
        has_nan = np.any([np.isnan(window).any(axis=2) for window in windows], axis=0)
        with np.errstate(all="ignore"):
            result[size - 1 :] = np.where(has_nan, np.nan, function(*windows))
    return _like(first, result)


def _covariance(left: Extended, right: Extended) -> Extended:
    return (_centred(left) * _centred(right)).mean(axis=2)


def _deviation(windows: Extended) -> Extended:
    return np.sqrt((_centred(windows) ** 2).mean(axis=2))


def _centred(windows: Extended) -> Extended:
    # Measured from the newest, a window of equal values gives exact zeros.
    shifted = windows - windows[:, :, -1:]
    return shifted - shifted.mean(axis=2, keepdims=True)


def _like(x: Frame, values: Values) -> Frame:
    return pd.DataFrame(values, index=x.index, columns=x.columns)
