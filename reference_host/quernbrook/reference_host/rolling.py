"""Operations along time over a rolling window: sums, means, deviations, values of earlier rows.

No instance gives a value before its window is full: until then a row of NaN. A NaN in the rows
that a value is made of makes the value NaN, in its own column only.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any, ClassVar

import numpy as np
from quernbrook.reference_host.arrays import Block, Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.rotations import as_rows
from quernbrook.reference_host.window import RollingInstance, deviations, mean, root_mean_square


class RollingRotation(RollingInstance):
    """Base of the functions along time; a subclass gives `name` and `compute`."""

    arity: ClassVar[int] = 1

    def __init__(self, window: int) -> None:
        super().__init__(window, self.arity)

    # Of as many full windows as there are inputs, their oldest rows first, a new row.
    compute: Callable[..., Row]

    def __call__(self, *rows: Row, context: Any = None) -> Row:
        """Take in one row of each input.

        Raises TypeError for another number of rows than `arity`, ValueError for different widths,
        and when the width has changed.
        """
        arrays = as_rows(self.name, self.arity, rows)
        for window, array in zip(self._windows, arrays, strict=True):
            window.push(array)
        if not self._rows.is_full:
            return np.full(arrays[0].shape, np.nan)
        with np.errstate(all="ignore"):
            return self.compute(*(window.rows for window in self._windows))


class LongitudinalSum(RollingRotation):
    """The sum over the window."""

    name = "longitudinal_sum"

    def compute(self, rows: Block) -> Row:
        return np.add.reduce(rows, axis=0)


class LongitudinalProduct(RollingRotation):
    """The product over the window."""

    name = "longitudinal_product"

    def compute(self, rows: Block) -> Row:
        return np.multiply.reduce(rows, axis=0)


class LongitudinalMean(RollingRotation):
    """The mean over the window."""

    name = "longitudinal_mean"

    def compute(self, rows: Block) -> Row:
        return mean(rows)


class LongitudinalStd(RollingRotation):
    """The population standard deviation over the window."""

    name = "longitudinal_std"

    def compute(self, rows: Block) -> Row:
        return root_mean_square(deviations(rows))


class LongitudinalZscore(RollingRotation):
    """The newest value less the window's mean, in population standard deviations.

    0 where all values of the window are equal.
    """

    name = "longitudinal_zscore"

    def compute(self, rows: Block) -> Row:
        centred = deviations(rows)
        std = root_mean_square(centred)
        return np.divide(centred[-1], std, out=np.zeros_like(std), where=std != 0.0)


class LongitudinalDelay(RollingRotation):
    """The value of `window` rows ago."""

    name = "longitudinal_delay"
    extra_rows = 1

    def compute(self, rows: Block) -> Row:
        return rows[0].copy()


class LongitudinalDelta(RollingRotation):
    """The newest value less that of `window` rows ago."""

    name = "longitudinal_delta"
    extra_rows = 1

    def compute(self, rows: Block) -> Row:
        return rows[-1] - rows[0]


def rolling_entry(
    function: type[RollingRotation], own_parameters: dict[str, Parameter] | None = None
) -> FunctionEntry:
    return FunctionEntry(
        function.name,
        "longitudinal",
        build=function,
        param_schema={"window": Parameter("int"), **(own_parameters or {})},
        stateful=True,
        library=True,
    )


FUNCTIONS = tuple(
    rolling_entry(function)
    for function in (
        LongitudinalSum,
        LongitudinalProduct,
        LongitudinalMean,
        LongitudinalStd,
        LongitudinalZscore,
        LongitudinalDelay,
        LongitudinalDelta,
    )
)
