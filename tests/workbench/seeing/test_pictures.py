"""Pictures of matplotlib, by the data that are drawn."""

from __future__ import annotations

import io
from typing import Any

import matplotlib
import numpy as np
import pandas as pd
import pytest
from matplotlib.axes import Axes
from matplotlib.figure import Figure
from quernbrook.workbench.panels.panel import Matrix
from quernbrook.workbench.report import Run
from quernbrook.workbench.seeing import pictures, series


def cells(axes: Axes) -> Matrix:
    (mesh,) = axes.collections
    drawn: Any = mesh.get_array()
    return np.asarray(drawn.filled(np.nan))


def lines(axes: Axes) -> dict[str, list[float]]:
    return {str(line.get_label()): list(np.asarray(line.get_ydata())) for line in axes.lines}


def drawn(figure: Figure) -> bytes:
    file = io.BytesIO()
    figure.savefig(file)
    return file.getvalue()


def test_heat_map(weights: pd.DataFrame) -> None:
    weights.iloc[0, 0] = np.inf
    figure = pictures.heat_map(weights)
    axes, bar = figure.axes
    np.testing.assert_array_equal(cells(axes), [[np.nan, 2.0, -3.0], [-1.0, np.nan, 1.0]])
    assert [label.get_text() for label in axes.get_yticklabels()] == ["up", "down"]
    assert axes.get_title() == "Weights" and axes.yaxis_inverted()
    low, high = bar.get_ylim()
    assert low == -high == pytest.approx(-3.0, rel=0.02)
    assert drawn(figure).startswith(b"\x89PNG")


def test_days_of_a_heat_map_last_until_the_next(weights: pd.DataFrame) -> None:
    (mesh,) = pictures.heat_map(weights).axes[0].collections
    edges = np.asarray(mesh.get_coordinates())[0, :, 0]  # type: ignore[attr-defined]
    assert np.diff(edges).tolist() == [1.0, 3.0, 3.0]


def test_a_large_heat_map_says_what_it_shows() -> None:
    dates = pd.bdate_range("2000-01-03", periods=2_001)
    rows = np.arange(2_001.0)
    figure = pictures.heat_map(pd.DataFrame({"a": rows, "b": -rows}, index=dates), "Output")
    assert figure.axes[0].get_title() == "Output (shows every 3rd of 2,001 days)"
    np.testing.assert_array_equal(cells(figure.axes[0])[0], rows[2::3])


def test_nan_causes(run: Run) -> None:
    figure = pictures.nan_causes(run.causes, run.weights)
    above, below = figure.axes
    np.testing.assert_array_equal(cells(above), run.causes.T)
    shares = series.nan_causes(run.causes, run.panel.dates)
    np.testing.assert_allclose(shares.sum(axis=1), 1.0)
    (legend,) = figure.legends
    assert [text.get_text() for text in legend.get_texts()] == list(shares)
    assert list(shares) == ["value", "warm-up", "universe", "missing data", "computed"]
    assert len(below.collections) == 5 and (shares.to_numpy() > 0).any(axis=0).all()


def test_curves(weights: pd.DataFrame) -> None:
    (axes,) = pictures.exposures(weights).axes
    assert lines(axes) == {"gross": [2.0, 2.0, 4.0], "net": [0.0, 2.0, -2.0]}
    (axes,) = pictures.concentration(weights).axes
    assert lines(axes) == {"concentration": [0.5, 1.0, 0.625]}
    (axes,) = pictures.turnover(weights).axes
    np.testing.assert_allclose(lines(axes)["turnover"], [np.nan, 1.0, 2.0])


def test_pnl_and_drawdown_beside_a_benchmark(weights: pd.DataFrame) -> None:
    returns = pd.DataFrame(
        [[0.5, 0.5], [-0.1, 0.3], [0.2, 0.9]], index=weights.index, columns=weights.columns
    )
    # In another order, and without a number for the last day.
    benchmark = pd.Series([np.inf, 0.1, 0.2], index=weights.index[[2, 1, 0]])
    figure = pictures.pnl(weights, returns, benchmark)
    above, below = figure.axes
    np.testing.assert_allclose(lines(above)["weights"], [0.0, -0.2, 0.0], atol=1e-15)
    np.testing.assert_allclose(lines(above)["benchmark"], [0.2, 0.3, 0.3])
    np.testing.assert_allclose(lines(below)["weights"], [0.0, -0.2, 0.0], atol=1e-15)
    assert list(lines(pictures.pnl(weights, returns).axes[0])) == ["weights"]


def test_returns_of_other_symbols_are_refused(weights: pd.DataFrame) -> None:
    with pytest.raises(ValueError, match="the dates and symbols of the weights"):
        pictures.pnl(weights, weights[["down", "up"]])


def test_correlations(weights: pd.DataFrame) -> None:
    figure = pictures.correlations({"a": weights, "b": -weights, "none": weights * np.nan})
    (image,) = figure.axes[0].images
    shown: Any = image.get_array()
    expected = np.array([[1.0, -1.0, np.nan], [-1.0, 1.0, np.nan], [np.nan] * 3])
    np.testing.assert_allclose(shown.filled(np.nan), expected)
    assert [text.get_text() for text in figure.axes[0].texts][:3] == ["1.00", "-1.00", "nan"]
    with pytest.raises(ValueError, match="'b' has other dates or symbols than 'a'"):
        pictures.correlations({"a": weights, "b": weights.iloc[1:]})


def test_odd_symbols_and_settings_of_the_user(weights: pd.DataFrame) -> None:
    weights.columns = pd.Index(["$\\frac", 7])
    with matplotlib.rc_context({"text.parse_math": True, "figure.facecolor": "red"}):
        figure = pictures.heat_map(weights.iloc[:1], "$x")
        assert figure.get_facecolor() == (1.0, 1.0, 1.0, 1.0)
        assert drawn(figure).startswith(b"\x89PNG")
