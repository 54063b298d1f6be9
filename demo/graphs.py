"""The expression graphs: the signals of the pool, and the strategy over them."""

from __future__ import annotations

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.graphs import feature, filtration, reduction, rotation

SHARPE_FIELD = "selection_sharpe"
TAKEN_SIGNALS = 3


def _signal(score: Node) -> Node:
    """Hold the shares of high score, owe those of low score, half of the money on each side."""
    centred = rotation("latitudinal_demean", rotation("latitudinal_rank", score))
    return rotation("latitudinal_scale", centred, 1.0)


def _momentum(window: int) -> Node:
    return _signal(rotation("longitudinal_delta", feature("log_price"), window))


def pool_graphs() -> dict[str, Node]:
    """A graph for each signal of the pool, by the signal's name."""
    week = rotation("longitudinal_delta", feature("log_price"), 5)
    volatility = rotation("longitudinal_std", feature("return"), 120)
    return {
        "low volatility": _signal(rotation("numerical_negate", volatility)),
        "momentum 20": _momentum(20),
        "momentum 60": _momentum(60),
        "momentum 120": _momentum(120),
        "momentum 250": _momentum(250),
        "reversal 5": _signal(rotation("numerical_negate", week)),
    }


def strategy_graph() -> Node:
    """Rank the shares by the pool's best signals and a reversal; weigh by rank over volatility."""
    best = filtration("top_n", SHARPE_FIELD, TAKEN_SIGNALS)
    pool = reduction("weighted_by_sharpe", best, 250)
    price = rotation("longitudinal_zscore", feature("log_price"), 20)
    score = rotation(
        "numerical_add",
        rotation("numerical_multiply", 0.8, rotation("latitudinal_zscore", pool)),
        rotation("numerical_multiply", -0.2, rotation("latitudinal_zscore", price)),
    )
    volatility = rotation("longitudinal_std", feature("return"), 60)
    # The floor keeps a share whose price stood still from taking all the money.
    risk = rotation("numerical_add", volatility, 0.005)
    weighed = rotation("numerical_divide", rotation("latitudinal_rank", score), risk)
    smooth = rotation("longitudinal_mean", weighed, 10)
    return rotation("latitudinal_scale", smooth, 1.0)
