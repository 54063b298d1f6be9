"""Hosts that are checked strictly need no exceptions, and what the stub says is so."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

SOURCE = Path(__file__).with_name("typed_host.py")


def run(*arguments: str, folder: Path) -> subprocess.CompletedProcess[str]:
    # Far from this project, whose settings and sources mypy would take.
    return subprocess.run([sys.executable, *arguments], cwd=folder, capture_output=True, text=True)


def test_typed_code_passes_strict_checks(tmp_path: Path) -> None:
    assert "type: ignore" not in SOURCE.read_text()
    checked = run("-m", "mypy", "--strict", str(SOURCE), folder=tmp_path)
    assert checked.returncode == 0, checked.stdout


def test_typed_code_runs(tmp_path: Path) -> None:
    finished = run("-W", "error", str(SOURCE), folder=tmp_path)
    assert finished.returncode == 0, finished.stderr


def test_a_wrong_type_is_found(tmp_path: Path) -> None:
    """Otherwise the module's types would be Any, and nothing would have been checked."""
    text = SOURCE.read_text()
    for right, wrong in (
        ("assert_type(result[0], Matrix)", "assert_type(result[0], str)"),
        ("context._collect_states = True", 'context._collect_states = "yes"'),
        ('change._state_identity = "change"', "change._state_identity = 5"),
    ):
        assert right in text
        text = text.replace(right, wrong)
    wrong_file = tmp_path / "wrong_host.py"
    wrong_file.write_text(text)
    checked = run("-m", "mypy", "--strict", str(wrong_file), folder=tmp_path)
    assert checked.stdout.count(": error: ") == 3, checked.stdout
