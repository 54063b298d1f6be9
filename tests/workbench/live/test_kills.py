"""A run that is killed at any instant goes on with the same bits."""

from __future__ import annotations

import json
import random
import signal
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, TypeAlias

import pytest
from quernbrook.workbench import parse_formula
from quernbrook.workbench.live import read_weights
from quernbrook.workbench.panels import Panel, synthetic_panel, write_panel

from .days import require_same_bits, whole_run, write_days

GRAPH = "rank(ts_rank(close, 5)) + correlation(close, volume, 6) * decay_linear(delta(close, 2), 9)"
Arguments: TypeAlias = list[Path | str]
PROGRAM: Arguments = [sys.executable, "-m", "quernbrook.workbench", "live", GRAPH]


class Case:
    """Days, their history, and what a run that is left alone makes of them."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        panel = synthetic_panel(5, 40, seed=8)
        past = panel.until(panel.dates[5])
        self.panel, self.live = panel, panel.after(panel.dates[5])
        self.days, self.history, self.reference = (folder / name for name in ("in", "past", "out"))
        write_days(self.live, self.days)
        write_panel(past, self.history)
        self.arguments: Arguments = ["--in", self.days, "--history", self.history]
        subprocess.run([*PROGRAM, *self.arguments, "--out", self.reference, "--once"], check=True)

    def kill(self, scratch: Path, mode: str, kills: int) -> Any:
        paths = (self.days, self.history, self.reference, scratch)
        script: Arguments = [sys.executable, Path(__file__).with_name("killing.py")]
        done = subprocess.run(
            [*script, GRAPH, *paths, mode, str(kills)], stdout=subprocess.PIPE, check=True
        )
        return json.loads(done.stdout)


@pytest.fixture(scope="module")
def case(tmp_path_factory: pytest.TempPathFactory) -> Case:
    return Case(tmp_path_factory.mktemp("kills"))


def test_a_run_left_alone_has_the_bits_of_a_whole_one(case: Case) -> None:
    panel: Panel = case.panel
    expected = whole_run(parse_formula(GRAPH, features=panel.fields), panel).loc[case.live.dates]
    require_same_bits(read_weights(case.reference), expected)


def test_kills_at_every_step_of_the_writing(case: Case, tmp_path: Path) -> None:
    # A tick has some thirty steps.
    found = case.kill(tmp_path, "steps", 70)
    assert found["kills"] > 60 and found["half_way"] > 20


def test_kills_at_random(case: Case, tmp_path: Path) -> None:
    assert case.kill(tmp_path, "any", 30)["kills"] == 30


@pytest.mark.stress
def test_a_thousand_kills(case: Case, tmp_path: Path) -> None:
    found = case.kill(tmp_path, "any", 1000)
    assert found["kills"] == 1000 and found["half_way"] > 20


def test_kills_of_the_program_itself(case: Case, tmp_path: Path) -> None:
    draw = random.Random(5)
    out = tmp_path / "out"
    for _ in range(2):
        process = subprocess.Popen(
            [*PROGRAM, *case.arguments, "--out", out], stdout=subprocess.PIPE
        )
        assert process.stdout is not None
        process.stdout.readline()
        time.sleep(draw.uniform(0.0, 0.03))
        process.kill()
        process.communicate()
        assert process.returncode == -signal.SIGKILL
    subprocess.run([*PROGRAM, *case.arguments, "--out", out, "--once"], check=True)
    assert sorted(path.name for path in out.iterdir()) == sorted(
        path.name for path in case.reference.iterdir()
    )
    for path in out.iterdir():
        assert path.read_bytes() == (case.reference / path.name).read_bytes()
