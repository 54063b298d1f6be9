"""Panels from frames and a seed."""

from __future__ import annotations

import copy
import pickle
import zoneinfo
from collections.abc import Callable
from decimal import Decimal
from typing import Any

import numpy as np
import pandas as pd
import pyarrow as pa
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.panels import (
    Panel,
    PanelError,
    synthetic_panel,
)

DATES = pd.DatetimeIndex(["2024-01-02", "2024-01-03", "2024-01-04"]).as_unit("ns")


def frame(**columns: list[object]) -> pd.DataFrame:
    return pd.DataFrame(columns, index=DATES)


SECTOR = frame(AA=["tech"] * 3, BB=["oil"] * 3)
# pandas 3 has a type of its own for texts.
TEXTS = str(SECTOR.dtypes["AA"])
if TEXTS == "object":
    TEXTS += ": its value on 2024-01-02 00:00:00 is 'tech'"
ZONES = "has dates in several time zones, or some without; write all in UTC"
CLOSE = frame(AA=[1.0, 2.0, 3.0], BB=[4.0, np.nan, 6.0])


def test_symbols_follow_the_first_field() -> None:
    panel = Panel.from_frames({"close": CLOSE, "volume": frame(BB=[4, 5, 6], AA=[1, 2, 3])})
    assert list(panel.symbols) == ["AA", "BB"]
    assert panel.fields["volume"].tolist() == [[1.0, 4.0], [2.0, 5.0], [3.0, 6.0]]
    pd.testing.assert_frame_equal(panel.frame(panel.fields["close"]), CLOSE)


def test_float64_in_one_block_is_not_copied() -> None:
    values = np.ones((3, 2))
    panel = Panel.from_frames({"close": pd.DataFrame(values, DATES, ["AA", "BB"], copy=False)})
    assert np.shares_memory(panel.fields["close"], values)
    context = panel.context(default_registry())
    assert context.features[0] is panel.fields["close"]
    assert context.feature_index == {"close": 0}
    assert np.shares_memory(panel.frame(values).to_numpy(), values)


@pytest.mark.parametrize(
    ("frames", "message"),
    [
        ({}, "a panel needs one field at least"),
        ({"close": CLOSE.reset_index(drop=True)}, "field 'close': the index must hold dates; it holds int64"),
        ({"close": CLOSE.set_axis(DATES[[0, 0, 1]])}, "field 'close': the date 2024-01-02 00:00:00 stands there twice"),
        ({"close": CLOSE.set_axis(DATES[[0, 2, 1]])}, "field 'close': the dates must increase; 2024-01-03 00:00:00 follows 2024-01-04 00:00:00"),
        ({"close": CLOSE.set_axis(DATES[[0, 1]].append(pd.DatetimeIndex([pd.NaT])))}, "field 'close': row 2 has no date"),
        ({"close": CLOSE.set_axis(["AA", "AA"], axis=1)}, "field 'close': the symbol AA stands there twice"),
        ({"close": CLOSE, "open": CLOSE[["AA"]]}, "field 'open' lacks the symbol BB, which 'close' has"),
        ({"close": CLOSE[["AA"]], "open": CLOSE}, "field 'close' lacks the symbol BB, which 'open' has"),
        ({"close": CLOSE, "open": CLOSE.iloc[1:]}, "field 'open' lacks the date 2024-01-02 00:00:00, which 'close' has"),
        ({"close": CLOSE, "sector": SECTOR}, f"field 'sector': 'AA' holds no numbers but {TEXTS}"),
        ({"close": CLOSE.set_axis(["soon", "later", "never"])}, "field 'close': the index must hold dates: 'soon' in row 0 is none from 1678 to 2261; write dates as 2024-01-31"),
        ({"close": CLOSE.set_axis(["2024-01-02T00:00+01:00", "2024-01-03T00:00+01:00", "2024-01-04"])}, f"field 'close': the index {ZONES}"),
        ({"close": CLOSE.set_axis(["2024-01-02 00:00Z", "2024-01-03 00:00+01", "2024-01-04 00:00Z"])}, f"field 'close': the index {ZONES}"),
        ({"close": CLOSE.set_axis(pd.Index([DATES[0], *DATES[1:].tz_localize("UTC")], dtype=object))}, f"field 'close': the index {ZONES}"),
        ({"close": CLOSE.set_axis(["2024-01-02", None, "soon"])}, "field 'close': row 1 has no date"),
        ({"close": CLOSE.set_axis([1, "2024-01-02", 3])}, "field 'close': the index must hold dates; it holds mixed-integer"),
        ({"close": CLOSE.set_axis(np.array(["2024-01-02", "2024-01-03", "9999-12-31"], "M8[s]"))}, "field 'close': Out of bounds nanosecond timestamp: 9999-12-31 00:00:00"),
        ({"close": CLOSE.tz_localize("Europe/Paris"), "open": CLOSE}, "field 'open' has dates without a time zone, field 'close' in the time zone Europe/Paris; bring both to one with tz_localize or tz_convert"),
        ({"close": CLOSE.tz_localize("UTC"), "open": CLOSE.tz_localize("Asia/Tokyo")}, "field 'open' has dates in the time zone Asia/Tokyo, field 'close' in the time zone UTC; bring both to one with tz_localize or tz_convert"),
        ({"close": CLOSE.set_axis(["AA", None], axis=1)}, "field 'close': column 1 has no symbol"),
        ({"close": CLOSE.set_axis([["AA", "BB"], [1, 2]], axis=1)}, "field 'close': symbols have one level; these columns have 2"),
        ({"close": CLOSE * 1j}, "field 'close': 'AA' holds no numbers but complex128"),
        ({"close": CLOSE.assign(BB=DATES)}, "field 'close': 'BB' holds no numbers but datetime64[ns]"),
        ({"close": CLOSE.assign(BB=DATES - DATES[0])}, "field 'close': 'BB' holds no numbers but timedelta64[ns]"),
        ({"close": CLOSE.assign(BB=SECTOR["AA"].astype("category"))}, "field 'close': 'BB' holds no numbers but category"),
        ({"close": CLOSE.assign(BB=pd.Series([1, 10**400, 2], DATES, dtype=object))}, f"field 'close': 'BB' holds no numbers but object: its value on 2024-01-03 00:00:00 is {10**400}"),
        ({"close": [[1.0]]}, "field 'close' must be a DataFrame of pandas or polars or an Arrow table, not builtins.list"),
    ],
)  # fmt: skip
def test_what_makes_no_panel(frames: Any, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        Panel.from_frames(frames)
    assert str(raised.value) == message


@pytest.mark.parametrize(
    ("column", "expected"),
    [
        (pd.Series([1, 2**53 + 1, -3], dtype="int64"), [1.0, 2.0**53, -3.0]),
        (pd.Series([1, 2, 3], dtype="uint8"), [1.0, 2.0, 3.0]),
        (pd.Series([0.1, np.inf, np.nan], dtype="float32"), [float(np.float32(0.1)), np.inf, np.nan]),
        (pd.Series([True, False, True]), [1.0, 0.0, 1.0]),
        (pd.Series([True, None, False], dtype="boolean"), [1.0, np.nan, 0.0]),
        (pd.Series([1, None, 3], dtype="Int64"), [1.0, np.nan, 3.0]),
        (pd.Series([1.5, None, 3], dtype="Float32"), [1.5, np.nan, 3.0]),
        (pd.Series([Decimal("1.25"), None, Decimal("-3")], dtype=pd.ArrowDtype(pa.decimal128(9, 2))), [1.25, np.nan, -3.0]),
        (pd.Series([1, None, 3], dtype=pd.ArrowDtype(pa.int16())), [1.0, np.nan, 3.0]),
        (pd.Series([Decimal("1.25"), None, 2], dtype=object), [1.25, np.nan, 2.0]),
        (pd.Series([True, pd.NA, np.float32(0.5)], dtype=object), [1.0, np.nan, 0.5]),
    ],
    ids=lambda value: str(getattr(value, "dtype", "")),
)  # fmt: skip
def test_numbers_of_every_kind_become_float64(column: Any, expected: list[float]) -> None:
    frame = pd.DataFrame({"AA": CLOSE["AA"], "BB": column.set_axis(DATES)})
    values = Panel.from_frames({"close": frame}).fields["close"]
    np.testing.assert_array_equal(values, np.column_stack([[1.0, 2.0, 3.0], expected]))
    assert values.dtype == np.float64 and values.flags.c_contiguous


@pytest.mark.parametrize(
    "index",
    [
        [day.date() for day in DATES],
        [day.isoformat() for day in DATES],
        [day.to_pydatetime() for day in DATES],
        DATES.as_unit("s"),
        pd.Index(DATES, dtype=pd.ArrowDtype(pa.timestamp("us"))),
    ],
)
def test_dates_of_every_kind_are_nanoseconds(index: Any) -> None:
    panel = Panel.from_frames({"close": CLOSE, "open": CLOSE.set_axis(index)})
    assert panel.dates.equals(DATES)
    assert Panel.from_frames({"open": CLOSE.set_axis(index)}).dates.equals(DATES)


def test_time_zones_are_kept() -> None:
    zoned = CLOSE.tz_localize("Europe/Paris")
    other = zoned.set_axis(DATES.tz_localize(zoneinfo.ZoneInfo("Europe/Paris")))
    panel = Panel.from_frames({"close": zoned, "open": other})
    assert str(panel.dates.tz) == "Europe/Paris"
    pd.testing.assert_frame_equal(panel.frame(panel.fields["open"]), zoned)


@pytest.mark.parametrize("zone", ["UTC", "Europe/Paris"])
def test_texts_and_objects_with_a_time_zone(zone: str) -> None:
    zoned = DATES.tz_localize(zone)
    for index in ([day.isoformat() for day in zoned], zoned.astype(object)):
        dates = Panel.from_frames({"close": CLOSE.set_axis(index)}).dates
        assert dates.tz is not None and (dates == zoned).all()


def test_panels_are_read_only() -> None:
    fields = {"close": np.ones((3, 2))}
    panel = Panel(DATES, pd.Index(["AA", "BB"]), fields)
    fields["open"] = np.ones((3, 2))
    assert [*panel.fields] == ["close"]
    with pytest.raises(TypeError):
        panel.fields["open"] = np.ones((3, 2))  # type: ignore[index]
    with pytest.raises(AttributeError):
        panel.dates = DATES  # type: ignore[misc]


@pytest.mark.parametrize(
    "send", [copy.copy, copy.deepcopy, lambda p: pickle.loads(pickle.dumps(p))]
)
def test_panels_travel(send: Callable[[Panel], Panel]) -> None:
    panel = Panel.from_frames({"close": CLOSE}).with_listings({"AA": "2024-01-03", "BB": DATES[0]})
    found = send(panel)
    assert found.dates.equals(DATES) and found.symbols.equals(panel.symbols)
    np.testing.assert_array_equal(found.fields["close"], panel.fields["close"])
    assert panel.universe is not None and found.universe is not None
    np.testing.assert_array_equal(found.universe, panel.universe)


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ((DATES[::-1], ["AA"], {}), "the panel: the dates must increase; 2024-01-03 00:00:00 follows 2024-01-04 00:00:00"),
        ((DATES, ["AA", "AA"], {}), "the panel: the symbol AA stands there twice"),
        ((DATES, ["AA"], {"close": np.ones((3, 2))}), "field 'close' has the shape (3, 2); the dates and symbols make (3, 1)"),
        ((DATES, ["AA"], {"close": np.ones((3, 1), dtype=np.float32)}), "field 'close' is float32 and C-contiguous; it must be float64 and C-contiguous"),
        ((DATES, ["AA", "BB"], {"close": np.ones((2, 3)).T}), "field 'close' is float64 and not C-contiguous; it must be float64 and C-contiguous"),
        ((DATES, ["AA"], {3: np.ones((3, 1))}), "the name of a field must be a text, not 3"),
        ((DATES, ["AA"], {}, np.ones((1, 1))), "the universe has the shape (1, 1); the dates and symbols make (3, 1)"),
    ],
)  # fmt: skip
def test_matrices_that_make_no_panel(arguments: Any, message: str) -> None:
    dates, symbols, *others = arguments
    with pytest.raises(PanelError) as raised:
        Panel(dates, pd.Index(symbols), *others)
    assert str(raised.value) == message


def test_rows_before_and_after_a_date() -> None:
    panel = Panel.from_frames({"close": CLOSE}).with_listings({"AA": "2024-01-03", "BB": DATES[0]})
    for date in ("2024-01-03", DATES[1], DATES[1].date(), np.datetime64("2024-01-03T20:00")):
        before, later = panel.until(date), panel.after(date)
        assert before.dates.equals(DATES[:2]) and later.dates.equals(DATES[2:])
        assert np.shares_memory(before.fields["close"], panel.fields["close"])
        assert later.fields["close"].tolist() == [[3.0, 6.0]]
        assert before.universe is not None and before.universe.tolist() == [[0.0, 1.0], [1.0, 1.0]]
    assert panel.until("2000-01-01").dates.empty and panel.after("2000-01-01").dates.equals(DATES)


@pytest.mark.parametrize(
    ("date", "message"),
    [
        ("03/01/2024", "'03/01/2024' is no date; write dates as 2024-01-31"),
        ("9999-12-31", "'9999-12-31' is no date; write dates as 2024-01-31"),
        (np.datetime64("0001-01-01"), "np.datetime64('0001-01-01') is no date; write dates as 2024-01-31"),
        (20240103, "20240103 is no date; write dates as 2024-01-31"),
        (pd.NaT, "NaT is no date; write dates as 2024-01-31"),
        ("NaT", "'NaT' is no date; write dates as 2024-01-31"),
        ("2024-01-03T00:00Z", "the date 2024-01-03 00:00:00+00:00 stands in the time zone UTC, those of the panel without a time zone"),
    ],
)  # fmt: skip
def test_what_is_no_date(date: Any, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        Panel.from_frames({"close": CLOSE}).until(date)
    assert str(raised.value) == message


def test_contexts_take_what_evaluation_contexts_take() -> None:
    panel = Panel.from_frames({"close": CLOSE})
    signals = {"one": UsefulSignal(np.ones((3, 2)))}
    context = panel.context(
        registry=default_registry(), useful_signals=signals, pool_id="pool", validate_inputs=False
    )
    assert context.useful_signals is signals
    assert context.pool_id == "pool"
    assert context.universe is None
    with pytest.raises(TypeError, match="universe"):
        panel.context(universe=None)  # type: ignore[call-arg]


def test_results_have_labels() -> None:
    panel = Panel.from_frames({"close": CLOSE})
    context = panel.context(default_registry())
    context._collect_node_outputs = True
    result = evaluate(rotation("numerical_negate", feature("close")), context)
    pd.testing.assert_frame_equal(panel.frame(result), -CLOSE)
    frames = panel.node_frames(result)
    assert [*frames] == [*result.node_outputs]
    pd.testing.assert_frame_equal(frames["root.c0"], CLOSE)
    with pytest.raises(PanelError) as raised:
        panel.until("2024-01-02").frame(result)
    assert str(raised.value) == "values of shape (3, 2) don't fit a panel of (1, 2)"


def test_a_seed_gives_one_market() -> None:
    one, other = synthetic_panel(20, 60, seed=7), synthetic_panel(20, 60, seed=7)
    third = synthetic_panel(20, 60, seed=8)
    for name in one.fields:
        np.testing.assert_array_equal(one.fields[name], other.fields[name])
    assert not np.array_equal(one.fields["close"], third.fields["close"], equal_nan=True)


def test_the_market_is_as_markets_are() -> None:
    fields = synthetic_panel(60, 700, seed=9).fields
    with np.errstate(invalid="ignore"):
        has_prices = ~np.isnan([fields[n] for n in ("open", "high", "low", "close", "vwap")]).any(0)
        for name in ("open", "close", "vwap"):
            inside = (fields["low"] <= fields[name]) & (fields[name] <= fields["high"])
            # The average price has more digits than the others.
            assert (inside | ~has_prices).all()
        returns = fields["close"][1:] / fields["close"][:-1] - 1.0
    assert 0.01 < np.nanstd(returns) < 0.04
    assert np.nanmin(fields["low"]) > 0.0
    assert np.nanmin(fields["volume"]) == 0.0
    together = np.corrcoef(np.nan_to_num(returns).T)[np.triu_indices(60, 1)]
    assert 0.1 < together.mean() < 0.6


def test_groups_are_nested() -> None:
    fields = synthetic_panel(90, 3).fields
    for inner, outer in (("subindustry", "industry"), ("industry", "sector")):
        pairs = {*zip(fields[inner][0].tolist(), fields[outer][0].tolist(), strict=True)}
        assert len(pairs) == len({number for number, _ in pairs})


@pytest.mark.parametrize("chosen", ["gaps", "halts", "late_listings", ""])
def test_what_is_missing_is_chosen(chosen: str) -> None:
    names = ("gaps", "halts", "late_listings")
    fields = synthetic_panel(60, 700, seed=9, **{name: name == chosen for name in names}).fields
    is_missing = np.isnan(fields["close"])
    is_listed = np.maximum.accumulate(~is_missing, axis=0)
    assert is_listed[0].all() == (chosen != "late_listings")
    assert (is_missing & is_listed).any() == (chosen == "gaps")
    assert (fields["volume"] == 0.0).any() == (chosen == "halts")
    if chosen == "halts":
        day, share = np.argwhere(fields["volume"] == 0.0)[0]
        for name in ("open", "high", "low", "close", "vwap"):
            assert fields[name][day, share] == fields["close"][day - 1, share]
