"""A market that never was: daily prices, volumes and groups of shares from a seed."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import pandas as pd
from numpy.typing import NDArray
from quernbrook.workbench.panels.panel import Matrix, Panel

Mask = NDArray[np.bool_]

# Daily volatilities of the market, of a sector and, on the median, of a share by itself.
_MARKET_VOLATILITY = 0.009
_SECTOR_VOLATILITY = 0.006
_OWN_VOLATILITY = 0.015
# How much of a day's variance comes overnight.
_OVERNIGHT_SHARE = 0.25
# Shares a subindustry, subindustries an industry, industries a sector.
_SHARES_A_SUBINDUSTRY, _SUBINDUSTRIES_AN_INDUSTRY, _INDUSTRIES_A_SECTOR = 5, 3, 3

_GAP_RATE = 0.0003
_HALT_RATE = 0.001
_LONGEST_HALT = 5
_LATE_SHARE = 0.1


def synthetic_panel(
    share_count: int = 500,
    day_count: int = 2000,
    seed: int = 101,
    *,
    gaps: bool = True,
    halts: bool = True,
    late_listings: bool = True,
) -> Panel:
    """Return open, high, low, close, volume, vwap, cap, sector, industry and subindustry.

    Log prices follow a market, a sector and a share's own part, with fat tails (Student's t with
    5 degrees of freedom) and volatility that comes in waves. Prices are in dollars, rounded to
    cents, so that equal ones happen; volumes in shares, rounded to hundreds; cap in dollars;
    groups are numbers from 0.

    gaps: here and there a field, or all fields of a share, are NaN for a day.
    halts: a share isn't traded for one to five days: its prices stand still, its volume is 0.
    late_listings: a tenth of the shares has no data before a day in the first half.

    The same arguments give the same panel.
    """
    rng = np.random.default_rng(seed)
    shape = (day_count, share_count)
    groups = _groups(rng, share_count)
    is_halted = _halts(rng, shape) if halts else np.zeros(shape, dtype=bool)
    days = _simulate(rng, groups["sector"], is_halted)
    fields = _prices(rng, days, is_halted)
    shares = np.round(rng.lognormal(18.0, 1.0, share_count))
    fields["volume"] = _volumes(rng, days, shares, is_halted)
    fields["vwap"] = _average_prices(rng, fields)
    fields["cap"] = fields["close"] * shares
    is_listed = _listed(rng, shape) if late_listings else np.ones(shape, dtype=bool)
    missing_days = rng.random(shape) < _GAP_RATE if gaps else np.zeros(shape, dtype=bool)
    for values in fields.values():
        missing = rng.random(shape) < _GAP_RATE if gaps else False
        values[missing | missing_days | ~is_listed] = np.nan
    fields |= {name: np.tile(numbers, (day_count, 1)) for name, numbers in groups.items()}
    dates = pd.bdate_range("2015-01-02", periods=day_count, name="date")
    width = len(str(share_count))
    symbols = pd.Index([f"S{number + 1:0{width}}" for number in range(share_count)], name="symbol")
    return Panel(dates, symbols, fields)


@dataclass(frozen=True)
class _Days:
    """Logarithms of the prices' changes, and each day's volatility relative to its mean."""

    overnight: Matrix
    intraday: Matrix
    wave: Matrix


def _groups(rng: np.random.Generator, share_count: int) -> dict[str, Matrix]:
    count = max(2, share_count // _SHARES_A_SUBINDUSTRY)
    subindustry = rng.permutation(np.arange(share_count) % count)
    industry = subindustry // _SUBINDUSTRIES_AN_INDUSTRY
    sector = industry // _INDUSTRIES_A_SECTOR
    named = {"sector": sector, "industry": industry, "subindustry": subindustry}
    return {name: numbers.astype(np.float64) for name, numbers in named.items()}


def _halts(rng: np.random.Generator, shape: tuple[int, int]) -> Mask:
    is_halted = np.zeros(shape, dtype=bool)
    # The first day has no price to stand still at.
    for day, share in np.argwhere(rng.random(shape) < _HALT_RATE):
        length = int(rng.integers(1, _LONGEST_HALT + 1))
        is_halted[max(day, 1) : day + length, share] = True
    return is_halted


def _simulate(rng: np.random.Generator, sector: Matrix, is_halted: Mask) -> _Days:
    day_count, share_count = is_halted.shape
    shape = (day_count, share_count)
    wave = np.exp(_autoregression(rng, (day_count, 1), persistence=0.97, deviation=0.35))
    sectors = sector.astype(np.intp)
    sector_moves = _fat_tails(rng, (day_count, int(sectors.max()) + 1)) * _SECTOR_VOLATILITY
    market_moves = _fat_tails(rng, (day_count, 1)) * _MARKET_VOLATILITY
    common = wave * (market_moves + np.take(sector_moves, sectors, axis=1))
    exposure = rng.normal(1.0, 0.25, share_count)
    own_volatility = _OWN_VOLATILITY * rng.lognormal(0.0, 0.3, share_count)
    own = wave * _fat_tails(rng, shape) * own_volatility
    overnight_own = wave * _fat_tails(rng, shape) * own_volatility
    traded = ~is_halted
    overnight = np.sqrt(_OVERNIGHT_SHARE) * (0.5 * exposure * common + overnight_own) * traded
    intraday = np.sqrt(1.0 - _OVERNIGHT_SHARE) * (exposure * common + own) * traded
    return _Days(overnight, intraday, np.broadcast_to(wave, is_halted.shape) * own_volatility)


def _prices(rng: np.random.Generator, days: _Days, is_halted: Mask) -> dict[str, Matrix]:
    first = rng.lognormal(3.7, 0.7, is_halted.shape[1])
    log_close = np.log(first) + np.cumsum(days.overnight + days.intraday, axis=0)
    log_open = log_close - days.intraday
    reach = 0.5 * days.wave * ~is_halted
    above = np.abs(rng.standard_normal(is_halted.shape)) * reach
    below = np.abs(rng.standard_normal(is_halted.shape)) * reach
    logarithms = {
        "open": log_open,
        "high": np.maximum(log_open, log_close) + above,
        "low": np.minimum(log_open, log_close) - below,
        "close": log_close,
    }
    return {
        name: np.maximum(np.round(np.exp(values), 2), 0.01) for name, values in logarithms.items()
    }


def _volumes(rng: np.random.Generator, days: _Days, shares: Matrix, is_halted: Mask) -> Matrix:
    day_count, share_count = is_halted.shape
    mood = _autoregression(rng, (day_count, share_count), persistence=0.8, deviation=0.4)
    # Days of large moves are days of much trade.
    excitement = np.abs(days.overnight + days.intraday) / days.wave
    volume = shares * 0.004 * np.exp(mood + 0.25 * excitement)
    return np.round(volume, -2) * ~is_halted


def _average_prices(rng: np.random.Generator, prices: dict[str, Matrix]) -> Matrix:
    place = rng.beta(4.0, 4.0, prices["low"].shape)
    return np.round(prices["low"] + place * (prices["high"] - prices["low"]), 4)


def _listed(rng: np.random.Generator, shape: tuple[int, int]) -> Mask:
    day_count, share_count = shape
    late = rng.permutation(share_count)[: int(np.ceil(_LATE_SHARE * share_count))]
    first_days = np.zeros(share_count, dtype=np.intp)
    first_days[late] = rng.integers(1, max(2, day_count // 2), late.size)
    return np.arange(day_count)[:, np.newaxis] >= first_days


def _autoregression(
    rng: np.random.Generator, shape: tuple[int, int], *, persistence: float, deviation: float
) -> Matrix:
    """Stationary columns x[t] = persistence * x[t - 1] + noise of the given standard deviation."""
    noise = rng.standard_normal(shape) * (deviation * np.sqrt(1.0 - persistence**2))
    values = np.empty(shape)
    values[0] = rng.standard_normal(shape[1]) * deviation
    for day in range(1, shape[0]):
        values[day] = persistence * values[day - 1] + noise[day]
    return values


def _fat_tails(rng: np.random.Generator, shape: tuple[int, int]) -> Matrix:
    """Student's t with 5 degrees of freedom, scaled to the variance 1."""
    return rng.standard_t(5.0, shape) * np.sqrt(3.0 / 5.0)
