"""Panels from tables of Arrow and polars, wide and long, and from long ones of pandas."""

from __future__ import annotations

import subprocess
import sys
from datetime import date
from decimal import Decimal
from typing import Any

import numpy as np
import pandas as pd
import polars as pl
import pyarrow as pa
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.panels import Panel, PanelError

DATES = pd.DatetimeIndex(["2024-01-02", "2024-01-03", "2024-01-04"])
DAYS = [day.date() for day in DATES]
WIDE: dict[str, Any] = {"day": DAYS, "AA": [1.0, 2.0, 3.0], "BB": [4.0, None, 6.0]}
VALUES = [[1.0, 4.0], [2.0, np.nan], [3.0, 6.0]]
LONG: dict[str, Any] = {
    "day": [DAYS[1], DAYS[0], DAYS[1], DAYS[2]],
    "code": ["BB", "AA", "AA", "BB"],
    "close": [5.0, 1.0, None, 6.0],
}
LONG_VALUES = [[1.0, np.nan], [np.nan, 5.0], [np.nan, 6.0]]
KINDS = {
    "arrow": pa.table,
    "batch": pa.record_batch,
    "stream": lambda columns: pa.RecordBatchReader.from_stream(pa.table(columns)),
    "polars": pl.DataFrame,
}
every_kind = pytest.mark.parametrize("kind", KINDS)


@every_kind
def test_wide_tables(kind: str) -> None:
    other = {"when": DAYS, "BB": [4, None, 6], "AA": [1, 2, 3]}
    panel = Panel.from_frames({"close": KINDS[kind](WIDE), "volume": KINDS[kind](other)})
    assert panel.dates.equals(DATES) and [*panel.symbols] == ["AA", "BB"]
    for values in panel.fields.values():
        np.testing.assert_array_equal(values, VALUES)
        assert values.flags.c_contiguous and values.dtype == np.float64


@every_kind
def test_long_tables(kind: str) -> None:
    panel = Panel.from_long(KINDS[kind](LONG), date="day", symbol="code")
    assert panel.dates.equals(DATES) and [*panel.symbols] == ["AA", "BB"]
    np.testing.assert_array_equal(panel.fields["close"], LONG_VALUES)


def test_libraries_mix() -> None:
    frame = pd.DataFrame({"AA": [1, 2, 3], "BB": [4, 5, 6]}, index=DATES)
    panel = Panel.from_frames({"a": frame, "b": pl.DataFrame(WIDE), "c": pa.table(WIDE)})
    assert [*panel.fields] == ["a", "b", "c"]


def test_polars_is_only_used_by_those_who_have_it() -> None:
    code = "import sys, quernbrook.workbench.panels; sys.exit('polars' in sys.modules)"
    assert subprocess.run([sys.executable, "-c", code], timeout=120).returncode == 0


@pytest.mark.parametrize(
    ("column", "expected"),
    [
        (pa.array([1, None, 2**53 + 1], pa.int64()), [1.0, np.nan, 2.0**53]),
        (pa.array([1.5, None, 3.0], pa.float32()), [1.5, np.nan, 3.0]),
        (pa.array([True, None, False]), [1.0, np.nan, 0.0]),
        (pa.array([Decimal("1.25"), None, Decimal("3")]), [1.25, np.nan, 3.0]),
        (pa.nulls(3), [np.nan] * 3),
        (pa.array([7, None, 7]).dictionary_encode(), [7.0, np.nan, 7.0]),
        (pa.chunked_array([[1.0], [None, 3.0]]), [1.0, np.nan, 3.0]),
        (pa.array([1.0, np.nan, np.inf]), [1.0, np.nan, np.inf]),
    ],
    ids=lambda value: str(getattr(value, "type", "")),
)
def test_numbers_of_every_kind_become_float64(column: Any, expected: list[float]) -> None:
    wide = pa.table({"day": DAYS, "AA": [1.0, 2.0, 3.0], "BB": column})
    values = Panel.from_frames({"close": wide}).fields["close"]
    np.testing.assert_array_equal(values, np.column_stack([[1.0, 2.0, 3.0], expected]))
    long = pa.table({"day": DAYS, "code": ["AA"] * 3, "close": column})
    values = Panel.from_long(long, date="day", symbol="code").fields["close"]
    np.testing.assert_array_equal(values[:, 0], expected)


@pytest.mark.parametrize(
    "column",
    [
        pa.array(DAYS, pa.date64()),
        pa.array(DATES, pa.timestamp("s")),
        pa.array(["2024-01-02", "2024-01-03", "2024-01-04"], pa.large_string()),
        pa.array(["2024-01-02", "2024-01-03", "2024-01-04"], pa.string_view()),
    ],
    ids=lambda column: str(column.type),
)
def test_dates_of_every_kind(column: Any) -> None:
    assert Panel.from_frames({"close": pa.table({**WIDE, "day": column})}).dates.equals(DATES)
    long = {"day": column, "code": ["AA"] * 3, "close": [1, 2, 3]}
    assert Panel.from_long(pa.table(long), date="day", symbol="code").dates.equals(DATES)


def test_time_zones_are_kept() -> None:
    zoned = pl.Series(DATES).dt.replace_time_zone("Europe/Paris")
    panel = Panel.from_frames({"close": pl.DataFrame({**WIDE, "day": zoned})})
    assert panel.dates.equals(DATES.tz_localize("Europe/Paris"))


@pytest.mark.parametrize("kind", [pd.DataFrame, pl.DataFrame, pa.table])
def test_numbers_as_symbols(kind: Any) -> None:
    codes = [{"AA": 20, "BB": 3}[code] for code in LONG["code"]]
    panel = Panel.from_long(kind({**LONG, "code": codes}), date="day", symbol="code")
    assert [*panel.symbols] == [3, 20]


@pytest.mark.parametrize("kind", ["category", "string", "object", pd.ArrowDtype(pa.string())])
def test_long_frames_of_pandas(kind: Any) -> None:
    frame = pd.DataFrame(LONG).astype({"code": kind, "day": "datetime64[s]"})
    for table in (frame, frame.set_index(["day", "code"]), frame.set_index("code")):
        panel = Panel.from_long(table, date="day", symbol="code")
        assert panel.dates.equals(DATES) and [*panel.symbols] == ["AA", "BB"]
        assert panel.dates.name == "day" and panel.symbols.name == "code"
        np.testing.assert_array_equal(panel.fields["close"], LONG_VALUES)


def test_symbols_that_do_not_occur_are_none() -> None:
    codes = pd.Categorical(LONG["code"], categories=["BB", "CC", "AA"])
    frame = pd.DataFrame({**LONG, "code": codes})
    assert [*Panel.from_long(frame, date="day", symbol="code").symbols] == ["AA", "BB"]
    series = pl.Series(LONG["code"], dtype=pl.Categorical)
    polars = pl.DataFrame({**LONG, "code": series})
    assert [*Panel.from_long(polars, date="day", symbol="code").symbols] == ["AA", "BB"]


@pytest.mark.parametrize("kind", ["pandas", "arrow", "polars"])
def test_full_tables_in_order_are_not_copied(kind: str) -> None:
    values = np.arange(6.0)
    columns = {"day": np.repeat(DATES, 2), "code": ["AA", "BB"] * 3, "close": values}
    made: dict[str, Any] = {
        "pandas": lambda: pd.DataFrame(columns, copy=False),
        "arrow": lambda: pa.table(columns),
        "polars": lambda: pl.DataFrame(columns),
    }
    table = made[kind]()
    source = {
        "pandas": lambda: table["close"].to_numpy(),
        "arrow": lambda: table["close"].chunk(0).to_numpy(),
        "polars": lambda: table["close"].to_numpy(),
    }[kind]()
    panel = Panel.from_long(table, date="day", symbol="code")
    assert np.shares_memory(panel.fields["close"], source)
    assert panel.fields["close"].tolist() == [[0.0, 1.0], [2.0, 3.0], [4.0, 5.0]]
    # Such memory may be read-only, which is nothing to a run.
    graph = rotation("numerical_negate", feature("close"))
    result = evaluate(graph, panel.context(default_registry()))
    np.testing.assert_array_equal(result.weights, -panel.fields["close"])


@pytest.mark.parametrize("table", [pl.DataFrame(LONG).clear(), pa.table(LONG).slice(0, 0)])
def test_tables_without_rows(table: Any) -> None:
    long = Panel.from_long(table, date="day", symbol="code")
    assert long.fields["close"].shape == (0, 0)
    wide = Panel.from_frames({"a": table.select(["day", "close"])})
    assert wide.fields["a"].shape == (0, 1) and wide.dates.empty


@settings(deadline=None, max_examples=50)
@given(st.data())
def test_long_tables_in_any_order(data: st.DataObject) -> None:
    cells = st.tuples(st.integers(0, 5), st.sampled_from("abcde"))
    rows = data.draw(st.lists(cells, unique=True, min_size=1))
    numbers = data.draw(st.lists(st.floats(), min_size=len(rows), max_size=len(rows)))
    frame = pd.DataFrame(
        {
            "day": [pd.Timestamp(2024, 1, 1 + day) for day, _ in rows],
            "code": [code for _, code in rows],
            "close": numbers,
        }
    )
    expected = frame.pivot(index="day", columns="code", values="close")
    for table in (frame, pa.Table.from_pandas(frame, nthreads=1), pl.from_pandas(frame)):
        panel = Panel.from_long(table, date="day", symbol="code")
        assert [*panel.dates] == [*expected.index] and [*panel.symbols] == [*expected.columns]
        np.testing.assert_array_equal(panel.fields["close"], expected.to_numpy())


@pytest.mark.parametrize(
    ("columns", "message"),
    [
        ({}, "field 'close' has no columns"),
        ({**WIDE, "BB": ["tech"] * 3}, "field 'close': 'BB' holds no numbers but string"),
        ({**WIDE, "BB": [DAYS[0]] * 3}, "field 'close': 'BB' holds no numbers but date32[day]"),
        ({**WIDE, "BB": [[1.0]] * 3}, "field 'close': 'BB' holds no numbers but list<item: double>"),
        ({**WIDE, "BB": pa.array(["a"] * 3).dictionary_encode()}, "field 'close': 'BB' holds no numbers but string"),
        ({**WIDE, "day": [1, 2, 3]}, "field 'close': the first column must hold dates; it holds int64"),
        ({**WIDE, "day": [None, *DAYS[:2]]}, "field 'close': row 0 has no date"),
        ({**WIDE, "day": ["2024-01-02", "01/03/2024", "soon"]}, "field 'close': the first column must hold dates: '01/03/2024' in row 1 is none from 1678 to 2261; write dates as 2024-01-31"),
        ({**WIDE, "day": [DAYS[0], DAYS[2], DAYS[1]]}, "field 'close': the dates must increase; 2024-01-03 00:00:00 follows 2024-01-04 00:00:00"),
        ({**WIDE, "day": [DAYS[0], DAYS[0], DAYS[1]]}, "field 'close': the date 2024-01-02 00:00:00 stands there twice"),
        ({**WIDE, "day": [*DAYS[:2], date(9999, 12, 31)]}, "field 'close': Out of bounds nanosecond timestamp: 9999-12-31 00:00:00"),
    ],
)  # fmt: skip
def test_what_makes_no_panel(columns: Any, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        Panel.from_frames({"close": pa.table(columns)})
    assert str(raised.value) == message


@pytest.mark.parametrize(
    ("table", "message"),
    [
        (pl.LazyFrame(WIDE), "field 'close' must be a DataFrame of pandas or polars or an Arrow table, not polars.lazyframe.frame.LazyFrame"),
        (None, "field 'close' must be a DataFrame of pandas or polars or an Arrow table, not builtins.NoneType"),
        (pl.Series([1.0]), "field 'close' is a table that Arrow can't read: Cannot import schema: ArrowSchema describes non-struct type double"),
    ],
    ids=["lazy", "none", "series"],
)  # fmt: skip
def test_what_is_no_table(table: Any, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        Panel.from_frames({"close": table})
    assert str(raised.value) == message


@pytest.mark.parametrize("kind", ["pandas", "arrow", "polars"])
@pytest.mark.parametrize(
    ("changes", "message"),
    [
        ({"code": ["BB", "AA", "BB", "BB"]}, "the long table: the value of BB on 2024-01-03 00:00:00 stands there twice, in rows 0 and 2"),
        ({"code": ["BB", None, "AA", "BB"]}, "the long table: row 1 has no symbol"),
        ({"day": [*DAYS, None]}, "the long table: row 3 has no date"),
        ({"day": [*DATES.tz_localize("UTC"), None]}, "the long table: row 3 has no date"),
        ({"day": ["2024-01-02", "9999-12-31", "2024-01-02", "2024-01-02"]}, "the long table: the column 'day' must hold dates: '9999-12-31' in row 1 is none from 1678 to 2261; write dates as 2024-01-31"),
        ({"day": ["2024-01-02", "2024-01-03", "soon", "2024-01-02"]}, "the long table: the column 'day' must hold dates: 'soon' in row 2 is none from 1678 to 2261; write dates as 2024-01-31"),
        ({"day": [1, 2, 3, 4]}, "the long table: the column 'day' must hold dates; it holds int64"),
        ({"code": [1.0, 2.0, 3.0, 4.0]}, "the long table: the column 'code' must hold symbols, texts or integers; it holds double"),
    ],
)  # fmt: skip
def test_what_makes_no_panel_in_a_long_table(kind: str, changes: Any, message: str) -> None:
    columns = {**LONG, **changes}
    kinds: dict[str, Any] = {"pandas": pd.DataFrame, "arrow": pa.table, "polars": pl.DataFrame}
    with pytest.raises(PanelError) as raised:
        Panel.from_long(kinds[kind](columns), date="day", symbol="code")
    assert str(raised.value) == message


@pytest.mark.parametrize(
    ("frame", "message"),
    [
        (pd.DataFrame({**LONG, "close": [1.0, Decimal(2), "tech", None]}), "field 'close' holds no numbers but object: the value of AA on 2024-01-03 00:00:00 is 'tech'"),
        (pd.DataFrame({**LONG, "close": ["a"] * 4}, dtype="string"), "field 'close' holds no numbers but string"),
        (pd.DataFrame({**LONG, "close": pd.to_datetime(LONG["day"]).astype("datetime64[ns]")}), "field 'close' holds no numbers but datetime64[ns]"),
        (pd.DataFrame(LONG).set_axis(["day", "code", "code"], axis=1), "the long table has 2 columns 'code'"),
        (pd.DataFrame(LONG).drop(columns="close"), "the long table has no columns beside 'day' and 'code'"),
        (pd.DataFrame(LONG).rename(columns={"day": "days"}), "the long table has no column 'day'; the nearest is 'days'"),
    ],
)  # fmt: skip
def test_what_makes_no_panel_in_a_long_frame(frame: pd.DataFrame, message: str) -> None:
    with pytest.raises(PanelError) as raised:
        Panel.from_long(frame, date="day", symbol="code")
    assert str(raised.value) == message


def test_mixed_symbols() -> None:
    frame = pd.DataFrame({**LONG, "code": [1, "AA", 1, "BB"]})
    with pytest.raises(PanelError, match="the column 'code' mixes types: ") as raised:
        Panel.from_long(frame, date="day", symbol="code")
    assert "\n" not in str(raised.value)
