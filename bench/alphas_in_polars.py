"""Some published formulas in polars, each one query over a long table of dates and shares.

Polars has no window of expressions inside another, so that whatever goes along time or across
shares becomes a column first. Its planner sees the whole query.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from dataclasses import dataclass, field

# Read at import.
os.environ["POLARS_MAX_THREADS"] = "1"

import numpy as np
import polars as pl
from quernbrook.workbench.panels import Panel

Expression = pl.Expr
SHARE, DATE = "share", "date"


def long_table(panel: Panel) -> pl.DataFrame:
    """The panel share by share, in the order of dates, with nulls where nothing is known."""
    days, shares = len(panel.dates), len(panel.symbols)
    fields = {name: values.T.ravel() for name, values in panel.fields.items()}
    table = pl.DataFrame(fields).fill_nan(None)
    return table.with_columns(
        pl.Series(SHARE, np.repeat(np.arange(shares), days)),
        pl.Series(DATE, np.tile(np.arange(days), shares)),
    )


def known(x: Expression) -> Expression:
    return pl.when(x.is_finite()).then(x)


def ratio(x: Expression, y: Expression) -> Expression:
    return known(x / y)


def where(condition: Expression, x: Expression, y: Expression) -> Expression:
    # Without the second condition, nothing would be false.
    return pl.when(condition).then(x).when(~condition).then(y)


@dataclass
class Query:
    """The fields, the functions of the formulas, and the columns that they ask for."""

    columns: list[Expression] = field(default_factory=list)

    def column(self, expression: Expression, over: str) -> Expression:
        name = f"column {len(self.columns)}"
        self.columns.append(expression.over(over).alias(name))
        return pl.col(name)

    def run(self, result: Expression, table: pl.DataFrame) -> pl.DataFrame:
        lazy = table.lazy()
        for column in self.columns:
            lazy = lazy.with_columns(column)
        return lazy.select(result.alias("result")).collect()

    def rank(self, x: Expression) -> Expression:
        others = x.count() - 1
        return self.column((x.rank() - 1.0) / pl.when(others > 0).then(others), DATE)

    def scale(self, x: Expression) -> Expression:
        return self.column(ratio(x, x.abs().sum()), DATE)

    def delay(self, x: Expression, days: int) -> Expression:
        return self.column(x.shift(days), SHARE)

    def delta(self, x: Expression, days: int) -> Expression:
        return self.column(x - x.shift(days), SHARE)

    def sum(self, x: Expression, days: int) -> Expression:
        return self.column(x.rolling_sum(days), SHARE)

    def mean(self, x: Expression, days: int) -> Expression:
        return self.column(x.rolling_mean(days), SHARE)

    def stddev(self, x: Expression, days: int) -> Expression:
        return self.column(x.rolling_std(days, ddof=0), SHARE)

    def ts_min(self, x: Expression, days: int) -> Expression:
        return self.column(x.rolling_min(days), SHARE)

    def ts_max(self, x: Expression, days: int) -> Expression:
        return self.column(x.rolling_max(days), SHARE)

    def ts_rank(self, x: Expression, days: int) -> Expression:
        return self.column((x.rolling_rank(days) - 1.0) / (days - 1.0), SHARE)

    def correlation(self, x: Expression, y: Expression, days: int) -> Expression:
        found = pl.rolling_corr(x, y, window_size=days, min_samples=days)
        return self.column(known(found), SHARE)

    def adv(self, days: int) -> Expression:
        return self.mean(VOLUME * VWAP, days)

    def returns(self) -> Expression:
        return ratio(CLOSE, self.delay(CLOSE, 1)) - 1.0


OPEN, HIGH, LOW, CLOSE, VOLUME, VWAP = (
    pl.col(name) for name in ("open", "high", "low", "close", "volume", "vwap")
)


def alpha_008(q: Query) -> Expression:
    both = q.sum(OPEN, 5) * q.sum(q.returns(), 5)
    return -q.rank(both - q.delay(both, 10))


def alpha_009(q: Query) -> Expression:
    change = q.delta(CLOSE, 1)
    falling = where(q.ts_max(change, 5) < 0, change, -change)
    return where(q.ts_min(change, 5) > 0, change, falling)


def alpha_011(q: Query) -> Expression:
    above = VWAP - CLOSE
    return (q.rank(q.ts_max(above, 3)) + q.rank(q.ts_min(above, 3))) * q.rank(q.delta(VOLUME, 3))


def alpha_017(q: Query) -> Expression:
    return (
        -q.rank(q.ts_rank(CLOSE, 10))
        * q.rank(q.delta(q.delta(CLOSE, 1), 1))
        * q.rank(q.ts_rank(ratio(VOLUME, q.adv(20)), 5))
    )


def alpha_018(q: Query) -> Expression:
    body = CLOSE - OPEN
    return -q.rank(q.stddev(body.abs(), 5) + body + q.correlation(CLOSE, OPEN, 10))


def alpha_020(q: Query) -> Expression:
    first, second, third = (q.rank(OPEN - q.delay(x, 1)) for x in (HIGH, CLOSE, LOW))
    return -first * second * third


def alpha_026(q: Query) -> Expression:
    return -q.ts_max(q.correlation(q.ts_rank(VOLUME, 5), q.ts_rank(HIGH, 5), 5), 3)


def alpha_028(q: Query) -> Expression:
    return q.scale(q.correlation(q.adv(20), LOW, 5) + (HIGH + LOW) / 2 - CLOSE)


def alpha_035(q: Query) -> Expression:
    return (
        q.ts_rank(VOLUME, 32)
        * (1 - q.ts_rank(CLOSE + HIGH - LOW, 16))
        * (1 - q.ts_rank(q.returns(), 32))
    )


def alpha_043(q: Query) -> Expression:
    return q.ts_rank(ratio(VOLUME, q.adv(20)), 20) * q.ts_rank(-q.delta(CLOSE, 7), 8)


def alpha_052(q: Query) -> Expression:
    lowest, returns = q.ts_min(LOW, 5), q.returns()
    growth = (q.sum(returns, 240) - q.sum(returns, 20)) / 220
    return (-lowest + q.delay(lowest, 5)) * q.rank(growth) * q.ts_rank(VOLUME, 5)


def alpha_055(q: Query) -> Expression:
    lowest = q.ts_min(LOW, 12)
    place = ratio(CLOSE - lowest, q.ts_max(HIGH, 12) - lowest)
    return -q.correlation(q.rank(place), q.rank(VOLUME), 6)


FORMULAS: dict[int, Callable[[Query], Expression]] = {
    3: lambda q: -q.correlation(q.rank(OPEN), q.rank(VOLUME), 10),
    4: lambda q: -q.ts_rank(q.rank(LOW), 9),
    5: lambda q: -q.rank(OPEN - q.sum(VWAP, 10) / 10) * q.rank(CLOSE - VWAP).abs(),
    6: lambda q: -q.correlation(OPEN, VOLUME, 10),
    8: alpha_008,
    9: alpha_009,
    11: alpha_011,
    12: lambda q: -q.delta(VOLUME, 1).sign() * q.delta(CLOSE, 1),
    14: lambda q: -q.rank(q.delta(q.returns(), 3)) * q.correlation(OPEN, VOLUME, 10),
    17: alpha_017,
    18: alpha_018,
    20: alpha_020,
    22: lambda q: -q.delta(q.correlation(HIGH, VOLUME, 5), 5) * q.rank(q.stddev(CLOSE, 20)),
    23: lambda q: where(q.mean(HIGH, 20) < HIGH, -q.delta(HIGH, 2), pl.lit(0.0)),
    25: lambda q: q.rank(-q.returns() * q.adv(20) * VWAP * (HIGH - CLOSE)),
    26: alpha_026,
    28: alpha_028,
    35: alpha_035,
    38: lambda q: -q.rank(q.ts_rank(CLOSE, 10)) * q.rank(ratio(CLOSE, OPEN)),
    40: lambda q: -q.rank(q.stddev(HIGH, 10)) * q.correlation(HIGH, VOLUME, 10),
    41: lambda q: (HIGH * LOW).sqrt() - VWAP,
    42: lambda q: ratio(q.rank(VWAP - CLOSE), q.rank(VWAP + CLOSE)),
    43: alpha_043,
    44: lambda q: -q.correlation(HIGH, q.rank(VOLUME), 5),
    52: alpha_052,
    53: lambda q: -q.delta(ratio((CLOSE - LOW) - (HIGH - CLOSE), CLOSE - LOW), 9),
    54: lambda q: ratio(-(LOW - CLOSE) * OPEN.pow(5), (LOW - HIGH) * CLOSE.pow(5)),
    55: alpha_055,
    101: lambda q: ratio(CLOSE - OPEN, (HIGH - LOW) + 0.001),
}


def run(number: int, table: pl.DataFrame) -> pl.DataFrame:
    query = Query()
    return query.run(FORMULAS[number](query), table)


def to_numpy(result: pl.DataFrame, shares: int) -> np.ndarray:
    """The matrix of dates by shares."""
    column = result.to_series().fill_null(np.nan).to_numpy()
    return column.reshape(shares, -1).T
