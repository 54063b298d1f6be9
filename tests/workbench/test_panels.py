"""Panels from frames, files and a seed."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pandas as pd
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.workbench.panels import (
    Panel,
    PanelError,
    read_panel,
    synthetic_panel,
    write_panel,
)

DATES = pd.DatetimeIndex(["2024-01-02", "2024-01-03", "2024-01-04"])


def frame(**columns: list[object]) -> pd.DataFrame:
    return pd.DataFrame(columns, index=DATES)


SECTOR = frame(AA=["tech"] * 3, BB=["oil"] * 3)
CLOSE = frame(AA=[1.0, 2.0, 3.0], BB=[4.0, np.nan, 6.0])


def test_symbols_follow_the_first_field() -> None:
    panel = Panel.from_frames({"close": CLOSE, "volume": frame(BB=[4, 5, 6], AA=[1, 2, 3])})
    assert list(panel.symbols) == ["AA", "BB"]
    assert panel.fields["volume"].tolist() == [[1.0, 4.0], [2.0, 5.0], [3.0, 6.0]]
    pd.testing.assert_frame_equal(panel.frame(panel.fields["close"]), CLOSE)


def test_float64_in_one_block_is_not_copied() -> None:
    values = np.ones((3, 2))
    panel = Panel.from_frames({"close": pd.DataFrame(values, index=DATES, columns=["AA", "BB"])})
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
        ({"close": CLOSE, "sector": SECTOR}, f"field 'sector': 'AA' holds no numbers but {SECTOR.dtypes['AA']}"),
    ],
)  # fmt: skip
def test_what_makes_no_panel(frames: dict[str, pd.DataFrame], message: str) -> None:
    with pytest.raises(PanelError) as raised:
        Panel.from_frames(frames)
    assert str(raised.value) == message


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


def test_what_cannot_be_read(tmp_path: Path) -> None:
    (tmp_path / "clse.csv").write_text("date,AA\n1,2\n")
    (tmp_path / "volume.csv").write_text("date,AA\n1,2\n")
    (tmp_path / "open.csv").write_text("date,AA\nsoon,2\n")
    (tmp_path / "low.parquet").write_bytes(b"nothing")
    (tmp_path / "high.csv").write_text("")
    expected = {
        "close": rf"{tmp_path} has no file for the field 'close': expected close.parquet or close.csv; the nearest is 'clse'",
        "volume": "field 'volume': the first column must hold dates; it holds numbers",
        "open": "field 'open': the first column must hold dates: ",
        "low": f"{tmp_path / 'low.parquet'} can't be read: ",
        "high": f"{tmp_path / 'high.csv'} can't be read: ",
    }
    for name, message in expected.items():
        with pytest.raises(PanelError) as raised:
            read_panel(tmp_path, [name])
        assert str(raised.value).startswith(message)
    with pytest.raises(PanelError, match="there is no folder"):
        read_panel(tmp_path / "absent", ["close"])


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
