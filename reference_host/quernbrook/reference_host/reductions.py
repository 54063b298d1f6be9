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
from quernbrook.reference_host.rotations import as_rows
from quernbrook.reference_host.states import SavedState
from quernbrook.reference_host.sums import sum_of, sum_of_rows
from quernbrook.reference_host.window import RollingInstance, deviations, mean, root_mean_square

# From observations of shape (window, A) to a statistic of each signal.
Statistic = Callable[[Block], Row]


def as_block(name: str, block: Any) -> Block:
    """The weights of signals as float64. Raises ValueError for other dimensions than two."""
    # Contiguous, since NumPy's order of summing depends on it.
    array = np.asarray(block, dtype=np.float64, order="C")
    if array.ndim != 2:
        raise ValueError(f"{name}: a block of signals must have 2 dimension(s); got {array.ndim}")
    return array


class ReductionMean:
    """The plain mean over the signals; NaN without any."""

    name = "reduction_mean"
    stateful = False

    def __call__(self, block: Block, signal_pnl: Row | None = None) -> Row:
        block = as_block(self.name, block)
        if len(block) == 0:
            return np.full(block.shape[1], np.nan)
        with np.errstate(all="ignore"):
            return mean(block)


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

    def observe(self, block: Block, signal_pnl: Row | None) -> Row:
        """Return what enters the window: one value for each signal."""
        if signal_pnl is None:
            raise TypeError(f"{self.name} needs signal_pnl, one value for each signal")
        return signal_pnl

    def __call__(self, block: Block, signal_pnl: Row | None = None) -> Row:
        """Take in one row.

        Raises ValueError when the number of signals has changed and when `signal_pnl` has another,
        TypeError where it is needed and missing.
        """
        block = as_block(self.name, block)
        if signal_pnl is not None:
            (signal_pnl,) = as_rows(self.name, 1, (signal_pnl,))
            if len(signal_pnl) != len(block):
                raise ValueError(
                    f"{self.name}: signal_pnl has {len(signal_pnl)} values for {len(block)} signals"
                )
        with np.errstate(all="ignore"):
            self._rows.push(self.observe(block, signal_pnl))
            if not self._rows.is_full or len(block) == 0:
                return np.full(block.shape[1], np.nan)
            shares = self._shares(self._statistic(self._rows.rows))
            total = sum_of(shares)
            if total == 0.0:
                return mean(block)
            # A signal without a share must not bring its NaN cells in.
            taken = shares > 0.0
            return sum_of_rows(block[taken] * (shares[taken] / total)[:, np.newaxis])

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

    def observe(self, block: Block, signal_pnl: Row | None) -> Row:
        held = np.nan_to_num(block, nan=0.0)
        if self._held is None:
            change = held
        elif len(held) != len(self._held):
            raise ValueError(
                f"row has {len(held)} values; the window holds rows of {len(self._held)}"
            )
        elif held.shape != self._held.shape:
            raise ValueError(
                f"signals have {held.shape[1]} weights; "
                f"those of the row before had {self._held.shape[1]}"
            )
        else:
            change = held - self._held
        self._held = held
        return np.array([sum_of(row) for row in np.abs(change)])

    def get_state(self) -> SavedState:
        state = super().get_state()
        state.state_data["held"] = None if self._held is None else self._held.tolist()
        return state

    def restore(self, state_data: dict[str, Any]) -> None:
        super().restore(state_data)
        held = state_data["held"]
        signals = self._rows.rows.shape[1]
        if len(held or ()) != signals:
            raise ValueError(f"{len(held or ())} rows of weights are held for {signals} signals")
        self._held = np.asarray(held, dtype=np.float64) if held else None


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
