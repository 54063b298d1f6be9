"""The published formulas in pandas, as the tests have them, over pandas' own windows.

The tests take every window by itself and in extended precision, which says nothing of pandas. Here
their formulas get what pandas offers, and NumPy's views of windows where it has nothing.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from typing import Any
from unittest.mock import patch

import numpy as np
import pandas as pd
from numpy.lib.stride_tricks import sliding_window_view
from quernbrook.workbench.panels import Panel
from workbench.pandas_formulas import (
    FORMULAS,
    Market,
    alphas_001_to_040,
    alphas_041_to_070,
    alphas_071_to_101,
    operations,
)

Frame = pd.DataFrame
MODULES = (operations, alphas_001_to_040, alphas_041_to_070, alphas_071_to_101)


@contextmanager
def formulas(panel: Panel) -> Iterator[dict[int, Callable[[], Frame]]]:
    """Each formula over the panel, by its number."""
    with ExitStack() as stack:
        for module in MODULES:
            for name in WINDOWS.keys() & vars(module).keys():
                stack.enter_context(patch.object(module, name, WINDOWS[name]))
        frames = {name: panel.frame(values) for name, values in panel.fields.items()}
        # What several formulas share is prepared once and not measured: the returns.
        market = Market(frames)
        yield {number: (lambda f=f: f(market)) for number, f in FORMULAS.items()}


def windows(x: Frame, days: float) -> Any:
    return x.rolling(math.floor(days))


def of_windows(x: Frame, days: float, function: Callable[[np.ndarray], np.ndarray]) -> Frame:
    size = math.floor(days)
    result = np.full(x.shape, np.nan)
    if len(x) >= size:
        result[size - 1 :] = function(sliding_window_view(x.to_numpy(), size, axis=0))
    return Frame(result, index=x.index, columns=x.columns)


def decay_linear(x: Frame, days: float) -> Frame:
    weights = np.arange(1.0, math.floor(days) + 1.0)
    return of_windows(x, days, lambda w: w @ (weights / weights.sum()))


def ts_argmax(x: Frame, days: float) -> Frame:
    found = of_windows(x, days, lambda w: w.shape[2] - 1.0 - w.argmax(axis=2))
    return found.where(windows(x, days).count() == math.floor(days))


def ts_rank(x: Frame, days: float) -> Frame:
    return (windows(x, days).rank() - 1.0) / (math.floor(days) - 1.0)


def correlation(x: Frame, y: Frame, days: float) -> Frame:
    found = windows(x, days).corr(y)
    return found.where(np.isfinite(found))


def indneutralize(x: Frame, groups: Frame) -> Frame:
    values, numbers = x.to_numpy(), groups.to_numpy()
    rows = np.arange(len(x))[:, np.newaxis]
    keys = rows * (np.nanmax(numbers) + 1.0) + numbers
    means = pd.Series(values.ravel()).groupby(keys.ravel()).transform("mean")
    return x - means.to_numpy().reshape(x.shape)


WINDOWS: dict[str, Callable[..., Frame]] = {
    "sum_": lambda x, days: windows(x, days).sum(),
    "mean": lambda x, days: windows(x, days).mean(),
    "stddev": lambda x, days: windows(x, days).std(ddof=0),
    "ts_min": lambda x, days: windows(x, days).min(),
    "ts_max": lambda x, days: windows(x, days).max(),
    "covariance": lambda x, y, days: windows(x, days).cov(y, ddof=0),
    "product": lambda x, days: of_windows(x, days, lambda w: w.prod(axis=2)),
    "decay_linear": decay_linear,
    "ts_argmax": ts_argmax,
    "ts_rank": ts_rank,
    "correlation": correlation,
    "indneutralize": indneutralize,
}
