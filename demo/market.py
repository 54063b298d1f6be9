"""What the evaluator is given of the market: features, a universe and their context."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray
from prices import Prices
from quernbrook.reference_host import FunctionRegistry
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext

# A share is in the universe once it has this many daily returns, half a year.
NEEDED_RETURNS = 120

PNL_COLUMN = "gross_returns"

Matrix = NDArray[np.float64]


@dataclass(frozen=True)
class Market:
    """Matrices of one row a day and one column a share; a row holds nothing of later days."""

    dates: NDArray[np.datetime64]
    tickers: tuple[str, ...]
    log_price: Matrix
    returns: Matrix
    universe: Matrix

    def context(
        self,
        rows: slice,
        registry: FunctionRegistry,
        useful_signals: dict[str, UsefulSignal] | None = None,
        **stages: Any,
    ) -> EvaluationContext:
        return EvaluationContext(
            (self.log_price[rows], self.returns[rows]),
            {"log_price": 0, "return": 1},
            useful_signals=useful_signals,
            registry=registry,
            universe=self.universe[rows],
            column_labels=[PNL_COLUMN],
            **stages,
        )


def build(prices: Prices) -> Market:
    returns = np.full(prices.values.shape, np.nan)
    returns[1:] = prices.values[1:] / prices.values[:-1] - 1.0
    seen = np.cumsum(np.isfinite(returns), axis=0)
    return Market(
        dates=prices.dates,
        tickers=prices.tickers,
        log_price=np.log(prices.values),
        returns=returns,
        universe=(seen >= NEEDED_RETURNS).astype(np.float64),
    )
