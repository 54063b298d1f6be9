"""What NumPy, pandas, bottleneck and numbagg have for the functions of the library.

Each gets what it likes best: frames for pandas, and for what runs along time in bottleneck and
numbagg columns along memory. A function takes the operands and the window, and gives a whole
matrix.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import bottleneck
import numbagg
import numpy as np
import pandas
from numpy.typing import NDArray

Matrix = NDArray[np.float64]
Peer = Callable[..., Any]

GROUPS = 11


def operands_of(name: str, arity: int, rows: int, columns: int) -> list[Matrix]:
    """Positive numbers of one size, which all functions can work with; conditions and groups."""
    rng = np.random.default_rng(7)
    operands = [rng.lognormal(0.0, 0.3, size=(rows, columns)) for _ in range(arity)]
    if name in ("numerical_where", "numerical_not"):
        operands[0] = rng.integers(0, 2, size=(rows, columns)).astype(np.float64)
    if name.endswith("power"):
        operands[1] = np.full((rows, columns), 2.0)
    if name.endswith("within_groups"):
        operands[1] = np.tile(rng.integers(0, GROUPS, columns).astype(np.float64), (rows, 1))
    return operands


def as_it_is(operand: Matrix) -> Matrix:
    return operand


def transposed(operand: Matrix) -> Matrix:
    return np.ascontiguousarray(operand.T)


LIBRARIES = ["NumPy", "pandas", "bottleneck", "numbagg"]


def preparation(library: str, name: str) -> Callable[[Matrix], Any]:
    """What turns an operand into what a library gets for a function."""
    if library == "pandas":
        return pandas.DataFrame
    return transposed if _is_transposed(library, name) else as_it_is


def _is_transposed(library: str, name: str) -> bool:
    return library in ("bottleneck", "numbagg") and name.startswith("longitudinal_")


def result_of(library: str, name: str, operands: list[Matrix], window: int) -> Matrix:
    prepare = preparation(library, name)
    result = np.asarray(PEERS[library][name](*map(prepare, operands), window))
    return result.T if _is_transposed(library, name) else result


def numpy_scale(x: Matrix, _: int) -> Matrix:
    return x / np.abs(x).sum(axis=1, keepdims=True)


def numpy_zscore(x: Matrix, _: int) -> Matrix:
    return (x - x.mean(axis=1, keepdims=True)) / x.std(axis=1, keepdims=True)


def pandas_rank(x: pandas.DataFrame, _: int) -> pandas.DataFrame:
    return (x.rank(axis=1) - 1.0).div(x.count(axis=1) - 1.0, axis=0)


def pandas_zscore(x: pandas.DataFrame, _: int) -> pandas.DataFrame:
    return x.sub(x.mean(axis=1), axis=0).div(x.std(axis=1, ddof=0), axis=0)


def pandas_scale(x: pandas.DataFrame, _: int) -> pandas.DataFrame:
    return x.div(x.abs().sum(axis=1), axis=0)


def pandas_group_demean(x: pandas.DataFrame, g: pandas.DataFrame, _: int) -> pandas.DataFrame:
    columns = x.T
    return (columns - columns.groupby(g.iloc[0]).transform("mean")).T


def bottleneck_rank(x: Matrix, _: int) -> Matrix:
    return (bottleneck.rankdata(x, axis=1) - 1.0) / (x.shape[1] - 1.0)


def pandas_decay(x: pandas.DataFrame, w: int) -> pandas.DataFrame:
    weights = np.arange(1.0, w + 1.0)
    weights /= weights.sum()
    return x.rolling(w).apply(lambda values: values @ weights, raw=True)


PEERS: dict[str, dict[str, Peer]] = {
    "NumPy": {
        "numerical_add": lambda x, y, _: x + y,
        "numerical_subtract": lambda x, y, _: x - y,
        "numerical_multiply": lambda x, y, _: x * y,
        "numerical_divide": lambda x, y, _: x / y,
        "numerical_negate": lambda x, _: -x,
        "numerical_absolute": lambda x, _: np.abs(x),
        "numerical_sign": lambda x, _: np.sign(x),
        "numerical_minimum": lambda x, y, _: np.fmin(x, y),
        "numerical_maximum": lambda x, y, _: np.fmax(x, y),
        "numerical_logarithm": lambda x, _: np.log(x),
        "numerical_power": lambda x, y, _: np.power(x, y),
        "numerical_signed_power": lambda x, y, _: np.sign(x) * np.abs(x) ** y,
        "numerical_less": lambda x, y, _: (x < y).astype(np.float64),
        "numerical_equal": lambda x, y, _: (x == y).astype(np.float64),
        "numerical_and": lambda x, y, _: np.logical_and(x, y).astype(np.float64),
        "numerical_or": lambda x, y, _: np.logical_or(x, y).astype(np.float64),
        "numerical_not": lambda x, _: np.logical_not(x).astype(np.float64),
        "numerical_where": lambda c, x, y, _: np.where(c != 0.0, x, y),
        "latitudinal_demean": lambda x, _: x - x.mean(axis=1, keepdims=True),
        "latitudinal_zscore": numpy_zscore,
        "latitudinal_scale": numpy_scale,
    },
    "pandas": {
        "numerical_add": lambda x, y, _: x + y,
        "numerical_divide": lambda x, y, _: x / y,
        "latitudinal_rank": pandas_rank,
        "latitudinal_demean": lambda x, _: x.sub(x.mean(axis=1), axis=0),
        "latitudinal_zscore": pandas_zscore,
        "latitudinal_scale": pandas_scale,
        "latitudinal_demean_within_groups": pandas_group_demean,
        "longitudinal_delay": lambda x, w: x.shift(w),
        "longitudinal_delta": lambda x, w: x.diff(w),
        "longitudinal_sum": lambda x, w: x.rolling(w).sum(),
        "longitudinal_mean": lambda x, w: x.rolling(w).mean(),
        "longitudinal_std": lambda x, w: x.rolling(w).std(ddof=0),
        "longitudinal_sample_std": lambda x, w: x.rolling(w).std(),
        "longitudinal_variance": lambda x, w: x.rolling(w).var(ddof=0),
        "longitudinal_max": lambda x, w: x.rolling(w).max(),
        "longitudinal_min": lambda x, w: x.rolling(w).min(),
        "longitudinal_rank": lambda x, w: (x.rolling(w).rank() - 1.0) / (w - 1.0),
        "longitudinal_quantile": lambda x, w: x.rolling(w).quantile(0.5),
        "longitudinal_correlation": lambda x, y, w: x.rolling(w).corr(y),
        "longitudinal_covariance": lambda x, y, w: x.rolling(w).cov(y, ddof=0),
        "longitudinal_decay_mean": pandas_decay,
    },
    "bottleneck": {
        "latitudinal_rank": bottleneck_rank,
        "longitudinal_sum": lambda x, w: bottleneck.move_sum(x, w),
        "longitudinal_mean": lambda x, w: bottleneck.move_mean(x, w),
        "longitudinal_std": lambda x, w: bottleneck.move_std(x, w),
        "longitudinal_variance": lambda x, w: bottleneck.move_var(x, w),
        "longitudinal_max": lambda x, w: bottleneck.move_max(x, w),
        "longitudinal_min": lambda x, w: bottleneck.move_min(x, w),
        "longitudinal_days_since_max": lambda x, w: bottleneck.move_argmax(x, w),
        "longitudinal_days_since_min": lambda x, w: bottleneck.move_argmin(x, w),
        "longitudinal_rank": lambda x, w: (bottleneck.move_rank(x, w) + 1.0) / 2.0,
        "longitudinal_quantile": lambda x, w: bottleneck.move_median(x, w),
    },
    "numbagg": {
        "longitudinal_sum": lambda x, w: numbagg.move_sum(x, window=w),
        "longitudinal_mean": lambda x, w: numbagg.move_mean(x, window=w),
        "longitudinal_sample_std": lambda x, w: numbagg.move_std(x, window=w),
        "longitudinal_sample_variance": lambda x, w: numbagg.move_var(x, window=w),
        "longitudinal_sample_covariance": lambda x, y, w: numbagg.move_cov(x, y, window=w),
        "longitudinal_correlation": lambda x, y, w: numbagg.move_corr(x, y, window=w),
    },
}
