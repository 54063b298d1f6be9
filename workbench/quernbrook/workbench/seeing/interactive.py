"""Pictures for notebooks and reports, with Bokeh: each function returns a figure for `show`.

Tables are frames of dates by symbols, as `Panel.frame` makes them. Pointing at a place tells its
values, a click on a legend's entry hides its curve, and the tools above a picture zoom and move it.
"""

from __future__ import annotations

from collections.abc import Hashable, Iterable, Mapping, Sequence
from itertools import cycle
from typing import Any, Literal

import numpy as np
import pandas as pd
from bokeh.models import (
    AdaptiveTicker,
    Axis,
    ColumnDataSource,
    CustomJSHover,
    HoverTool,
    LinearColorMapper,
    Range1d,
)
from bokeh.models.annotations import ColorBar
from bokeh.models.renderers import GlyphRenderer
from bokeh.palettes import RdBu11, Viridis256
from bokeh.plotting import figure
from quernbrook.workbench.panels.panel import Vector
from quernbrook.workbench.seeing import series
from quernbrook.workbench.seeing.causes import Cause, Causes
from quernbrook.workbench.seeing.colours import CAUSES, CURVES, NO_VALUE
from quernbrook.workbench.seeing.shown import scale_of, thinned

# What a page of all pictures can hold and a phone can draw.
_DAYS_OF_CURVES = 10_000
_DAYS_OF_CELLS, _SYMBOLS_OF_CELLS = 500, 100
_HEIGHT = 280
_TOOLS = "pan,wheel_zoom,box_zoom,reset,save"
_DATE: dict[str, Literal["numeral", "datetime", "printf"] | CustomJSHover] = {"@date": "datetime"}


def heat_map(values: pd.DataFrame, title: str = "Weights") -> figure:
    """Return values as colours, dates from left to right and symbols from top to bottom.

    Grey is NaN or infinite. Of more than 500 days or 100 symbols every k-th is shown, which the
    title says. The scale's ends are the 99th percentile of the absolute values; values beyond have
    the colour of the end.
    """
    shown = thinned(values, _DAYS_OF_CELLS, _SYMBOLS_OF_CELLS)
    scale = scale_of(values.to_numpy(dtype=np.float64))
    matrix = shown.frame.to_numpy(dtype=np.float64).T
    symbols = [str(symbol) for symbol in shown.frame.columns]
    dates = pd.DatetimeIndex(shown.frame.index)
    rows, columns = matrix.shape
    source = ColumnDataSource(
        {
            "image": [np.where(np.isfinite(matrix), matrix, np.nan)],
            "date": [np.tile(_milliseconds(dates), (rows, 1))],
            "symbol": [[[symbol] * columns for symbol in symbols]],
        }
    )
    made = _figure(f"{title} ({shown.note})" if shown.note else title, max(_HEIGHT, 14 * rows))
    made.x_range = Range1d(start=-0.5, end=columns - 0.5, bounds="auto")
    made.y_range = Range1d(start=rows - 0.5, end=-0.5, bounds="auto")
    mapper = LinearColorMapper(
        # From red, below, to blue, as the pictures of matplotlib have it.
        palette=list(reversed(RdBu11)) if scale.is_signed else Viridis256,
        low=scale.low,
        high=scale.high,
        nan_color=NO_VALUE,
    )
    image = made.image(
        "image",
        source=source,
        x=-0.5,
        y=-0.5,
        dw=columns,
        dh=rows,
        color_mapper=mapper,
    )
    # One column a date: between Friday and Monday there is none.
    _label(made.xaxis[0], [date.strftime("%Y-%m-%d") for date in dates])
    _label(made.yaxis[0], symbols)
    made.grid.visible = False
    made.add_layout(ColorBar(color_mapper=mapper, width=12), "right")
    tooltips = [("date", "@date{%F}"), ("symbol", "@symbol"), ("value", "@image{0.0000}")]
    made.add_tools(HoverTool(renderers=[image], tooltips=tooltips, formatters=_DATE))
    return made


def nan_causes(causes: Causes, dates: pd.DatetimeIndex, title: str = "Causes of NaN") -> figure:
    """Return the shares of each day's cells that have a value, or none for each cause.

    causes: of `quernbrook.workbench.seeing.causes.nan_causes`.
    """
    shown = thinned(series.nan_causes(causes, dates), _DAYS_OF_CURVES)
    made = _dated(f"{title} ({shown.note})" if shown.note else title)
    names = [str(name) for name in shown.frame]
    source = _source(shown.frame)
    colours = [CAUSES[cause] for cause in Cause]
    made.varea_stack(_keys(names), x="date", source=source, color=colours, legend_label=names)
    made.y_range = Range1d(start=0.0, end=1.0, bounds="auto")
    # Areas can't be pointed at.
    line = made.line("date", _keys(names)[0], source=source, line_alpha=0.0)
    _tell(made, line, names, "0.0%")
    _place_legend(made)
    return made


def exposures(weights: pd.DataFrame, title: str = "Exposure") -> figure:
    """Return gross and net exposure by day, in the weights' units."""
    return curves(series.exposures(weights), title)


def turnover(weights: pd.DataFrame, title: str = "Turnover") -> figure:
    """Return turnover by day, of weights scaled to a gross exposure of 1: from 0 to 2."""
    return curves(series.turnover(weights), title)


def concentration(weights: pd.DataFrame, title: str = "Concentration") -> figure:
    """Return Herfindahl's index by day: 1 / n for n weights of one size, 1 for a single one."""
    return curves(series.concentration(weights), title)


def pnl(earned: pd.DataFrame, title: str = "PnL") -> figure:
    """Return cumulative PnL. earned: by day, as `series.pnl` gives it."""
    return curves(series.cumulative(earned), title)


def drawdown(earned: pd.DataFrame, title: str = "Drawdown") -> figure:
    """Return drawdown. earned: PnL by day, as `series.pnl` gives it."""
    return curves(series.drawdown(earned), title)


def correlations(weights: Mapping[str, pd.DataFrame], title: str = "Correlation") -> figure:
    """Return the correlations of signals, from -1 to 1; grey where one holds nothing."""
    matrix = series.correlations(weights)
    names = [str(name) for name in matrix]
    first, second = np.meshgrid(names, names)
    source = ColumnDataSource(
        {
            "first": first.ravel(),
            "second": second.ravel(),
            "value": matrix.to_numpy().ravel(),
        }
    )
    made = _figure(title, 120 + 40 * len(names), x_range=names, y_range=names[::-1])
    mapper = LinearColorMapper(
        palette=list(reversed(RdBu11)), low=-1.0, high=1.0, nan_color=NO_VALUE
    )
    cells = made.rect(
        "first",
        "second",
        width=1,
        height=1,
        source=source,
        fill_color={"field": "value", "transform": mapper},
        line_color=None,
    )
    made.grid.visible = False
    made.add_layout(ColorBar(color_mapper=mapper, width=12), "right")
    tooltips = [("", "@first"), ("", "@second"), ("correlation", "@value{0.000}")]
    made.add_tools(HoverTool(renderers=[cells], tooltips=tooltips))
    return made


def curves(table: pd.DataFrame, title: str) -> figure:
    """Return a curve for each column over the index, which holds dates.

    Of more than 10,000 days every k-th is shown, which the title says.
    """
    shown = thinned(table, _DAYS_OF_CURVES)
    made = _dated(f"{title} ({shown.note})" if shown.note else title)
    source = _source(shown.frame)
    names = [str(name) for name in table]
    lines = [
        made.line(
            "date", key, source=source, color=colour, line_width=1.5, legend_label=name, name=name
        )
        for key, name, colour in zip(_keys(names), names, cycle(CURVES), strict=False)
    ]
    _tell(made, lines[0], names, "0.0000")
    _place_legend(made)
    return made


def _figure(title: str, height: int, **options: Any) -> figure:
    made = figure(
        title=title,
        height=height,
        sizing_mode="stretch_width",
        tools=_TOOLS,
        # Wheel and fingers scroll the page, until a tool is chosen.
        active_scroll=None,
        active_drag=None,
        toolbar_location="above",
        **options,
    )
    made.toolbar.logo = None
    # So that they suit the page behind them, light or dark.
    made.background_fill_color = None
    made.border_fill_color = None
    return made


def _dated(title: str) -> figure:
    return _figure(title, _HEIGHT, x_axis_type="datetime")


def _source(table: pd.DataFrame) -> ColumnDataSource:
    columns = (values.to_numpy(dtype=np.float64) for _, values in table.items())
    dates = _milliseconds(pd.DatetimeIndex(table.index))
    return ColumnDataSource({"date": dates, **dict(zip(_keys(table), columns, strict=True))})


def _keys(names: Iterable[Hashable]) -> list[str]:
    """Of columns in a source: names may be anything, "date" or "{}" among it."""
    return [f"curve_{place}" for place, _ in enumerate(names)]


def _milliseconds(dates: pd.DatetimeIndex) -> Vector:
    """As the browser counts them, from 1970."""
    return dates.to_numpy(dtype="datetime64[ms]").astype(np.float64)


def _label(axis: Axis, labels: Sequence[str]) -> None:
    axis.ticker = AdaptiveTicker(base=10, mantissas=[1, 2, 5], min_interval=1)
    axis.major_label_overrides = dict(enumerate(labels))


def _tell(made: figure, line: GlyphRenderer, names: Sequence[str], form: str) -> None:
    """All values of the day that is pointed at."""
    tooltips = [("date", "@date{%F}"), *_values(names, form)]
    hover = HoverTool(renderers=[line], tooltips=tooltips, formatters=_DATE, mode="vline")
    made.add_tools(hover)


def _values(names: Sequence[str], form: str) -> list[tuple[str, str]]:
    return [(name, f"@{key}{{{form}}}") for key, name in zip(_keys(names), names, strict=True)]


def _place_legend(made: figure) -> None:
    legend = made.legend[0]
    legend.visible = len(legend.items) > 1
    legend.click_policy = "hide"
    legend.orientation = "horizontal"
    # Of more, a telephone would show no end.
    legend.ncols = min(len(legend.items), 3)
    legend.background_fill_color = None
    legend.border_line_color = None
    made.add_layout(legend, "below")
