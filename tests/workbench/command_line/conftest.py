"""A folder of data, and the program without a process of its own."""

from __future__ import annotations

from pathlib import Path

import pytest
from quernbrook.workbench.command_line.application import application
from quernbrook.workbench.panels import synthetic_panel, write_panel
from typer.testing import CliRunner


class Program:
    """What the last call printed, and its exit code."""

    def __init__(self) -> None:
        self._runner = CliRunner()
        self.output = self.errors = ""

    def __call__(self, *arguments: str | Path) -> int:
        result = self._runner.invoke(application, [str(argument) for argument in arguments])
        self.output, self.errors = result.stdout, result.stderr
        if result.exception is not None and not isinstance(result.exception, SystemExit):
            raise result.exception
        return result.exit_code


@pytest.fixture
def program() -> Program:
    return Program()


@pytest.fixture(scope="session")
def data(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("prices")
    write_panel(synthetic_panel(6, 30), folder)
    return folder


@pytest.fixture(autouse=True)
def _in_a_folder_of_its_own(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)
