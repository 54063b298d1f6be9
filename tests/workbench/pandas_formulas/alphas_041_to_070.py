"""Formulas 41 to 70, each straight from the printed one."""

from __future__ import annotations

from workbench.pandas_formulas.formula import formula
from workbench.pandas_formulas.operations import (
    Frame,
    Market,
    correlation,
    decay_linear,
    delay,
    delta,
    indneutralize,
    less,
    power,
    rank,
    ratio,
    scale,
    sum_,
    ts_argmax,
    ts_max,
    ts_min,
    ts_rank,
    where,
)


@formula(41)
def alpha_041(m: Market) -> Frame:
    return power(m.high * m.low, 0.5) - m.vwap


@formula(42)
def alpha_042(m: Market) -> Frame:
    return ratio(rank(m.vwap - m.close), rank(m.vwap + m.close))


@formula(43)
def alpha_043(m: Market) -> Frame:
    return ts_rank(ratio(m.volume, m.adv(20)), 20) * ts_rank(-1 * delta(m.close, 7), 8)


@formula(44)
def alpha_044(m: Market) -> Frame:
    return -1 * correlation(m.high, rank(m.volume), 5)


@formula(45)
def alpha_045(m: Market) -> Frame:
    return -1 * (
        rank(sum_(delay(m.close, 5), 20) / 20)
        * correlation(m.close, m.volume, 2)
        * rank(correlation(sum_(m.close, 5), sum_(m.close, 20), 2))
    )


def _bend(m: Market) -> Frame:
    before = (delay(m.close, 20) - delay(m.close, 10)) / 10
    return before - (delay(m.close, 10) - m.close) / 10


@formula(46)
def alpha_046(m: Market) -> Frame:
    reversal = -1 * 1 * (m.close - delay(m.close, 1))
    return where(less(0.25, _bend(m)), -1 * 1, where(less(_bend(m), 0), 1, reversal))


@formula(47)
def alpha_047(m: Market) -> Frame:
    traded = ratio(rank(ratio(1, m.close)) * m.volume, m.adv(20))
    reach = ratio(m.high * rank(m.high - m.close), sum_(m.high, 5) / 5)
    return traded * reach - rank(m.vwap - delay(m.vwap, 5))


@formula(48)
def alpha_048(m: Market) -> Frame:
    change = delta(m.close, 1)
    persistence = correlation(change, delta(delay(m.close, 1), 1), 250)
    squares = power(ratio(change, delay(m.close, 1)), 2)
    return ratio(
        indneutralize(ratio(persistence * change, m.close), m.subindustry), sum_(squares, 250)
    )


@formula(49)
def alpha_049(m: Market) -> Frame:
    return where(less(_bend(m), -1 * 0.1), 1, -1 * 1 * (m.close - delay(m.close, 1)))


@formula(50)
def alpha_050(m: Market) -> Frame:
    return -1 * ts_max(rank(correlation(rank(m.volume), rank(m.vwap), 5)), 5)


@formula(51)
def alpha_051(m: Market) -> Frame:
    return where(less(_bend(m), -1 * 0.05), 1, -1 * 1 * (m.close - delay(m.close, 1)))


@formula(52)
def alpha_052(m: Market) -> Frame:
    lowest = ts_min(m.low, 5)
    trend = rank((sum_(m.returns, 240) - sum_(m.returns, 20)) / 220)
    return (-1 * lowest + delay(lowest, 5)) * trend * ts_rank(m.volume, 5)


@formula(53)
def alpha_053(m: Market) -> Frame:
    place = ratio((m.close - m.low) - (m.high - m.close), m.close - m.low)
    return -1 * delta(place, 9)


@formula(54)
def alpha_054(m: Market) -> Frame:
    return ratio(-1 * ((m.low - m.close) * power(m.open, 5)), (m.low - m.high) * power(m.close, 5))


@formula(55)
def alpha_055(m: Market) -> Frame:
    lowest, highest = ts_min(m.low, 12), ts_max(m.high, 12)
    return -1 * correlation(rank(ratio(m.close - lowest, highest - lowest)), rank(m.volume), 6)


@formula(56)
def alpha_056(m: Market) -> Frame:
    trend = ratio(sum_(m.returns, 10), sum_(sum_(m.returns, 2), 3))
    return 0 - 1 * (rank(trend) * rank(m.returns * m.cap))


@formula(57)
def alpha_057(m: Market) -> Frame:
    return 0 - 1 * ratio(m.close - m.vwap, decay_linear(rank(ts_argmax(m.close, 30)), 2))


@formula(58)
def alpha_058(m: Market) -> Frame:
    together = correlation(indneutralize(m.vwap, m.sector), m.volume, 3.92795)
    return -1 * ts_rank(decay_linear(together, 7.89291), 5.50322)


@formula(59)
def alpha_059(m: Market) -> Frame:
    price = m.vwap * 0.728317 + m.vwap * (1 - 0.728317)
    together = correlation(indneutralize(price, m.industry), m.volume, 4.25197)
    return -1 * ts_rank(decay_linear(together, 16.2289), 8.19648)


@formula(60)
def alpha_060(m: Market) -> Frame:
    place = ratio((m.close - m.low) - (m.high - m.close), m.high - m.low)
    return 0 - 1 * (2 * scale(rank(place * m.volume)) - scale(rank(ts_argmax(m.close, 10))))


@formula(61)
def alpha_061(m: Market) -> Frame:
    return less(
        rank(m.vwap - ts_min(m.vwap, 16.1219)), rank(correlation(m.vwap, m.adv(180), 17.9282))
    )


@formula(62)
def alpha_062(m: Market) -> Frame:
    higher = less(rank(m.open) + rank(m.open), rank((m.high + m.low) / 2) + rank(m.high))
    together = correlation(m.vwap, sum_(m.adv(20), 22.4101), 9.91009)
    return less(rank(together), rank(higher)) * -1


@formula(63)
def alpha_063(m: Market) -> Frame:
    change = delta(indneutralize(m.close, m.industry), 2.25164)
    price = m.vwap * 0.318108 + m.open * (1 - 0.318108)
    together = correlation(price, sum_(m.adv(180), 37.2467), 13.557)
    return (rank(decay_linear(change, 8.22237)) - rank(decay_linear(together, 12.2883))) * -1


@formula(64)
def alpha_064(m: Market) -> Frame:
    price = m.open * 0.178404 + m.low * (1 - 0.178404)
    together = correlation(sum_(price, 12.7054), sum_(m.adv(120), 12.7054), 16.6208)
    middle = (m.high + m.low) / 2 * 0.178404 + m.vwap * (1 - 0.178404)
    return less(rank(together), rank(delta(middle, 3.69741))) * -1


@formula(65)
def alpha_065(m: Market) -> Frame:
    price = m.open * 0.00817205 + m.vwap * (1 - 0.00817205)
    together = correlation(price, sum_(m.adv(60), 8.6911), 6.40374)
    return less(rank(together), rank(m.open - ts_min(m.open, 13.635))) * -1


@formula(66)
def alpha_066(m: Market) -> Frame:
    price = m.low * 0.96633 + m.low * (1 - 0.96633)
    place = ratio(price - m.vwap, m.open - (m.high + m.low) / 2)
    return (
        rank(decay_linear(delta(m.vwap, 3.51013), 7.23052))
        + ts_rank(decay_linear(place, 11.4157), 6.72611)
    ) * -1


@formula(67)
def alpha_067(m: Market) -> Frame:
    together = correlation(
        indneutralize(m.vwap, m.sector), indneutralize(m.adv(20), m.subindustry), 6.02936
    )
    return power(rank(m.high - ts_min(m.high, 2.14593)), rank(together)) * -1


@formula(68)
def alpha_068(m: Market) -> Frame:
    together = ts_rank(correlation(rank(m.high), rank(m.adv(15)), 8.91644), 13.9333)
    price = m.close * 0.518371 + m.low * (1 - 0.518371)
    return less(together, rank(delta(price, 1.06157))) * -1


@formula(69)
def alpha_069(m: Market) -> Frame:
    change = delta(indneutralize(m.vwap, m.industry), 2.72412)
    price = m.close * 0.490655 + m.vwap * (1 - 0.490655)
    together = ts_rank(correlation(price, m.adv(20), 4.92416), 9.0615)
    return power(rank(ts_max(change, 4.79344)), together) * -1


@formula(70)
def alpha_070(m: Market) -> Frame:
    together = correlation(indneutralize(m.close, m.industry), m.adv(50), 17.8256)
    return power(rank(delta(m.vwap, 1.29456)), ts_rank(together, 17.9171)) * -1
