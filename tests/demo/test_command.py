"""The demonstration as a command."""

from __future__ import annotations

import re
import struct
import subprocess
from collections.abc import Callable
from pathlib import Path

import pytest

RunDemo = Callable[..., "subprocess.CompletedProcess[str]"]


def png_size(path: Path) -> tuple[int, int]:
    content = path.read_bytes()
    assert content[:8] == b"\x89PNG\r\n\x1a\n"
    return struct.unpack(">II", content[16:24])


def test_help_names_every_option(run_demo: RunDemo) -> None:
    ended = run_demo("--help")
    assert ended.returncode == 0
    for option in ("--prices", "--output", "--live"):
        assert option in ended.stdout


def test_a_run_reports_and_draws(run_demo: RunDemo, small_file: Path, tmp_path: Path) -> None:
    output = tmp_path / "new" / "picture.png"
    ended = run_demo("--prices", small_file, "--output", output)
    assert (ended.returncode, ended.stderr) == (0, "")
    assert "T 650, N_alloc 6: " in ended.stdout
    assert re.search("── longitudinal_mean +rotation +root.c0 +state 4\n", ended.stdout)
    assert "earn the return of the next day" in ended.stdout
    assert png_size(output) == (1400, 900)


def test_a_live_run_gives_the_very_weights_of_the_whole(
    run_demo: RunDemo, small_file: Path, tmp_path: Path
) -> None:
    output = tmp_path / "picture.png"
    ended = run_demo("--prices", small_file, "--output", output, "--live", "1992-05-02")
    assert (ended.returncode, ended.stderr) == (0, "")
    assert " to 1992-05-01, saved 16 states in " in ended.stdout
    assert "whole run: 0.0; NaN in the same places." in ended.stdout
    assert output.with_suffix(".checkpoint").is_file()


@pytest.mark.parametrize("day", ["1990-06-01", "2001-01-01"])
def test_a_day_without_full_windows_or_without_a_next_one_is_refused(
    run_demo: RunDemo, small_file: Path, tmp_path: Path, day: str
) -> None:
    ended = run_demo("--prices", small_file, "--output", tmp_path / "p.png", "--live", day)
    assert ended.returncode == 2
    assert ended.stderr == (
        f"demo: --live {day}: name a day from 1991-01-09, when the windows are full and the "
        "signals chosen, to 1992-07-24, which leaves one day to go on with.\n"
    )


def test_a_bad_price_ends_in_one_sentence(run_demo: RunDemo, tmp_path: Path) -> None:
    file = tmp_path / "prices.csv"
    file.write_text("Date,AA,BB\n2020-01-02,1,free\n", encoding="utf-8")
    ended = run_demo("--prices", file)
    assert ended.returncode == 2
    assert ended.stderr == f"demo: {file}, line 2: the price 'free' of BB is no number.\n"


def test_too_few_days_are_told(run_demo: RunDemo, small_file: Path, tmp_path: Path) -> None:
    file = tmp_path / "short.csv"
    lines = small_file.read_text(encoding="utf-8").splitlines(keepends=True)
    file.write_text("".join(lines[:201]), encoding="utf-8")
    ended = run_demo("--prices", file, "--output", tmp_path / "picture.png")
    assert ended.returncode == 2
    assert ended.stderr == (
        f"demo: {file} has 200 days, too few to fill every window and choose signals: some 600 "
        "will do.\n"
    )


def test_an_output_that_cannot_be_written_is_told(
    run_demo: RunDemo, small_file: Path, tmp_path: Path
) -> None:
    for output, reason in (
        (tmp_path, "it is a folder"),
        (small_file / "picture.png", f"{small_file} is no folder"),
    ):
        ended = run_demo("--prices", small_file, "--output", output)
        assert ended.returncode == 2
        assert ended.stderr == f"demo: {output} can't be written: {reason}.\n"
