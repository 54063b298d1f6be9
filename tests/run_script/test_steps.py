"""What ./run does again and what not, and what it does without."""

from __future__ import annotations

import json
import re
import sys
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

ROOT = Path(__file__).parents[2]


@pytest.fixture
def environment(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> ModuleType:
    monkeypatch.syspath_prepend(str(ROOT / "tools" / "run_script"))
    import environment

    monkeypatch.setattr(environment, "RECORD_FILE", tmp_path / "record.json")
    monkeypatch.setattr(environment, "PYTHON", Path(sys.executable))
    return environment


@pytest.fixture
def commands(environment: ModuleType) -> ModuleType:
    import commands

    return commands


def test_a_step_is_carried_out_once_for_the_same(environment: Any) -> None:
    done: list[str] = []
    for state in ("one", "one", "two", "two", "one"):
        record = environment.read_record()
        environment.carry_out(
            {"a": state, "b": "b"}, record, lambda state=state: done.append(state)
        )
    assert done == ["one", "two", "one"]


def test_a_step_that_fails_stays_due(environment: Any) -> None:
    def fail() -> None:
        raise environment.Failure("no network")

    for before in ({}, {"a": "one"}):
        record = dict(before)
        environment.carry_out({"other": "x"}, record, lambda: None)
        with pytest.raises(environment.Failure):
            environment.carry_out({"a": "two"}, record, fail)
        assert environment.read_record() == {"other": "x"}


def test_a_damaged_record_makes_all_due(environment: Any) -> None:
    environment.RECORD_FILE.write_text('{"a": ')
    assert environment.read_record() == {}


def test_sources_that_change_are_seen(environment: Any, tmp_path: Path) -> None:
    source = tmp_path / "folder" / "a.cpp"
    source.parent.mkdir()
    seen = set()
    for text in ("", "1", "2"):
        source.write_text(text)
        seen.add(environment.digest_of([tmp_path / "folder"]))
    source.rename(source.with_name("b.cpp"))
    seen.add(environment.digest_of([tmp_path / "folder"]))
    assert len(seen) == 4
    assert environment.digest_of([tmp_path / "folder"]) in seen


def test_every_distribution_is_installed_from_its_folder(environment: Any) -> None:
    named = {distribution.folder for distribution in environment.DISTRIBUTIONS}
    assert named == {ROOT, *(file.parent for file in ROOT.glob("*/pyproject.toml"))}


def test_without_doctest_a_note_tells_that_tests_are_skipped(
    commands: Any, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    asked: list[str] = []
    monkeypatch.setattr(commands, "DOCTEST_FOLDERS", ())
    monkeypatch.setattr(
        commands.system_packages, "install", lambda package, reason: asked.append(package)
    )
    assert commands.cpp_tests() == 0
    assert asked == ["doctest-dev"]
    note = capsys.readouterr().err
    assert note.startswith("run: the C++ tests are skipped: they need doctest")
    assert "apt-get install doctest-dev" in note


def test_without_a_browser_a_note_tells_that_tests_are_skipped(
    commands: Any, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    asked: list[str] = []
    monkeypatch.setenv("PATH", "")
    monkeypatch.setattr(
        commands.system_packages, "install", lambda packages, reason: asked.append(packages)
    )
    commands.get_browser()
    assert asked == ["chromium chromium-driver"]
    note = capsys.readouterr().err
    assert note.startswith("run: the tests in a browser are skipped: they need chromium")


def test_what_quick_leaves_out_is_listed() -> None:
    marked = {
        file.relative_to(ROOT).as_posix()
        for file in (ROOT / "tests").rglob("test_*.py")
        if "pytest.mark.slow" in file.read_text() and file != Path(__file__)
    }
    section = (ROOT / "CONTRIBUTING.md").read_text().split("--quick` leaves out", 1)[1]
    listed = section.split("\n\n", 2)[1]
    assert set(re.findall(r"`(tests/\S+?\.py)`", listed)) == marked != set()


def test_clangd_finds_how_every_file_is_compiled(
    environment: Any, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(environment.compile_commands, "FILE", tmp_path / "compile_commands.json")
    for name in ("one", "two"):
        (tmp_path / name).mkdir()
        entries = [{"directory": name, "file": f"{name}{number}.cpp"} for number in range(2)]
        (tmp_path / name / "compile_commands.json").write_text(json.dumps(entries))
    environment.compile_commands.join([tmp_path / "one", tmp_path / "missing", tmp_path / "two"])
    joined = json.loads((tmp_path / "compile_commands.json").read_text())
    assert [one["file"] for one in joined] == ["one0.cpp", "one1.cpp", "two0.cpp", "two1.cpp"]


def test_every_cpp_project_tells_how_its_files_are_compiled(environment: Any) -> None:
    projects = [one.folder for one in environment.DISTRIBUTIONS if one.sources]
    for folder in (*projects, *environment.CPP_TESTS):
        assert "set(CMAKE_EXPORT_COMPILE_COMMANDS ON)" in (folder / "CMakeLists.txt").read_text()
