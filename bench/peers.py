"""Ranks and rolling statistics by other libraries, each in one thread.

What a library wants its input to be is prepared beforehand and not measured, and its results stay
in its own form.
"""

from __future__ import annotations

import os
from collections.abc import Callable
from dataclasses import dataclass
from functools import partial
from typing import Any

# Both are read at import.
os.environ["POLARS_MAX_THREADS"] = os.environ["NUMBA_NUM_THREADS"] = "1"

import bottleneck
import numbagg
import numpy as np
import pandas
import polars
import scipy.stats
from numpy.typing import NDArray

from bench import formulations
from bench.evaluators import MODULE, NAMES, OTHER
from bench.workloads import evaluate_rank, evaluate_rolling

Matrix = NDArray[np.float64]


def as_it_is(data: Matrix) -> Matrix:
    return data


@dataclass(frozen=True)
class Contender:
    """`compute` is given what `prepare` made of the matrix, and `to_numpy` its result."""

    compute: Callable[..., Any]
    prepare: Callable[[Matrix], Any] = as_it_is
    to_numpy: Callable[[Any], Matrix] = np.asarray


def nulls_for_nan(data: Matrix) -> polars.DataFrame:
    return polars.from_numpy(data, orient="row").fill_nan(None)


def nulls_for_nan_transposed(data: Matrix) -> polars.DataFrame:
    return nulls_for_nan(np.ascontiguousarray(data.T))


def from_frame(frame: polars.DataFrame) -> Matrix:
    return frame.fill_null(np.nan).to_numpy()


def from_frame_transposed(frame: polars.DataFrame) -> Matrix:
    return from_frame(frame).T


def to_unit_range(ranks: Matrix) -> Matrix:
    """Ranks from 1 on become ranks from 0 to 1, in place."""
    counts = np.count_nonzero(~np.isnan(ranks), axis=1)
    ranks -= 1.0
    ranks /= (counts - 1)[:, np.newaxis]
    return ranks


def rank_bottleneck(data: Matrix) -> Matrix:
    return to_unit_range(bottleneck.nanrankdata(data, axis=1))


def rank_scipy(data: Matrix) -> Matrix:
    return to_unit_range(scipy.stats.rankdata(data, axis=1, nan_policy="omit"))


def rank_pandas(frame: pandas.DataFrame) -> Matrix:
    return to_unit_range(frame.rank(axis=1).to_numpy())


def rank_polars(frame: polars.DataFrame) -> polars.DataFrame:
    every = polars.all()
    return frame.select((every.rank() - 1.0) / (every.count() - 1.0))


def rolling_bottleneck(data: Matrix, window: int, statistic: str) -> Matrix:
    options = {"window": window, "min_count": window, "axis": 0}
    if statistic == "std":
        return bottleneck.move_std(data, **options)
    mean = bottleneck.move_mean(data, **options)
    if statistic == "mean":
        return mean
    return (data - mean) / bottleneck.move_std(data, **options)


def rolling_numbagg(data: Matrix, window: int, statistic: str) -> Matrix:
    options = {"window": window, "min_count": window, "axis": 0}
    if statistic != "mean":
        # It has the sample's deviation only.
        std = numbagg.move_std(data, **options)
        std *= np.sqrt((window - 1) / window)
        if statistic == "std":
            return std
    mean = numbagg.move_mean(data, **options)
    return mean if statistic == "mean" else (data - mean) / std


def rolling_pandas(frame: pandas.DataFrame, window: int, statistic: str) -> pandas.DataFrame:
    windows = frame.rolling(window)
    if statistic == "mean":
        return windows.mean()
    if statistic == "std":
        return windows.std(ddof=0)
    return (frame - windows.mean()) / windows.std(ddof=0)


def rolling_polars(frame: polars.DataFrame, window: int, statistic: str) -> polars.DataFrame:
    every = polars.all()
    mean, std = every.rolling_mean(window), every.rolling_std(window, ddof=0)
    return frame.select({"mean": mean, "std": std, "zscore": (every - mean) / std}[statistic])


def agrees(contender: Contender, expected: Contender, data: Matrix, **arguments: Any) -> bool:
    """Whether both give the same numbers, but for rounding."""
    given, wanted = (
        each.to_numpy(each.compute(each.prepare(data), **arguments))
        for each in (contender, expected)
    )
    return np.allclose(given, wanted, rtol=1e-6, atol=1e-6, equal_nan=True)


NUMPY = "NumPy formulation"
RANK_FORMULATION = Contender(formulations.rank)
ROLLING_FORMULATION = Contender(formulations.rolling)
RANK = {
    MODULE: Contender(evaluate_rank),
    NUMPY: RANK_FORMULATION,
    "bottleneck": Contender(rank_bottleneck),
    "pandas": Contender(rank_pandas, pandas.DataFrame),
    "polars": Contender(rank_polars, nulls_for_nan_transposed, from_frame_transposed),
    "scipy.stats.rankdata": Contender(rank_scipy),
}
ROLLING = {
    MODULE: Contender(evaluate_rolling),
    NUMPY: ROLLING_FORMULATION,
    "bottleneck": Contender(rolling_bottleneck),
    "numbagg": Contender(rolling_numbagg),
    "pandas": Contender(rolling_pandas, pandas.DataFrame),
    "polars": Contender(rolling_polars, nulls_for_nan, from_frame),
}
if OTHER:
    RANK = {name: Contender(partial(evaluate_rank, evaluator=name)) for name in NAMES}
    ROLLING = {name: Contender(partial(evaluate_rolling, evaluator=name)) for name in NAMES}
