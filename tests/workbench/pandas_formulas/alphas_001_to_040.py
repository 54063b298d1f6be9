"""Formulas 1 to 40, each straight from the printed one."""

from __future__ import annotations

from workbench.pandas_formulas.formula import formula
from workbench.pandas_formulas.operations import (
    Frame,
    Market,
    correlation,
    covariance,
    decay_linear,
    delay,
    delta,
    either,
    equal,
    less,
    log,
    power,
    product,
    rank,
    ratio,
    scale,
    sign,
    signedpower,
    stddev,
    sum_,
    ts_argmax,
    ts_max,
    ts_min,
    ts_rank,
    where,
)


@formula(1, first=23)
def alpha_001(m: Market) -> Frame:
    chosen = where(less(m.returns, 0), stddev(m.returns, 20), m.close)
    return rank(ts_argmax(signedpower(chosen, 2.0), 5)) - 0.5


@formula(2)
def alpha_002(m: Market) -> Frame:
    return -1 * correlation(rank(delta(log(m.volume), 2)), rank(ratio(m.close - m.open, m.open)), 6)


@formula(3)
def alpha_003(m: Market) -> Frame:
    return -1 * correlation(rank(m.open), rank(m.volume), 10)


@formula(4)
def alpha_004(m: Market) -> Frame:
    return -1 * ts_rank(rank(m.low), 9)


@formula(5)
def alpha_005(m: Market) -> Frame:
    return rank(m.open - sum_(m.vwap, 10) / 10) * (-1 * rank(m.close - m.vwap).abs())


@formula(6)
def alpha_006(m: Market) -> Frame:
    return -1 * correlation(m.open, m.volume, 10)


@formula(7, first=65)
def alpha_007(m: Market) -> Frame:
    change = delta(m.close, 7)
    return where(less(m.adv(20), m.volume), -1 * ts_rank(change.abs(), 60) * sign(change), -1 * 1)


@formula(8)
def alpha_008(m: Market) -> Frame:
    both = sum_(m.open, 5) * sum_(m.returns, 5)
    return -1 * rank(both - delay(both, 10))


@formula(9)
def alpha_009(m: Market) -> Frame:
    change = delta(m.close, 1)
    falling = where(less(ts_max(change, 5), 0), change, -1 * change)
    return where(less(0, ts_min(change, 5)), change, falling)


@formula(10)
def alpha_010(m: Market) -> Frame:
    change = delta(m.close, 1)
    falling = where(less(ts_max(change, 4), 0), change, -1 * change)
    return rank(where(less(0, ts_min(change, 4)), change, falling))


@formula(11)
def alpha_011(m: Market) -> Frame:
    above = m.vwap - m.close
    return (rank(ts_max(above, 3)) + rank(ts_min(above, 3))) * rank(delta(m.volume, 3))


@formula(12)
def alpha_012(m: Market) -> Frame:
    return sign(delta(m.volume, 1)) * (-1 * delta(m.close, 1))


@formula(13)
def alpha_013(m: Market) -> Frame:
    return -1 * rank(covariance(rank(m.close), rank(m.volume), 5))


@formula(14)
def alpha_014(m: Market) -> Frame:
    return -1 * rank(delta(m.returns, 3)) * correlation(m.open, m.volume, 10)


@formula(15)
def alpha_015(m: Market) -> Frame:
    return -1 * sum_(rank(correlation(rank(m.high), rank(m.volume), 3)), 3)


@formula(16)
def alpha_016(m: Market) -> Frame:
    return -1 * rank(covariance(rank(m.high), rank(m.volume), 5))


@formula(17)
def alpha_017(m: Market) -> Frame:
    return (
        (-1 * rank(ts_rank(m.close, 10)))
        * rank(delta(delta(m.close, 1), 1))
        * rank(ts_rank(ratio(m.volume, m.adv(20)), 5))
    )


@formula(18)
def alpha_018(m: Market) -> Frame:
    body = m.close - m.open
    return -1 * rank(stddev(body.abs(), 5) + body + correlation(m.close, m.open, 10))


@formula(19)
def alpha_019(m: Market) -> Frame:
    trend = sign(m.close - delay(m.close, 7) + delta(m.close, 7))
    return -1 * trend * (1 + rank(1 + sum_(m.returns, 250)))


@formula(20)
def alpha_020(m: Market) -> Frame:
    return (
        -1
        * rank(m.open - delay(m.high, 1))
        * rank(m.open - delay(m.close, 1))
        * rank(m.open - delay(m.low, 1))
    )


@formula(21, first=19)
def alpha_021(m: Market) -> Frame:
    week, days = sum_(m.close, 8) / 8, sum_(m.close, 2) / 2
    trade = ratio(m.volume, m.adv(20))
    by_trade = where(either(less(1, trade), equal(trade, 1)), 1, -1 * 1)
    below = where(less(days, week - stddev(m.close, 8)), 1, by_trade)
    return where(less(week + stddev(m.close, 8), days), -1 * 1, below)


@formula(22)
def alpha_022(m: Market) -> Frame:
    return -1 * (delta(correlation(m.high, m.volume, 5), 5) * rank(stddev(m.close, 20)))


@formula(23)
def alpha_023(m: Market) -> Frame:
    return where(less(sum_(m.high, 20) / 20, m.high), -1 * delta(m.high, 2), 0)


@formula(24)
def alpha_024(m: Market) -> Frame:
    growth = ratio(delta(sum_(m.close, 100) / 100, 100), delay(m.close, 100))
    slow = either(less(growth, 0.05), equal(growth, 0.05))
    return where(slow, -1 * (m.close - ts_min(m.close, 100)), -1 * delta(m.close, 3))


@formula(25)
def alpha_025(m: Market) -> Frame:
    return rank(-1 * m.returns * m.adv(20) * m.vwap * (m.high - m.close))


@formula(26)
def alpha_026(m: Market) -> Frame:
    return -1 * ts_max(correlation(ts_rank(m.volume, 5), ts_rank(m.high, 5), 5), 3)


@formula(27)
def alpha_027(m: Market) -> Frame:
    together = rank(sum_(correlation(rank(m.volume), rank(m.vwap), 6), 2) / 2.0)
    return where(less(0.5, together), -1 * 1, 1)


@formula(28)
def alpha_028(m: Market) -> Frame:
    return scale(correlation(m.adv(20), m.low, 5) + (m.high + m.low) / 2 - m.close)


@formula(29)
def alpha_029(m: Market) -> Frame:
    reversal = rank(rank(-1 * rank(delta(m.close - 1, 5))))
    lowest = product(rank(rank(scale(log(sum_(ts_min(reversal, 2), 1))))), 1)
    return ts_min(lowest, 5) + ts_rank(delay(-1 * m.returns, 6), 5)


@formula(30)
def alpha_030(m: Market) -> Frame:
    signs = (
        sign(m.close - delay(m.close, 1))
        + sign(delay(m.close, 1) - delay(m.close, 2))
        + sign(delay(m.close, 2) - delay(m.close, 3))
    )
    return ratio((1.0 - rank(signs)) * sum_(m.volume, 5), sum_(m.volume, 20))


@formula(31)
def alpha_031(m: Market) -> Frame:
    return (
        rank(rank(rank(decay_linear(-1 * rank(rank(delta(m.close, 10))), 10))))
        + rank(-1 * delta(m.close, 3))
        + sign(scale(correlation(m.adv(20), m.low, 12)))
    )


@formula(32)
def alpha_032(m: Market) -> Frame:
    return scale(sum_(m.close, 7) / 7 - m.close) + 20 * scale(
        correlation(m.vwap, delay(m.close, 5), 230)
    )


@formula(33)
def alpha_033(m: Market) -> Frame:
    return rank(-1 * power(1 - ratio(m.open, m.close), 1))


@formula(34)
def alpha_034(m: Market) -> Frame:
    calm = 1 - rank(ratio(stddev(m.returns, 2), stddev(m.returns, 5)))
    return rank(calm + (1 - rank(delta(m.close, 1))))


@formula(35)
def alpha_035(m: Market) -> Frame:
    return (
        ts_rank(m.volume, 32)
        * (1 - ts_rank(m.close + m.high - m.low, 16))
        * (1 - ts_rank(m.returns, 32))
    )


@formula(36)
def alpha_036(m: Market) -> Frame:
    return (
        2.21 * rank(correlation(m.close - m.open, delay(m.volume, 1), 15))
        + 0.7 * rank(m.open - m.close)
        + 0.73 * rank(ts_rank(delay(-1 * m.returns, 6), 5))
        + rank(correlation(m.vwap, m.adv(20), 6).abs())
        + 0.6 * rank((sum_(m.close, 200) / 200 - m.open) * (m.close - m.open))
    )


@formula(37)
def alpha_037(m: Market) -> Frame:
    return rank(correlation(delay(m.open - m.close, 1), m.close, 200)) + rank(m.open - m.close)


@formula(38)
def alpha_038(m: Market) -> Frame:
    return -1 * rank(ts_rank(m.close, 10)) * rank(ratio(m.close, m.open))


@formula(39)
def alpha_039(m: Market) -> Frame:
    quiet = 1 - rank(decay_linear(ratio(m.volume, m.adv(20)), 9))
    return -1 * rank(delta(m.close, 7) * quiet) * (1 + rank(sum_(m.returns, 250)))


@formula(40)
def alpha_040(m: Market) -> Frame:
    return -1 * rank(stddev(m.high, 10)) * correlation(m.high, m.volume, 10)
