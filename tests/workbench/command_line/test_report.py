"""`quernbrook report` on data in a folder."""

from __future__ import annotations

from pathlib import Path

import pytest
from quernbrook.workbench.panels import synthetic_panel, write_frame

from .conftest import Program

FORMULA = "rank(delta(close, 5))"


def test_a_report_is_written(program: Program, data: Path) -> None:
    assert program("report", FORMULA, "--data", data, "--out", "report.html") == 0
    assert program.output.split()[0] == "seconds" and "report.html" in program.output
    page = Path("report.html").read_text("utf-8")
    assert page.startswith("<!DOCTYPE html>") and f"<h1>{FORMULA}</h1>" in page
    assert "all symbols, equal weights" in page
    assert len(list(Path().iterdir())) == 1


def test_returns_come_from_close_though_the_graph_reads_none(program: Program, data: Path) -> None:
    arguments = ("--data", data, "--universe", "cap", "--benchmark", "S2")
    assert program("report", "-1 * volume", *arguments, "--out", "report.html") == 0
    page = Path("report.html").read_text("utf-8")
    assert "<dt>S2</dt>" in page and "cap, " in page and 'id="pnl-picture"' in page


def test_data_without_prices_have_no_pnl(program: Program, tmp_path: Path) -> None:
    panel = synthetic_panel(3, 10)
    (tmp_path / "bare").mkdir()
    write_frame(panel.frame(panel.fields["volume"]), tmp_path / "bare" / "volume.parquet")
    bare = ("--data", tmp_path / "bare", "--out", "report.html")
    assert program("report", "volume", *bare) == 0
    assert "There is no PnL" in Path("report.html").read_text("utf-8")
    assert program("report", "volume", *bare, "--benchmark", "S1") == 2
    assert program.errors.endswith("the data need a field returns or close\n")


@pytest.mark.parametrize(
    ("arguments", "told"),
    [
        (("close", "--out", "report.pdf"), "expected a name that ends in .html"),
        (("close", "--out", "absent/report.html"), "there is no folder absent"),
        (("clsoe", "--out", "r.html"), "the nearest is 'close'"),
        (("close", "--out", "r.html", "--benchmark", "s1"), "no symbol 's1'; the nearest is 'S1'"),
        (("close", "--out", "r.html", "--universe", "capp"), "unknown field 'capp'"),
    ],
)
def test_wrong_input_ends_in_a_line(
    program: Program, data: Path, arguments: tuple[str, ...], told: str
) -> None:
    assert program("report", *arguments, "--data", data) == 2
    assert told in program.errors and program.errors.startswith("quernbrook: ")
    assert not program.output and not list(Path().iterdir())


def test_a_report_that_is_there_stays_if_the_run_fails(program: Program, data: Path) -> None:
    Path("r.html").write_text("before")
    assert program(
        "report", "rotation('longitudinal_mean', close)", "--data", data, "--out", "r.html"
    )
    assert Path("r.html").read_text() == "before"
