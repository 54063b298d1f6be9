"""The functions of the published formulas in pandas and NumPy, for the tests alone.

Frames are dates by symbols. Windows are taken one by one, so that nothing drifts, and a NaN in a
window makes its value NaN.
"""

from __future__ import annotations

import math
from collections.abc import Callable

import numpy as np
import pandas as pd
from numpy.lib.stride_tricks import sliding_window_view
from numpy.typing import NDArray

Frame = pd.DataFrame
Operand = Frame | float
Windows = NDArray[np.float64]  # (dates, symbols, days of a window, the newest last)


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
        return sum_(self.volume * self.vwap, days) / days


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
    result = x * np.nan
    for group in np.unique(groups):
        members = x.where(groups == group)
        # Measured from one of the group, equal values give exact zeros.
        shifted = members.sub(members.bfill(axis=1).iloc[:, 0], axis=0)
        result = result.fillna(shifted.sub(shifted.mean(axis=1), axis=0))
    return result


# --- along time ----------------------------------------------------------------------------------


def delay(x: Frame, days: float) -> Frame:
    return x.shift(math.floor(days))


def delta(x: Frame, days: float) -> Frame:
    return x - delay(x, days)


def sum_(x: Frame, days: float) -> Frame:
    return _over_windows(lambda windows: windows.sum(axis=2), days, x)


def product(x: Frame, days: float) -> Frame:
    return _over_windows(lambda windows: windows.prod(axis=2), days, x)


def stddev(x: Frame, days: float) -> Frame:
    return _over_windows(lambda windows: np.sqrt((_centred(windows) ** 2).mean(axis=2)), days, x)


def ts_min(x: Frame, days: float) -> Frame:
    return _over_windows(lambda windows: windows.min(axis=2), days, x)


def ts_max(x: Frame, days: float) -> Frame:
    return _over_windows(lambda windows: windows.max(axis=2), days, x)


def ts_argmin(x: Frame, days: float) -> Frame:
    """Days since the minimum: 0 is today; of equal days the earliest."""
    return ts_argmax(-x, days)


def ts_argmax(x: Frame, days: float) -> Frame:
    """Days since the maximum: 0 is today; of equal days the earliest."""
    return _over_windows(lambda windows: windows.shape[2] - 1 - windows.argmax(axis=2), days, x)


def ts_rank(x: Frame, days: float) -> Frame:
    """The place of the newest, from 0 (the lowest of the window) to 1; equal days share theirs."""

    def of_newest(windows: Windows) -> Windows:
        newest = windows[:, :, -1:]
        below = (windows < newest).sum(axis=2)
        beside = (windows == newest).sum(axis=2) - 1
        return (below + beside / 2) / (windows.shape[2] - 1)

    return _over_windows(of_newest, days, x)


def decay_linear(x: Frame, days: float) -> Frame:
    def weighted(windows: Windows) -> Windows:
        weights = np.arange(1.0, windows.shape[2] + 1)
        return (windows * weights).sum(axis=2) / weights.sum()

    return _over_windows(weighted, days, x)


def covariance(x: Frame, y: Frame, days: float) -> Frame:
    def of_pairs(left: Windows, right: Windows) -> Windows:
        return (_centred(left) * _centred(right)).mean(axis=2)

    return _over_windows(of_pairs, days, x, y)


def correlation(x: Frame, y: Frame, days: float) -> Frame:
    spread = stddev(x, days) * stddev(y, days)
    return ratio(covariance(x, y, days), spread.where(spread != 0))


def _over_windows(function: Callable[..., Windows], days: float, *frames: Frame) -> Frame:
    size = math.floor(days)
    first = frames[0]
    result = np.full(first.shape, np.nan)
    if len(first) >= size:
        windows = [sliding_window_view(frame.to_numpy(), size, axis=0) for frame in frames]
        has_nan = np.any([np.isnan(window).any(axis=2) for window in windows], axis=0)
        with np.errstate(all="ignore"):
            result[size - 1 :] = np.where(has_nan, np.nan, function(*windows))
    return pd.DataFrame(result, index=first.index, columns=first.columns)


def _centred(windows: Windows) -> Windows:
    # Measured from the newest, a window of equal values gives exact zeros.
    shifted = windows - windows[:, :, -1:]
    return shifted - shifted.mean(axis=2, keepdims=True)
