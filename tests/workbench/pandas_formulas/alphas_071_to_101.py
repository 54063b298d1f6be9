"""Formulas 71 to 101, each straight from the printed one."""

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
    log,
    maximum,
    minimum,
    power,
    product,
    rank,
    ratio,
    scale,
    sign,
    signedpower,
    sum_,
    ts_argmax,
    ts_argmin,
    ts_max,
    ts_min,
    ts_rank,
)


@formula(71, first=224)
def alpha_071(m: Market) -> Frame:
    together = correlation(ts_rank(m.close, 3.43976), ts_rank(m.adv(180), 12.0647), 18.0175)
    distance = power(rank((m.low + m.open) - (m.vwap + m.vwap)), 2)
    return maximum(
        ts_rank(decay_linear(together, 4.20501), 15.6948),
        ts_rank(decay_linear(distance, 16.4662), 4.4388),
    )


@formula(72)
def alpha_072(m: Market) -> Frame:
    middle = correlation((m.high + m.low) / 2, m.adv(40), 8.93345)
    ranks = correlation(ts_rank(m.vwap, 3.72469), ts_rank(m.volume, 18.5188), 6.86671)
    return ratio(rank(decay_linear(middle, 10.1519)), rank(decay_linear(ranks, 2.95011)))


@formula(73, first=18)
def alpha_073(m: Market) -> Frame:
    price = m.open * 0.147155 + m.low * (1 - 0.147155)
    growth = ratio(delta(price, 2.03608), price) * -1
    return (
        maximum(
            rank(decay_linear(delta(m.vwap, 4.72775), 2.91864)),
            ts_rank(decay_linear(growth, 3.33829), 16.7411),
        )
        * -1
    )


@formula(74)
def alpha_074(m: Market) -> Frame:
    price = m.high * 0.0261661 + m.vwap * (1 - 0.0261661)
    return (
        less(
            rank(correlation(m.close, sum_(m.adv(30), 37.4843), 15.1365)),
            rank(correlation(rank(price), rank(m.volume), 11.4791)),
        )
        * -1
    )


@formula(75)
def alpha_075(m: Market) -> Frame:
    return less(
        rank(correlation(m.vwap, m.volume, 4.24304)),
        rank(correlation(rank(m.low), rank(m.adv(50)), 12.4413)),
    )


@formula(76, first=139)
def alpha_076(m: Market) -> Frame:
    together = correlation(indneutralize(m.low, m.sector), m.adv(81), 8.14941)
    return (
        maximum(
            rank(decay_linear(delta(m.vwap, 1.24383), 11.8259)),
            ts_rank(decay_linear(ts_rank(together, 19.569), 17.1543), 19.383),
        )
        * -1
    )


@formula(77, first=45)
def alpha_077(m: Market) -> Frame:
    middle = (m.high + m.low) / 2
    return minimum(
        rank(decay_linear((middle + m.high) - (m.vwap + m.high), 20.0451)),
        rank(decay_linear(correlation(middle, m.adv(40), 3.1614), 5.64125)),
    )


@formula(78)
def alpha_078(m: Market) -> Frame:
    price = m.low * 0.352233 + m.vwap * (1 - 0.352233)
    return power(
        rank(correlation(sum_(price, 19.7428), sum_(m.adv(40), 19.7428), 6.83313)),
        rank(correlation(rank(m.vwap), rank(m.volume), 5.77492)),
    )


@formula(79)
def alpha_079(m: Market) -> Frame:
    price = m.close * 0.60733 + m.open * (1 - 0.60733)
    return less(
        rank(delta(indneutralize(price, m.sector), 1.23438)),
        rank(correlation(ts_rank(m.vwap, 3.60973), ts_rank(m.adv(150), 9.18637), 14.6644)),
    )


@formula(80)
def alpha_080(m: Market) -> Frame:
    price = m.open * 0.868128 + m.high * (1 - 0.868128)
    return (
        power(
            rank(sign(delta(indneutralize(price, m.industry), 4.04545))),
            ts_rank(correlation(m.high, m.adv(10), 5.11456), 5.53756),
        )
        * -1
    )


@formula(81)
def alpha_081(m: Market) -> Frame:
    together = rank(correlation(m.vwap, sum_(m.adv(10), 49.6054), 8.47743))
    return (
        less(
            rank(log(product(rank(power(together, 4)), 14.9655))),
            rank(correlation(rank(m.vwap), rank(m.volume), 5.07914)),
        )
        * -1
    )


@formula(82, first=33)
def alpha_082(m: Market) -> Frame:
    price = m.open * 0.634196 + m.open * (1 - 0.634196)
    together = correlation(indneutralize(m.volume, m.sector), price, 17.4842)
    return (
        minimum(
            rank(decay_linear(delta(m.open, 1.46063), 14.8717)),
            ts_rank(decay_linear(together, 6.92131), 13.4283),
        )
        * -1
    )


@formula(83)
def alpha_083(m: Market) -> Frame:
    reach = ratio(m.high - m.low, sum_(m.close, 5) / 5)
    return ratio(rank(delay(reach, 2)) * rank(rank(m.volume)), ratio(reach, m.vwap - m.close))


@formula(84)
def alpha_084(m: Market) -> Frame:
    return signedpower(ts_rank(m.vwap - ts_max(m.vwap, 15.3217), 20.7127), delta(m.close, 4.96796))


@formula(85)
def alpha_085(m: Market) -> Frame:
    price = m.high * 0.876703 + m.close * (1 - 0.876703)
    ranks = correlation(ts_rank((m.high + m.low) / 2, 3.70596), ts_rank(m.volume, 10.1595), 7.11408)
    return power(rank(correlation(price, m.adv(30), 9.61331)), rank(ranks))


@formula(86)
def alpha_086(m: Market) -> Frame:
    together = correlation(m.close, sum_(m.adv(20), 14.7444), 6.00049)
    above = rank((m.open + m.close) - (m.vwap + m.open))
    return less(ts_rank(together, 20.4195), above) * -1


@formula(87, first=108)
def alpha_087(m: Market) -> Frame:
    price = m.close * 0.369701 + m.vwap * (1 - 0.369701)
    together = correlation(indneutralize(m.adv(81), m.industry), m.close, 13.4132)
    return (
        maximum(
            rank(decay_linear(delta(price, 1.91233), 2.65461)),
            ts_rank(decay_linear(together.abs(), 4.89768), 14.4535),
        )
        * -1
    )


@formula(88, first=91)
def alpha_088(m: Market) -> Frame:
    order = (rank(m.open) + rank(m.low)) - (rank(m.high) + rank(m.close))
    together = correlation(ts_rank(m.close, 8.44728), ts_rank(m.adv(60), 20.6966), 8.01266)
    return minimum(
        rank(decay_linear(order, 8.06882)),
        ts_rank(decay_linear(together, 6.65053), 2.61957),
    )


@formula(89)
def alpha_089(m: Market) -> Frame:
    price = m.low * 0.967285 + m.low * (1 - 0.967285)
    change = delta(indneutralize(m.vwap, m.industry), 3.48158)
    return ts_rank(
        decay_linear(correlation(price, m.adv(10), 6.94279), 5.51607), 3.79744
    ) - ts_rank(decay_linear(change, 10.1466), 15.3012)


@formula(90)
def alpha_090(m: Market) -> Frame:
    together = correlation(indneutralize(m.adv(40), m.subindustry), m.low, 5.38375)
    return power(rank(m.close - ts_max(m.close, 4.66719)), ts_rank(together, 3.21856)) * -1


@formula(91)
def alpha_091(m: Market) -> Frame:
    together = correlation(indneutralize(m.close, m.industry), m.volume, 9.74928)
    smooth = ts_rank(decay_linear(decay_linear(together, 16.398), 3.83219), 4.8667)
    return (smooth - rank(decay_linear(correlation(m.vwap, m.adv(30), 4.01303), 2.6809))) * -1


@formula(92, first=45)
def alpha_092(m: Market) -> Frame:
    higher = less((m.high + m.low) / 2 + m.close, m.low + m.open)
    together = correlation(rank(m.low), rank(m.adv(30)), 7.58555)
    return minimum(
        ts_rank(decay_linear(higher, 14.7221), 18.8683),
        ts_rank(decay_linear(together, 6.94024), 6.80584),
    )


@formula(93)
def alpha_093(m: Market) -> Frame:
    together = correlation(indneutralize(m.vwap, m.industry), m.adv(81), 17.4193)
    price = m.close * 0.524434 + m.vwap * (1 - 0.524434)
    return ratio(
        ts_rank(decay_linear(together, 19.848), 7.54455),
        rank(decay_linear(delta(price, 2.77377), 16.2664)),
    )


@formula(94)
def alpha_094(m: Market) -> Frame:
    together = correlation(ts_rank(m.vwap, 19.6462), ts_rank(m.adv(60), 4.02992), 18.0926)
    return power(rank(m.vwap - ts_min(m.vwap, 11.5783)), ts_rank(together, 2.70756)) * -1


@formula(95)
def alpha_095(m: Market) -> Frame:
    together = correlation(sum_((m.high + m.low) / 2, 19.1351), sum_(m.adv(40), 19.1351), 12.8742)
    return less(rank(m.open - ts_min(m.open, 12.4105)), ts_rank(power(rank(together), 5), 11.7584))


@formula(96, first=100)
def alpha_096(m: Market) -> Frame:
    ranks = correlation(rank(m.vwap), rank(m.volume), 3.83878)
    together = correlation(ts_rank(m.close, 7.45404), ts_rank(m.adv(60), 4.13242), 3.65459)
    return (
        maximum(
            ts_rank(decay_linear(ranks, 4.16783), 8.38151),
            ts_rank(decay_linear(ts_argmax(together, 12.6556), 14.0365), 13.4143),
        )
        * -1
    )


@formula(97)
def alpha_097(m: Market) -> Frame:
    price = m.low * 0.721001 + m.vwap * (1 - 0.721001)
    change = delta(indneutralize(price, m.industry), 3.3705)
    together = correlation(ts_rank(m.low, 7.87871), ts_rank(m.adv(60), 17.255), 4.97547)
    smooth = ts_rank(decay_linear(ts_rank(together, 18.5925), 15.7152), 6.71659)
    return (rank(decay_linear(change, 20.4523)) - smooth) * -1


@formula(98)
def alpha_098(m: Market) -> Frame:
    together = correlation(m.vwap, sum_(m.adv(5), 26.4719), 4.58418)
    lowest = ts_argmin(correlation(rank(m.open), rank(m.adv(15)), 20.8187), 8.62571)
    return rank(decay_linear(together, 7.18088)) - rank(
        decay_linear(ts_rank(lowest, 6.95668), 8.07206)
    )


@formula(99)
def alpha_099(m: Market) -> Frame:
    together = correlation(sum_((m.high + m.low) / 2, 19.8975), sum_(m.adv(60), 19.8975), 8.8136)
    return less(rank(together), rank(correlation(m.low, m.volume, 6.28259))) * -1


@formula(100)
def alpha_100(m: Market) -> Frame:
    place = ratio((m.close - m.low) - (m.high - m.close), m.high - m.low)
    traded = indneutralize(indneutralize(rank(place * m.volume), m.subindustry), m.subindustry)
    other = indneutralize(
        correlation(m.close, rank(m.adv(20)), 5) - rank(ts_argmin(m.close, 30)), m.subindustry
    )
    return 0 - 1 * ((1.5 * scale(traded) - scale(other)) * ratio(m.volume, m.adv(20)))


@formula(101)
def alpha_101(m: Market) -> Frame:
    return ratio(m.close - m.open, (m.high - m.low) + 0.001)
