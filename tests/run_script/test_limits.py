"""Tests are limited by the processor's time, which a busy machine takes from nobody."""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

TESTS = Path(__file__).parents[1]
CODE = """
import time
import pytest


@pytest.mark.processor_time(0.2)
def test_that_waits():
    time.sleep(0.6)


@pytest.mark.processor_time(0.2)
def test_that_works():
    end = time.process_time() + 5.0
    while time.process_time() < end:
        pass


def test_after_it():
    end = time.process_time() + 0.6
    while time.process_time() < end:
        pass
"""


def test_waiting_counts_for_nothing(tmp_path: Path) -> None:
    shutil.copy(TESTS / "conftest.py", tmp_path)
    (tmp_path / "test_code.py").write_text(CODE)
    command = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", "--tb=line"]
    finished = subprocess.run(
        [*command, "--override-ini=markers=processor_time(seconds): a limit"],
        cwd=tmp_path,
        capture_output=True,
        text=True,
    )
    assert "FAILED test_code.py::test_that_works" in finished.stdout
    assert "it took more than 0.2 s of the processor's time" in finished.stdout
    assert "1 failed, 2 passed" in finished.stdout
