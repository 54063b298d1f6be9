"""Pictures for files, with matplotlib: each function returns a figure, to be saved with `savefig`.

Tables are frames of dates by symbols, as `Panel.frame` makes them.
"""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from itertools import cycle

import matplotlib
import numpy as np
import pandas as pd
from matplotlib.axes import Axes
from matplotlib.collections import QuadMesh
from matplotlib.colors import BoundaryNorm, Colormap, ListedColormap, Normalize
from matplotlib.dates import AutoDateLocator, ConciseDateFormatter
from quernbrook.workbench.seeing import series
from quernbrook.workbench.seeing.causes import Cause, Causes
from quernbrook.workbench.seeing.colours import CAUSES, CURVES, NO_VALUE
from quernbrook.workbench.seeing.figure import Figure
from quernbrook.workbench.seeing.shown import Shown, scale_of, thinned

_WIDE = (9.0, 3.2)
_TALL = (9.0, 5.0)
# About the pixels of a figure.
_ROWS, _COLUMNS = 1000, 800
_FEW_SYMBOLS = 30


def heat_map(values: pd.DataFrame, title: str = "Weights") -> Figure:
    """Return values as colours, dates from left to right and symbols from top to bottom.

    Grey is NaN or infinite. Of more than 1,000 days or 800 symbols every k-th is shown, which the
    title says. The scale's ends are the 99th percentile of the absolute values; values beyond, if
    there are any, have the colour of the end, which the scale's pointed ends tell.
    """
    shown = thinned(values, _ROWS, _COLUMNS)
    scale = scale_of(values.to_numpy(dtype=np.float64))
    with _plain_settings():
        figure = Figure(figsize=_TALL, layout="constrained")
        axes = figure.subplots()
        palette = matplotlib.colormaps["RdBu" if scale.is_signed else "viridis"]
        norm = Normalize(scale.low, scale.high)
        mesh = _cells(axes, shown, palette.with_extremes(bad=NO_VALUE), norm)
        axes.set_title(_title(title, shown))
        figure.colorbar(mesh, ax=axes, extend="both" if scale.is_clipped else "neither")
    return figure


def nan_causes(causes: Causes, like: pd.DataFrame, title: str = "Causes of NaN") -> Figure:
    """Return the cause of NaN in each cell, and below it the shares of causes by day.

    causes: of `quernbrook.workbench.seeing.causes.nan_causes`. like: a frame with their dates and
    symbols.
    """
    frame = pd.DataFrame(causes, index=like.index, columns=like.columns)
    shown = thinned(frame, _ROWS, _COLUMNS)
    with _plain_settings():
        figure = Figure(figsize=(9.0, 6.0), layout="constrained")
        above, below = figure.subplots(2, sharex=True, height_ratios=(2.0, 1.0))
        palette = ListedColormap([CAUSES[cause] for cause in Cause])
        norm = BoundaryNorm(np.arange(len(Cause) + 1) - 0.5, len(Cause))
        _cells(above, shown, palette, norm)
        above.set_title(_title(title, shown))
        shares = series.nan_causes(causes, pd.DatetimeIndex(like.index))
        below.stackplot(
            shares.index,
            shares.to_numpy().T,
            labels=list(shares),
            colors=[CAUSES[cause] for cause in Cause],
            step="post",
        )
        below.set(ylabel="share of cells", ylim=(0.0, 1.0))
        _dates(below)
        figure.legend(*below.get_legend_handles_labels(), loc="outside lower center", ncols=5)
    return figure


def exposures(weights: pd.DataFrame, title: str = "Exposure") -> Figure:
    """Return gross and net exposure by day, in the weights' units."""
    return _curves(series.exposures(weights), title, "weights' units")


def turnover(weights: pd.DataFrame, title: str = "Turnover") -> Figure:
    """Return turnover by day, of weights scaled to a gross exposure of 1: from 0 to 2."""
    return _curves(series.turnover(weights), title, "of the gross exposure")


def concentration(weights: pd.DataFrame, title: str = "Concentration") -> Figure:
    """Return Herfindahl's index by day: 1 / n for n weights of one size, 1 for a single one."""
    return _curves(series.concentration(weights), title, "Herfindahl's index")


def pnl(
    weights: pd.DataFrame,
    returns: pd.DataFrame,
    benchmark: pd.Series | None = None,
    title: str = "PnL",
) -> Figure:
    """Return cumulative PnL, and drawdown below it, of weights scaled to a gross exposure of 1.

    The arguments and units are those of `series.pnl`: a day's weights earn the next day's returns.
    """
    earned = series.pnl(weights, returns, benchmark)
    with _plain_settings():
        figure = Figure(figsize=_TALL, layout="constrained")
        above, below = figure.subplots(2, sharex=True, height_ratios=(2.0, 1.0))
        _draw(above, series.cumulative(earned))
        _draw(below, series.drawdown(earned))
        above.set(title=title, ylabel="of the gross exposure")
        below.set(ylabel="drawdown")
        above.legend()
        _dates(below)
    return figure


def correlations(weights: Mapping[str, pd.DataFrame], title: str = "Correlation") -> Figure:
    """Return the correlations of signals, from -1 to 1; grey where one holds nothing.

    The numbers are written into the cells of up to 12 signals.
    """
    matrix = series.correlations(weights)
    with _plain_settings():
        figure = Figure(figsize=(6.0, 5.0), layout="constrained")
        axes = figure.subplots()
        palette = matplotlib.colormaps["RdBu"].with_extremes(bad=NO_VALUE)
        image = axes.imshow(matrix.to_numpy(), cmap=palette, vmin=-1.0, vmax=1.0)
        places = range(len(matrix))
        axes.set_xticks(places, matrix.columns, rotation=45, ha="right")
        axes.set_yticks(places, matrix.index)
        axes.set_title(title)
        if len(matrix) <= 12:
            for (row, column), value in np.ndenumerate(matrix.to_numpy()):
                colour = "white" if abs(value) > 0.6 else "black"
                axes.text(column, row, f"{value:.2f}", ha="center", va="center", color=colour)
        figure.colorbar(image, ax=axes)
    return figure


def _curves(curves: pd.DataFrame, title: str, unit: str) -> Figure:
    with _plain_settings():
        figure = Figure(figsize=_WIDE, layout="constrained")
        axes = figure.subplots()
        _draw(axes, curves)
        axes.set(title=title, ylabel=unit)
        if curves.shape[1] > 1:
            axes.legend()
        _dates(axes)
    return figure


def _draw(axes: Axes, curves: pd.DataFrame) -> None:
    for (name, values), colour in zip(curves.items(), cycle(CURVES), strict=False):
        axes.plot(curves.index, values.to_numpy(), label=str(name), color=colour, linewidth=1.0)
    axes.grid(alpha=0.3)


def _cells(axes: Axes, shown: Shown, palette: Colormap, norm: Normalize) -> QuadMesh:
    """Draw a table's cells, each as wide as the days until the next row's date."""
    frame = shown.frame
    values = frame.to_numpy(dtype=np.float64).T
    mesh = axes.pcolormesh(
        _edges(pd.DatetimeIndex(frame.index)),
        np.arange(frame.shape[1] + 1) - 0.5,
        np.where(np.isfinite(values), values, np.nan),
        cmap=palette,
        norm=norm,
        rasterized=True,
    )
    axes.invert_yaxis()
    axes.set_ylabel("symbol")
    count = frame.shape[1]
    if count <= _FEW_SYMBOLS:
        axes.set_yticks(range(count), [str(symbol) for symbol in frame.columns])
    else:
        ticks = np.unique(np.linspace(0, count - 1, 10).astype(int))
        axes.set_yticks(ticks, [str(frame.columns[tick]) for tick in ticks])
    _dates(axes)
    return mesh


def _edges(dates: pd.DatetimeIndex) -> pd.DatetimeIndex:
    last = dates[-1] - dates[-2] if len(dates) > 1 else pd.Timedelta(days=1)
    return pd.DatetimeIndex([*dates, dates[-1] + last])


def _dates(axes: Axes) -> None:
    locator = AutoDateLocator()
    axes.xaxis.set_major_locator(locator)
    axes.xaxis.set_major_formatter(ConciseDateFormatter(locator))


def _title(title: str, shown: Shown) -> str:
    return f"{title} ({shown.note})" if shown.note else title


@contextmanager
def _plain_settings() -> Iterator[None]:
    """Apart from the user's own settings."""
    with matplotlib.rc_context():
        matplotlib.rcdefaults()
        # Symbols and names are not mathematics.
        matplotlib.rcParams["text.parse_math"] = False
        yield
