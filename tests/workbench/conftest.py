"""Fixtures of the workbench's tests."""

from __future__ import annotations

import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest


@pytest.fixture
def small_disk(tmp_path: Path) -> Iterator[Path]:
    folder = tmp_path / "disk"
    folder.mkdir()
    options = ["-t", "tmpfs", "-o", "size=400k", "tmpfs", str(folder)]
    try:
        mounted = subprocess.run(["mount", *options], capture_output=True)
    except FileNotFoundError:
        pytest.skip("there is no program mount")
    if mounted.returncode:
        pytest.skip("only root may mount a small disk")
    try:
        yield folder
    finally:
        subprocess.run(["umount", "-l", str(folder)], check=True)
