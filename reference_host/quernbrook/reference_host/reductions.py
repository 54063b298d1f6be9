"""Reductions: a block of signals' weight rows, shape (A, N_alloc), becomes one row.

The weighted reductions give each signal a share in proportion to a statistic of its last `window`
rows, or to the reciprocal of that with `invert`. A signal whose statistic is NaN, zero or
negative gets no share; when no signal gets one, the result is the plain mean. Until the window is
full, the result is a row of NaN.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any, ClassVar

import numpy as np
from quernbrook.reference_host.arrays import Block, Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.states import SavedState
from quernbrook.reference_host.window import RollingInstance, deviations, mean, root_mean_square

# From observations of shape (window, A) to a statistic of each signal.
Statistic = Callable[[Block], Row]


class ReductionMean:
    """The plain mean over the signals."""

    name = "reduction_mean"
    stateful = False

    def __call__(self, block: Block, signal_pnl: Row | None = None) -> Row:
        return np.mean(block, axis=0)


class WeightedReduction(RollingInstance):
    """Base of the weighted reductions; a subclass gives `name` and `statistics`.

    `stat_name` chooses among `statistics`, the first being the default. `pnl_column` is for the
    evaluator, which reads it from the configuration to fill `signal_pnl`.
    """

    statistics: ClassVar[dict[str, Statistic]]

    def __init__(self, window: int, stat_name: str, pnl_column: str, invert: bool) -> None:
        """Raises ValueError for a window below 1 and for an unknown `stat_name`."""
        super().__init__(window)
        if stat_name not in self.statistics:
            raise ValueError(
                f"unknown stat_name '{stat_name}'; known: {', '.join(self.statistics)}"
            )
        self.pnl_column = pnl_column
        self.invert = invert
        self._statistic = self.statistics[stat_name]

    def observe(self, block: Block, signal_pnl: Row) -> Row:
        """Return what enters the window: one value for each signal."""
        return signal_pnl

    def __call__(self, block: Block, signal_pnl: Row) -> Row:
        """Take in one row. Raises ValueError when the number of signals has changed."""
        self._rows.push(self.observe(block, signal_pnl))
        if not self._rows.is_full or len(block) == 0:
            return np.full(block.shape[1], np.nan)
        with np.errstate(all="ignore"):
            shares = self._shares(self._statistic(self._rows.rows))
            total = shares.sum()
            if total == 0.0:
                return np.mean(block, axis=0)
            # A signal without a share must not bring its NaN cells in.
            taken = shares > 0.0
            return np.add.reduce(block[taken] * (shares[taken] / total)[:, np.newaxis], axis=0)

    def _shares(self, statistic: Row) -> Row:
        positive = statistic > 0.0
        shares = np.where(positive, statistic, 0.0)
        if self.invert:
            np.divide(1.0, shares, out=shares, where=positive)
        return shares


def _vol(pnl: Block) -> Row:
    return root_mean_square(deviations(pnl))


def _downside_vol(pnl: Block) -> Row:
    return root_mean_square(np.minimum(pnl, 0.0))


def _sharpe(pnl: Block) -> Row:
    return _ratio(mean(pnl), _vol(pnl))


def _sortino(pnl: Block) -> Row:
    return _ratio(mean(pnl), _downside_vol(pnl))


def _ratio(numerator: Row, denominator: Row) -> Row:
    """0 where the denominator is, so that a signal without risk to measure gets no share."""
    return np.divide(numerator, denominator, out=np.zeros_like(numerator), where=denominator != 0.0)


class WeightedByVol(WeightedReduction):
    """By the population standard deviation of the PnL, or the root mean square of its losses."""

    name = "weighted_by_vol"
    statistics: ClassVar[dict[str, Statistic]] = {"vol": _vol, "downside_vol": _downside_vol}


class WeightedBySharpe(WeightedReduction):
    """By the mean PnL over its "vol", or over its "downside_vol"."""

    name = "weighted_by_sharpe"
    statistics: ClassVar[dict[str, Statistic]] = {"sharpe": _sharpe, "sortino": _sortino}


class WeightedByPnl(WeightedReduction):
    """By the mean PnL."""

    name = "weighted_by_pnl"
    statistics: ClassVar[dict[str, Statistic]] = {"pnl": mean}

    def __init__(self, window: int, pnl_column: str, invert: bool) -> None:
        super().__init__(window, "pnl", pnl_column, invert)


class WeightedByTurnover(WeightedReduction):
    """By the turnover: the absolute changes of a signal's weights from row to row, summed.

    The first row is a change from nothing, and a NaN weight counts as none.
    """

    name = "weighted_by_turnover"
    statistics: ClassVar[dict[str, Statistic]] = {"turnover": mean}

    def __init__(self, window: int, stat_name: str, pnl_column: str, invert: bool) -> None:
        super().__init__(window, stat_name, pnl_column, invert)
        self._held: Block | None = None

    def observe(self, block: Block, signal_pnl: Row) -> Row:
        held = np.nan_to_num(block, nan=0.0)
        change = held if self._held is None else held - self._held
        self._held = held
        return np.abs(change).sum(axis=1)

    def get_state(self) -> SavedState:
        state = super().get_state()
        state.state_data["held"] = None if self._held is None else self._held.tolist()
        return state

    def restore(self, state_data: dict[str, Any]) -> None:
        super().restore(state_data)
        held = state_data["held"]
        self._held = None if held is None else np.asarray(held, dtype=np.float64)


def _weighted_entry(
    function: type[WeightedReduction], own_parameters: dict[str, Parameter]
) -> FunctionEntry:
    return FunctionEntry(
        function.name,
        "reduction",
        build=function,
        param_schema={
            "window": Parameter("int"),
            **own_parameters,
            "pnl_column": Parameter("string", "gross_returns"),
            "invert": Parameter("bool", False),
        },
        stateful=True,
        library=True,
    )


FUNCTIONS = (
    FunctionEntry(ReductionMean.name, "reduction", build=ReductionMean, library=True),
    _weighted_entry(WeightedByVol, {"stat_name": Parameter("string", "vol")}),
    _weighted_entry(WeightedBySharpe, {"stat_name": Parameter("string", "sharpe")}),
    _weighted_entry(WeightedByTurnover, {"stat_name": Parameter("string", "turnover")}),
    _weighted_entry(WeightedByPnl, {}),
)
