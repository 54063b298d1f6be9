"""The page for newcomers shows a change that can still be made, and tests that are there."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).parents[2]
PAGE = (ROOT / "docs" / "first_change.md").read_text("utf-8")


def test_the_change_still_applies() -> None:
    blocks = re.findall(r"^```diff\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)
    assert {name for block in blocks for name in re.findall(r"^\+\+\+ b/(\S+)$", block, re.M)} >= {
        "row_kernels/kernels/cells/arithmetic.cpp",
        "tests/row_kernels/test_known_values.py",
    }
    finished = subprocess.run(
        ["git", "apply", "--check", "--verbose"],
        cwd=ROOT,
        env={**os.environ, "GIT_CEILING_DIRECTORIES": str(ROOT.parent)},
        input="".join(blocks),
        capture_output=True,
        text=True,
    )
    assert finished.returncode == 0, finished.stderr


def test_the_tests_that_are_run_are_there() -> None:
    commands = re.findall(r"^\$ \./run test (.*)$", PAGE, re.MULTILINE)
    files = {word for command in commands for word in command.split() if word.startswith("tests/")}
    assert files
    assert [file for file in files if not (ROOT / file).exists()] == []
