"""Panels in files: a wide table a field, or one long table."""

from __future__ import annotations

import io
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
import pytest
from pyarrow import csv
from quernbrook.workbench.panels import (
    PanelError,
    read_long,
    read_panel,
    synthetic_panel,
    write_panel,
)

DATES = pd.DatetimeIndex(["2024-01-02", "2024-01-03", "2024-01-04"])
CLOSE = pd.DataFrame({"AA": [1.0, 2.0, 3.0], "BB": [4.0, np.nan, 6.0]}, index=DATES)


def test_a_panel_comes_back_from_its_files(tmp_path: Path) -> None:
    panel = synthetic_panel(12, 40, seed=5)
    write_panel(panel, tmp_path)
    found = read_panel(tmp_path, panel.fields)
    assert list(found.symbols) == list(panel.symbols)
    assert found.dates.equals(panel.dates)
    for name, values in panel.fields.items():
        np.testing.assert_array_equal(found.fields[name], values)


@pytest.mark.parametrize("suffix", ["csv", "csv.gz"])
def test_fields_in_csv_files(tmp_path: Path, suffix: str) -> None:
    CLOSE.to_csv(tmp_path / f"close.{suffix}")
    panel = read_panel(tmp_path, ["close"])
    assert panel.dates.equals(DATES)
    np.testing.assert_array_equal(panel.fields["close"], CLOSE.to_numpy())


def test_a_parquet_file_without_an_index_has_its_dates_first(tmp_path: Path) -> None:
    CLOSE.rename_axis("day").reset_index().to_parquet(tmp_path / "close.parquet", index=False)
    assert read_panel(tmp_path, ["close"]).dates.equals(DATES)


def test_several_row_groups(tmp_path: Path) -> None:
    panel = synthetic_panel(12, 40, seed=5)
    table = pa.Table.from_pandas(panel.frame(panel.fields["close"]))
    pq.write_table(table, tmp_path / "close.parquet", row_group_size=7)
    found = read_panel(tmp_path, ["close"])
    np.testing.assert_array_equal(found.fields["close"], panel.fields["close"])
    assert found.fields["close"].flags.c_contiguous


def test_a_table_that_lost_rows_has_its_dates_first(tmp_path: Path) -> None:
    # What is left of the numbers of the rows becomes an index of its own in the file.
    table = CLOSE.rename_axis("day").reset_index().iloc[[0, 2]]
    table.to_parquet(tmp_path / "close.parquet")
    panel = read_panel(tmp_path, ["close"])
    assert panel.dates.equals(DATES[[0, 2]]) and [*panel.symbols] == ["AA", "BB"]


def test_time_zones_in_files(tmp_path: Path) -> None:
    zoned = CLOSE.tz_localize("Europe/Paris")
    zoned.to_parquet(tmp_path / "close.parquet")
    assert read_panel(tmp_path, ["close"]).dates.equals(zoned.index)
    zoned.to_csv(tmp_path / "open.csv")
    assert (read_panel(tmp_path, ["open"]).dates == zoned.index).all()


def test_decimals_far_down_a_csv_file_of_integers(tmp_path: Path) -> None:
    dates = pd.date_range("1900-01-01", periods=60_000)
    values = np.ones((60_000, 4))
    values[-1, 0] = 0.1
    lines = [
        f"{day:%Y-%m-%d}," + ",".join(f"{x:g}" for x in row)
        for day, row in zip(dates, values, strict=True)
    ]
    (tmp_path / "close.csv").write_text("\n".join(["date,a,b,c,d", *lines]))
    np.testing.assert_array_equal(read_panel(tmp_path, ["close"]).fields["close"], values)


@pytest.mark.parametrize(
    ("text", "expected"),
    [
        ("date,AA,BB\n2024-01-02,1,\n2024-01-03,nan,-2.5e3\n", [[1.0, np.nan], [np.nan, -2500.0]]),
        ("date,AA,BB\n2024-01-02,True,\n2024-01-03,false,inf\n", [[1.0, np.nan], [0.0, np.inf]]),
        ("date,AA,BB\r\n20240102,0.1,NA\r\n20240103,2,3", [[0.1, np.nan], [2.0, 3.0]]),
    ],
)  # fmt: skip
def test_what_csv_files_hold(tmp_path: Path, text: str, expected: list[list[float]]) -> None:
    (tmp_path / "close.csv").write_text(text, newline="")
    panel = read_panel(str(tmp_path), ["close"])
    assert panel.dates.equals(DATES[:2])
    np.testing.assert_array_equal(panel.fields["close"], expected)


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("date,AA,AA\n2024-01-02,1,2\n", "field 'close': the symbol AA stands there twice"),
        ("date,AA\n2024-01-02,1\n2024-01-03,tech\n", "field 'close': the value of AA on 2024-01-03 is no number: 'tech'"),
        ("date,AA\n2024-01-02,1\n,2\n", "field 'close': the first column must hold dates: '' in row 1 is none from 1678 to 2261; write dates as 2024-01-31"),
        ("date,AA\n2024-01-02,1\n31.01.2024,2\n", "field 'close': the first column must hold dates: '31.01.2024' in row 1 is none from 1678 to 2261; write dates as 2024-01-31"),
        ("date,AA\n2024-01-02T00:00+01:00,1\n2024-07-02T00:00+02:00,2\n", "field 'close': the first column has dates in several time zones, or some without; write all in UTC"),
        ("date,AA\n2024-01-02,1\n2024-01-02,2\n", "field 'close': the date 2024-01-02 00:00:00 stands there twice"),
        ("date,AA\n", "field 'close': the first column must hold dates; it holds empty"),
        ("date,AA\n2024-01-02,1,2\n", "PATH can't be read: CSV parse error: Expected 2 columns, got 3: 2024-01-02,1,2"),
    ],
)  # fmt: skip
def test_faulty_csv_files(tmp_path: Path, text: str, message: str) -> None:
    path = tmp_path / "close.csv"
    path.write_text(text)
    with pytest.raises(PanelError) as raised:
        read_panel(tmp_path, ["close"])
    assert str(raised.value) == message.replace("PATH", str(path))


LONG = (
    "day,code,close,volume\n2024-01-03,000001,2.5,20\n2024-01-02,000001,1.5,\n2024-01-02,NA,3,30\n"
)


def test_a_long_csv_file(tmp_path: Path) -> None:
    path = tmp_path / "prices.csv"
    path.write_text(LONG)
    panel = read_long(path, date="day", symbol="code")
    assert [*panel.symbols] == ["000001", "NA"] and panel.dates.equals(DATES[:2])
    np.testing.assert_array_equal(panel.fields["close"], [[1.5, 3.0], [2.5, np.nan]])
    np.testing.assert_array_equal(panel.fields["volume"], [[np.nan, 30.0], [20.0, np.nan]])
    chosen = read_long(path, date="day", symbol="code", fields=iter(["volume"]))
    assert [*chosen.fields] == ["volume"]


def test_a_long_parquet_file(tmp_path: Path) -> None:
    path = tmp_path / "prices.parquet"
    table = csv.read_csv(io.BytesIO(LONG.encode()))
    pq.write_table(table.set_column(1, "code", [["AA", "AA", "BB"]]), path)
    panel = read_long(path, date="day", symbol="code", fields=["close"])
    assert [*panel.fields] == ["close"]
    np.testing.assert_array_equal(panel.fields["close"], [[1.5, 3.0], [2.5, np.nan]])


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ({"date": "dya", "symbol": "code"}, "the long table has no column 'dya'; the nearest is 'day'"),
        ({"date": "day", "symbol": "code", "fields": ["clsoe"]}, "the long table has no column 'clsoe'; the nearest is 'close'"),
        ({"date": "day", "symbol": "code", "fields": []}, "the long table has no columns beside 'day' and 'code'"),
    ],
)  # fmt: skip
@pytest.mark.parametrize("suffix", ["csv", "parquet"])
def test_faulty_long_files(tmp_path: Path, suffix: str, arguments: Any, message: str) -> None:
    path = tmp_path / f"prices.{suffix}"
    path.write_text(LONG)
    if suffix == "parquet":
        pq.write_table(csv.read_csv(io.BytesIO(LONG.encode())), path)
    with pytest.raises(PanelError) as raised:
        read_long(path, **arguments)
    assert str(raised.value) == message


def test_a_cell_of_a_long_csv_file_that_is_no_number(tmp_path: Path) -> None:
    path = tmp_path / "prices.csv"
    path.write_text(LONG + "2024-01-04,AA,tech,1\n")
    with pytest.raises(PanelError) as raised:
        read_long(path, date="day", symbol="code")
    assert str(raised.value) == "field 'close': the value of AA on 2024-01-04 is no number: 'tech'"


def test_rows_left_over_are_no_field(tmp_path: Path) -> None:
    frame = pd.DataFrame({"day": DATES, "code": "AA", "close": [1.0, 2.0, 3.0]}).iloc[[0, 2]]
    frame.to_parquet(tmp_path / "prices.parquet")
    assert [*read_long(tmp_path / "prices.parquet", date="day", symbol="code").fields] == ["close"]
    frame.set_index(["day", "code"]).to_parquet(tmp_path / "prices.parquet")
    panel = read_long(tmp_path / "prices.parquet", date="day", symbol="code")
    assert panel.fields["close"].tolist() == [[1.0], [3.0]]


def test_long_files_that_cannot_be_read(tmp_path: Path) -> None:
    for path in (tmp_path / "absent.parquet", tmp_path / "absent.csv", tmp_path):
        with pytest.raises(PanelError, match=r"can't be read: ") as raised:
            read_long(path, date="day", symbol="code")
        assert "\n" not in str(raised.value)
