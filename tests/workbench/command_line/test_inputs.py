"""--data: which files are read."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.inputs import fields_of, known_fields, load
from quernbrook.workbench.formulas import parse_formula
from quernbrook.workbench.panels import PanelError

TABLE = "date,a,b\n2020-01-01,1,2\n2020-01-02,3,4\n"


def test_only_the_fields_of_the_graph_are_read(tmp_path: Path) -> None:
    (tmp_path / "Close.csv").write_text(TABLE)
    (tmp_path / "volume.csv").write_text("no table")
    graph, panel = load("rank(close)", tmp_path)
    assert fields_of([graph]) == list(panel.fields) == ["Close"]
    np.testing.assert_array_equal(panel.fields["Close"], [[1, 2], [3, 4]])


@pytest.mark.parametrize(
    ("formula", "fields"),
    [
        ("returns", ["close"]),
        ("adv20", ["volume", "vwap"]),
        ("indneutralize(close - open, IndClass.sector)", ["close", "open", "sector"]),
        ("1", []),
    ],
)
def test_fields_behind_names(formula: str, fields: list[str]) -> None:
    assert fields_of([parse_formula(formula)]) == fields


def test_a_field_of_that_name_goes_before_its_definition(tmp_path: Path) -> None:
    (tmp_path / "returns.csv").write_text(TABLE)
    assert list(load("returns", tmp_path)[1].fields) == ["returns"]


def test_a_graph_without_fields_takes_the_shape_of_any(tmp_path: Path) -> None:
    (tmp_path / "close.csv").write_text(TABLE)
    assert load("1 + 2", tmp_path)[1].fields["close"].shape == (2, 2)


def test_other_files_are_no_fields(tmp_path: Path) -> None:
    for name in ("close.csv", "open.parquet", "cap.csv.gz", ".low.csv", "notes.txt", "README"):
        (tmp_path / name).touch()
    (tmp_path / "high.csv").mkdir()
    assert known_fields(tmp_path) == ["cap", "close", "open"]


def test_faulty_data(tmp_path: Path) -> None:
    with pytest.raises(InputError, match=r"has no data: expected files such as close\.parquet"):
        load("close", tmp_path)
    with pytest.raises(InputError, match="there is no folder"):
        load("close", tmp_path / "absent")
    (tmp_path / "close.csv").write_text("date,a,b\n")
    with pytest.raises((InputError, PanelError)):
        load("close", tmp_path)
    (tmp_path / "close.csv").write_text(TABLE)
    with pytest.raises(InputError, match="unknown field 'clsoe'; the nearest is 'close'"):
        load("close", tmp_path, "clsoe")


@pytest.mark.parametrize(
    "formula", ["reduction_mean()", "weighted_by_pnl(4)", "reduction_mean(filtration(gt(sharpe, 0.5)))"]
)  # fmt: skip
def test_pools_of_signals_are_refused(formula: str, tmp_path: Path) -> None:
    (tmp_path / "close.csv").write_text(TABLE)
    with pytest.raises(InputError, match="needs a pool of signals"):
        load(formula, tmp_path)
