"""Pictures of Bokeh, by the data that they hold."""

from __future__ import annotations

from typing import Any

import numpy as np
import pandas as pd
from bokeh.models import ColumnDataSource
from bokeh.plotting import figure
from quernbrook.workbench.report import Run
from quernbrook.workbench.seeing import interactive, series


def data(made: figure) -> dict[str, Any]:
    source: Any = made.select_one({"type": ColumnDataSource})
    return dict(source.data)


def label(item: Any) -> str:
    return str(item.label.value)


def title(made: figure) -> str:
    written: Any = made.title
    return str(written.text)


def test_heat_map(weights: pd.DataFrame) -> None:
    weights.iloc[0] = [np.inf, -1e300]
    made = interactive.heat_map(weights)
    held = data(made)
    np.testing.assert_array_equal(held["image"][0], [[np.nan, 2.0, -3.0], [-1e300, np.nan, 1.0]])
    assert held["symbol"] == [[["up"] * 3, ["down"] * 3]]
    days = held["date"][0].astype("datetime64[ms]").astype("datetime64[D]").astype(str)
    assert days.tolist() == [["2024-01-04", "2024-01-05", "2024-01-08"]] * 2
    assert made.xaxis[0].major_label_overrides[2] == "2024-01-08"
    assert title(made) == "Weights"


def test_a_large_heat_map_says_what_it_shows() -> None:
    dates = pd.bdate_range("2000-01-03", periods=1_000)
    values = np.random.default_rng(3).normal(size=(1_000, 150))
    made = interactive.heat_map(pd.DataFrame(values, index=dates))
    note = "shows every 2nd of 1,000 days and every 2nd of 150 symbols"
    assert title(made) == f"Weights ({note})"
    np.testing.assert_array_equal(data(made)["image"][0], values[1::2, ::2].T)


def test_nan_causes(run: Run) -> None:
    made = interactive.nan_causes(run.causes, run.panel.dates)
    held = data(made)
    shares = series.nan_causes(run.causes, run.panel.dates)
    for place, name in enumerate(shares):
        np.testing.assert_array_equal(held[f"curve_{place}"], shares[name])
    assert [label(item) for item in made.legend[0].items] == list(shares)


def test_curves_hold_the_numbers_of_the_measures(weights: pd.DataFrame) -> None:
    held = data(interactive.exposures(weights))
    assert held["curve_0"].tolist() == [2.0, 2.0, 4.0]
    assert held["curve_1"].tolist() == [0.0, 2.0, -2.0]
    assert data(interactive.concentration(weights))["curve_0"].tolist() == [0.5, 1.0, 0.625]
    np.testing.assert_allclose(data(interactive.turnover(weights))["curve_0"], [np.nan, 1.0, 2.0])
    earned = pd.DataFrame({"weights": [np.nan, -0.5, 0.75]}, index=weights.index)
    assert data(interactive.pnl(earned))["curve_0"].tolist() == [0.0, -0.5, 0.25]
    assert data(interactive.drawdown(earned))["curve_0"].tolist() == [0.0, -0.5, 0.0]


def test_curves_of_any_name(weights: pd.DataFrame) -> None:
    names = ["date", "{}", "curve_0", "@x", "last"]
    table = pd.DataFrame([[1.0, 2.0, 3.0, 4.0, 5.0]] * 3, index=weights.index, columns=names)
    made = interactive.curves(table, "Odd")
    assert [label(item) for item in made.legend[0].items] == names
    assert [data(made)[f"curve_{place}"][0] for place in range(5)] == [1.0, 2.0, 3.0, 4.0, 5.0]
    assert data(made)["date"][0] == weights.index[0].timestamp() * 1e3


def test_long_curves_say_what_they_show() -> None:
    index = pd.date_range("1900-01-01", periods=25_000)
    table = pd.DataFrame({"a": np.arange(25_000.0)}, index=index)
    made = interactive.curves(table, "Long")
    assert title(made) == "Long (shows every 3rd of 25,000 days)"
    assert data(made)["curve_0"][-1] == 24_999.0


def test_correlations(weights: pd.DataFrame) -> None:
    held = data(interactive.correlations({"a": weights, "b": -weights}))
    np.testing.assert_allclose(held["value"], [1.0, -1.0, -1.0, 1.0])
    assert held["first"].tolist() == ["a", "b", "a", "b"]
    assert held["second"].tolist() == ["a", "a", "b", "b"]
