"""`quernbrook run`."""

from __future__ import annotations

import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import numpy as np
import pandas as pd
import pytest
from quernbrook.workbench.command_line import frame_file
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.panels import Panel, synthetic_panel

from .conftest import Program


@pytest.fixture
def panel() -> Panel:
    return synthetic_panel(6, 30)


def expected(panel: Panel) -> pd.DataFrame:
    return -panel.frame(panel.fields["close"]).diff(5)


@pytest.mark.parametrize("name", ["weights.parquet", "weights.csv", "weights.csv.gz"])
def test_weights_are_written(name: str, data: Path, panel: Panel, program: Program) -> None:
    Path(name).write_text("what was there before")
    assert program("run", "-1 * delta(close, 5)", "--data", data, "--out", name) == 0
    assert os.listdir() == [name]
    path = Path(name)
    found = (
        pd.read_parquet(path)
        if path.suffix == ".parquet"
        else pd.read_csv(path, index_col=0, parse_dates=True)
    )
    # pandas reads texts as dates in units of its own.
    found.index = pd.DatetimeIndex(found.index).as_unit("ns")
    pd.testing.assert_frame_equal(found, expected(panel), check_freq=False, check_names=False)


def test_the_summary(data: Path, panel: Panel, program: Program) -> None:
    coverage = float(np.isfinite(expected(panel).to_numpy()).mean())
    arguments = ("run", "-delta(close, 5)", "--data", data, "--out", "w.csv")
    assert program(*arguments) == 0
    lines = [" ".join(line.split()) for line in program.output.splitlines()]
    assert lines[:3] == [
        "dates 30 from 2015-01-02 to 2015-02-12",
        "symbols 6",
        f"coverage {coverage:.1%} of cells have a weight",
    ]
    assert lines[4] == "written to w.csv" and not program.errors
    assert "\x1b" not in program.output
    assert program(*arguments, "--json") == 0
    document = json.loads(program.output)
    assert document.pop("seconds") > 0.0
    assert document == {
        "dates": 30,
        "first_date": "2015-01-02",
        "last_date": "2015-02-12",
        "symbols": 6,
        "coverage": coverage,
        "out": "w.csv",
    }


def test_cells_outside_the_universe_are_missing(data: Path, program: Program) -> None:
    assert (
        program("run", "close", "--data", data, "--universe", "subindustry", "--out", "w.parquet")
        == 0
    )
    groups = pd.read_parquet(data / "subindustry.parquet")
    close = pd.read_parquet(data / "close.parquet").where(groups != 0.0)
    assert 0 < close.notna().sum().sum() < close.size
    pd.testing.assert_frame_equal(pd.read_parquet("w.parquet"), close, check_freq=False)


def test_the_synthetic_panel_without_data(program: Program) -> None:
    assert program("run", "close", "--out", "w.parquet") == 0
    assert program.errors == "No --data: 2,000 days of 500 shares that never were.\n"
    assert pd.read_parquet("w.parquet").shape == (2000, 500)


@pytest.mark.parametrize(
    ("graph", "told"),
    [
        ("numerical_add(close)", "Function 'numerical_add' failed at row 0: numerical_add takes 2 input(s); got 1"),
        ("longitudinal_mean(close, -3)", "Function 'longitudinal_mean': window must be at least 1; got -3"),
        ("rank(" * 5000 + "close" + ")" * 5000, "the graph nests too deeply to be evaluated"),
    ],
    ids=["row", "parameter", "deep"],
)  # fmt: skip
def test_evaluations_that_fail(graph: str, told: str, data: Path, program: Program) -> None:
    assert program("run", graph, "--data", data, "--out", "w.csv") == 1
    assert program.errors == f"quernbrook: {told}\n"
    assert not program.output and not os.listdir()


@pytest.mark.parametrize(
    ("graph", "options", "told"),
    [
        ("rank(clsoe)", [], "line 1, column 6: unknown feature 'clsoe'; the nearest is 'close'\n  rank(clsoe)\n       ^"),
        ("close", ["--out", "w.xlsx"], "--out w.xlsx: expected a name that ends in .parquet, .csv, .csv.gz"),
        ("close", ["--out", "no/w.csv"], "--out no/w.csv: there is no folder no; make it first"),
        ("close", ["--universe", "univers"], "unknown field 'univers'"),
        ("close", ["--data", "nowhere"], "there is no folder nowhere: --data wants a folder with a file a field"),
    ],
)  # fmt: skip
def test_wrong_input(
    graph: str, options: list[str], told: str, data: Path, program: Program
) -> None:
    assert program("run", graph, "--data", data, "--out", "w.csv", *options) == 2
    assert program.errors == f"quernbrook: {told}\n"
    assert not program.output and not os.listdir()


def test_data_that_do_not_fit_together(data: Path, program: Program) -> None:
    shutil.copytree(data, "prices")
    shares = pd.read_parquet("prices/open.parquet")
    shares.iloc[:, 1:].to_parquet("prices/open.parquet")
    assert program("run", "open - close", "--data", "prices", "--out", "w.csv") == 2
    assert program.errors == "quernbrook: field 'open' lacks the symbol S1, which 'close' has\n"


def test_a_file_that_fails_half_way_leaves_the_old_one(monkeypatch: pytest.MonkeyPatch) -> None:
    def fill_the_disk(_: pd.DataFrame, path: Path) -> None:
        Path(path).write_text("half")
        raise OSError(28, "No space left on device")

    monkeypatch.setattr(pd.DataFrame, "to_csv", fill_the_disk)
    Path("w.csv").write_text("old")
    with pytest.raises(InputError, match=r"--out w.csv can't be written: No space left on device"):
        frame_file.write(pd.DataFrame(), Path("w.csv"))
    assert os.listdir() == ["w.csv"] and Path("w.csv").read_text() == "old"


def test_a_folder_as_the_file() -> None:
    Path("w.csv").mkdir()
    with pytest.raises(InputError, match="this is a folder; name a file in it"):
        frame_file.require_writable(Path("w.csv"))


def test_faults_of_the_program_are_not_hidden(
    data: Path, program: Program, monkeypatch: pytest.MonkeyPatch
) -> None:
    def broken(*_: object) -> None:
        raise KeyError("a bug")

    monkeypatch.setattr(frame_file, "write", broken)
    with pytest.raises(KeyError, match="a bug"):
        program("run", "close", "--data", data, "--out", "w.csv")


def test_as_a_module(data: Path) -> None:
    command = [sys.executable, "-m", "quernbrook.workbench", "run", "rank(clsoe)"]
    done = subprocess.run(
        [*command, "--data", data, "--out", "w.csv"], capture_output=True, text=True
    )
    assert done.returncode == 2
    assert done.stderr.startswith("quernbrook: line 1, column 6: unknown feature 'clsoe'")
    assert "Traceback" not in done.stderr
