"""The universe of a panel: from truth values, and from listing dates."""

from __future__ import annotations

from typing import Any

import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.panels import Panel, PanelError
from quernbrook.workbench.panels.labels import Date

DATES = pd.DatetimeIndex(["2024-01-02", "2024-01-03", "2024-01-04"])
CLOSE = pd.DataFrame({"AA": [1.0, 2.0, 3.0], "BB": [4.0, 5.0, 6.0]}, index=DATES)
PANEL = Panel.from_frames({"close": CLOSE})
ZONED = Panel.from_frames({"close": CLOSE.tz_localize("Europe/Paris")})
INSIDE = pd.DataFrame({"BB": [True, True, False], "AA": [False, True, True]}, index=DATES)
NUMBERS = [[0.0, 1.0], [1.0, 1.0], [1.0, 0.0]]


@pytest.mark.parametrize(
    "table",
    [
        INSIDE,
        INSIDE.astype("boolean"),
        INSIDE.astype(pd.ArrowDtype(pa.bool_())),
        pl.DataFrame({"day": DATES, **INSIDE.to_dict("list")}),
        pa.table({"day": DATES, **INSIDE.to_dict("list")}),
    ],
    ids=["pandas", "nullable", "arrow types", "polars", "arrow"],
)
def test_truth_values(table: Any) -> None:
    panel = PANEL.with_universe(table)
    assert PANEL.universe is None
    assert panel.universe is not None and panel.universe.tolist() == NUMBERS
    context = panel.context(default_registry())
    assert context.universe is panel.universe
    weights = evaluate(feature("close"), context).weights
    np.testing.assert_array_equal(weights, [[np.nan, 4.0], [2.0, 5.0], [3.0, np.nan]])
    assert context.universe_mask is not None
    assert context.universe_mask.tolist() == NUMBERS


@pytest.mark.parametrize(
    ("table", "message"),
    [
        (INSIDE.astype(float), "the universe: 'BB' must hold True and False; it holds float64"),
        (INSIDE.astype(object), "the universe: 'BB' must hold True and False; it holds object"),
        (pa.table({"day": DATES, "AA": [True] * 3, "BB": [1, 0, 1]}), "the universe: 'BB' must hold True and False; it holds int64"),
        (INSIDE.astype("boolean").mask(~INSIDE & (INSIDE.columns == "AA")), "the universe has no value for AA on 2024-01-02 00:00:00"),
        (pa.table({"day": DATES, "AA": [True] * 3, "BB": [True, None, True]}), "the universe has no value for BB on 2024-01-03 00:00:00"),
        (INSIDE[["AA"]], "the universe lacks the symbol BB, which the panel has"),
        (INSIDE.assign(CC=True), "the panel lacks the symbol CC, which the universe has"),
        (INSIDE.iloc[:2], "the universe lacks the date 2024-01-04 00:00:00, which the panel has"),
        (INSIDE.tz_localize("UTC"), "the universe has dates in the time zone UTC, the panel without a time zone; bring both to one with tz_localize or tz_convert"),
        (INSIDE.iloc[::-1], "the universe: the dates must increase; 2024-01-03 00:00:00 follows 2024-01-04 00:00:00"),
        (None, "the universe must be a DataFrame of pandas or polars or an Arrow table, not builtins.NoneType"),
    ],
)  # fmt: skip
def test_what_makes_no_universe(table: Any, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        PANEL.with_universe(table)
    assert str(raised.value) == message


@pytest.mark.parametrize("nothing", [None, pd.NaT])
def test_listings(nothing: Any) -> None:
    first: dict[str, Date] = {"AA": DATES[1], "BB": "2020-05-05", "CC": "2024-01-03"}
    panel = PANEL.with_listings(first, {"BB": DATES[1].date(), "AA": nothing})
    assert panel.universe is not None and panel.universe.tolist() == NUMBERS
    never = PANEL.with_listings({"AA": "2030-01-01", "BB": "2000-01-01"}, {"BB": "2000-01-01"})
    assert never.universe is not None and not never.universe.any()
    replaced = panel.with_listings({"AA": DATES[0], "BB": DATES[0]})
    assert replaced.universe is not None and replaced.universe.all()


def test_listings_in_another_time_zone() -> None:
    panel = ZONED.with_listings({"AA": "2024-01-02T23:00Z", "BB": "2024-01-02T23:30Z"})
    assert panel.universe is not None
    assert panel.universe.tolist() == [[0.0, 0.0], [1.0, 0.0], [1.0, 1.0]]


@settings(deadline=None, max_examples=100)
@given(st.integers(0, 12), st.none() | st.integers(0, 12))
def test_a_symbol_is_inside_from_its_first_to_its_last_date(first: int, last: int | None) -> None:
    days = pd.date_range("2024-01-01", periods=13)
    panel = Panel(days[1:11:2], pd.Index(["AA"]), {})
    if last is not None and last < first:
        with pytest.raises(PanelError, match="comes before its first"):
            panel.with_listings({"AA": days[first]}, {"AA": days[last]})
        return
    end = None if last is None else days[last]
    universe = panel.with_listings({"AA": days[first]}, {"AA": end}).universe
    assert universe is not None
    expected = [days[first] <= day and (end is None or day <= end) for day in panel.dates]
    assert universe[:, 0].tolist() == expected


@pytest.mark.parametrize(
    ("panel", "first", "last", "message"),
    [
        (PANEL, {"AA": DATES[0]}, {}, "the symbol BB has no first date"),
        (PANEL, {"AA": DATES[2], "BB": DATES[0]}, {"AA": DATES[0]}, "the symbol AA: its last date 2024-01-02 00:00:00 comes before its first 2024-01-04 00:00:00"),
        (PANEL, {"AA": "1/2/24", "BB": DATES[0]}, {}, "the symbol AA, first date: '1/2/24' is no date; write dates as 2024-01-31"),
        (PANEL, {"AA": pd.NaT, "BB": DATES[0]}, {}, "the symbol AA, first date: NaT is no date; write dates as 2024-01-31"),
        (PANEL, {"AA": DATES[0], "BB": DATES[0]}, {"BB": 3}, "the symbol BB, last date: 3 is no date; write dates as 2024-01-31"),
        (ZONED, {"AA": DATES[0], "BB": DATES[0]}, {}, "the symbol AA, first date: the date 2024-01-02 00:00:00 stands without a time zone, those of the panel in the time zone Europe/Paris"),
    ],
)  # fmt: skip
def test_faulty_listings(panel: Panel, first: Any, last: Any, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        panel.with_listings(first, last)
    assert str(raised.value) == message
