"""Hooks, editors and workflows are set up apart from ./run; here they say what it says."""

from __future__ import annotations

import re
import sys
from configparser import ConfigParser
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest
import yaml

if sys.version_info >= (3, 11):
    import tomllib
else:
    import tomli as tomllib

ROOT = Path(__file__).parents[2]
WORKFLOWS = {
    file.stem: yaml.safe_load(file.read_text()) for file in ROOT.glob(".github/workflows/*.yml")
}


@pytest.fixture
def commands(monkeypatch: pytest.MonkeyPatch) -> ModuleType:
    monkeypatch.syspath_prepend(str(ROOT / "tools" / "run_script"))
    import commands

    return commands


def hooks() -> list[dict[str, Any]]:
    config = yaml.safe_load((ROOT / ".pre-commit-config.yaml").read_text())
    return [hook for repo in config["repos"] for hook in repo["hooks"]]


@pytest.mark.parametrize("hook", hooks(), ids=lambda hook: hook["id"])
def test_hooks_have_the_versions_of_the_checks(hook: dict[str, Any]) -> None:
    required = (ROOT / "requirements" / "check.txt").read_text().splitlines()
    (requirement,) = hook["additional_dependencies"]
    assert requirement in required


def test_the_hook_formats_what_the_check_formats(commands: ModuleType) -> None:
    (hook,) = (hook for hook in hooks() if hook["id"] == "clang-format")
    found = {str(ROOT / file) for file in cpp_files_by_hand() if re.search(hook["files"], file)}
    assert found == set(commands.cpp_files()) != set()


def cpp_files_by_hand() -> list[str]:
    """All but what was built."""
    sources = (
        file.relative_to(ROOT)
        for folder in ("simulator_engine", "row_kernels", "tests", "bench", "demo", "tools")
        for file in (ROOT / folder).rglob("*.[ch]pp")
    )
    return [file.as_posix() for file in sources]


def test_editors_wrap_lines_where_formatters_do() -> None:
    editors = ConfigParser()
    editors.read_string("[top]\n" + (ROOT / ".editorconfig").read_text())
    width = tomllib.loads((ROOT / "pyproject.toml").read_text())["tool"]["ruff"]["line-length"]
    for files in ("*.{py,pyi}", "*.{c,cpp,h,hpp}"):
        assert editors[files]["max_line_length"] == str(width)
    assert f"ColumnLimit: {width}\n" in (ROOT / ".clang-format").read_text()


def steps() -> list[dict[str, Any]]:
    jobs = [job for workflow in WORKFLOWS.values() for job in workflow["jobs"].values()]
    return [step for job in jobs for step in job.get("steps", [])]


def test_workflows_call_commands_that_there_are(commands: ModuleType) -> None:
    called = [
        words[1] for step in steps() if (words := step.get("run", "").split())[:1] == ["./run"]
    ]
    called.remove("$COMMAND")
    matrix = WORKFLOWS["checks"]["jobs"]["checks"]["strategy"]["matrix"]["include"]
    called += [entry["command"].split()[0] for entry in matrix]
    assert set(called) <= set(commands.COMMANDS)
    assert {"check", "test"} <= set(called)


def test_workflows_test_every_interpreter() -> None:
    source = (ROOT / "tools" / "nox_sessions" / "builds.py").read_text()
    interpreters = re.search(r"^INTERPRETERS = \[(.*)\]$", source, re.MULTILINE)
    assert interpreters is not None
    matrix = WORKFLOWS["tests"]["jobs"]["interpreters"]["strategy"]["matrix"]
    assert matrix["python"] == re.findall(r'"([\d.]+)"', interpreters.group(1))


def test_a_release_publishes_every_distribution() -> None:
    files = [ROOT / "pyproject.toml", *ROOT.glob("*/pyproject.toml")]
    projects = {tomllib.loads(file.read_text())["project"]["name"] for file in files}
    matrix = WORKFLOWS["release"]["jobs"]["publish"]["strategy"]["matrix"]
    assert {f"quernbrook-{name}" for name in matrix["distribution"]} == projects
    sources = WORKFLOWS["wheels"]["jobs"]["sources"]["strategy"]["matrix"]["distribution"]
    assert {f"quernbrook-{one['name']}" for one in sources} == projects
    for one in sources:
        text = (ROOT / one["folder"] / "pyproject.toml").read_text()
        assert f'name = "quernbrook-{one["name"]}"' in text
    compiled = WORKFLOWS["wheels"]["jobs"]["compiled"]["strategy"]["matrix"]["distribution"]
    assert [one for one in sources if "--wheel" not in one["options"]] == [
        {**one, "options": "--sdist"} for one in compiled
    ]


def test_no_name_of_an_artifact_begins_with_another() -> None:
    """A release takes those of a distribution by the beginning of their names."""
    names = WORKFLOWS["release"]["jobs"]["publish"]["strategy"]["matrix"]["distribution"]
    for name in names:
        assert [other for other in [*names, "notes"] if other.startswith(name)] == [name]
