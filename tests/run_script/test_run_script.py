"""What ./run says and does before it installs anything."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
COMMANDS = ("demo", "alphas", "test", "bench", "docs", "check", "release")
VARIABLES = ("PYTHON", "CXX", "PYENV_ROOT", "VIRTUAL_ENV")


@pytest.fixture
def project(tmp_path: Path) -> Path:
    """A copy of the script alone, in a folder with a space: .venv here is the copy's own."""
    project = tmp_path / "a project"
    project.mkdir()
    shutil.copy2(ROOT / "run", project)
    shutil.copytree(ROOT / "requirements", project / "requirements")
    shutil.copytree(ROOT / "tools" / "run_script", project / "tools" / "run_script")
    for file in ROOT.glob("*/pyproject.toml"):
        (project / file.parent.name).mkdir()
        shutil.copy2(file, project / file.parent.name)
    return project


@pytest.fixture
def programs(tmp_path: Path) -> Path:
    """A folder to serve as the whole PATH."""
    folder = tmp_path / "programs"
    folder.mkdir()
    return folder


def run(project: Path, *arguments: str, **variables: str) -> subprocess.CompletedProcess[str]:
    inherited = {name: value for name, value in os.environ.items() if name not in VARIABLES}
    return subprocess.run(
        [project / "run", *arguments],
        cwd=project.parent,
        env={**inherited, **variables},
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
    )


def write_program(path: Path, text: str) -> Path:
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)
    return path


def assert_fails_with_one_sentence(finished: subprocess.CompletedProcess[str]) -> None:
    assert finished.returncode != 0
    assert finished.stdout == ""
    assert finished.stderr.startswith("run: ")
    assert finished.stderr.count("\n") == 1
    assert finished.stderr.endswith(".\n")


@pytest.mark.parametrize("arguments", [(), ("help",), ("-h",), ("--help",)])
def test_help_names_every_command(project: Path, arguments: tuple[str, ...]) -> None:
    finished = run(project, *arguments)
    assert finished.returncode == 0
    assert finished.stderr == ""
    for command in COMMANDS:
        assert f"\n  {command} " in finished.stdout


def test_help_needs_no_interpreter(project: Path, programs: Path) -> None:
    write_program(programs / "cat", 'exec /bin/cat "$@"')
    finished = run(project, "--help", PATH=str(programs), PYTHON="/nonexistent/python")
    assert finished.returncode == 0
    assert finished.stdout.startswith("Usage: ./run COMMAND")


def test_unknown_command_is_refused(project: Path) -> None:
    finished = run(project, "tset")
    assert_fails_with_one_sentence(finished)
    assert finished.returncode == 2
    assert "unknown command 'tset'" in finished.stderr


@pytest.mark.parametrize("command", COMMANDS)
def test_missing_chosen_interpreter_is_no_reason_to_take_another(
    project: Path, command: str
) -> None:
    finished = run(project, command, PYTHON="/nonexistent/python")
    assert_fails_with_one_sentence(finished)
    assert "PYTHON=/nonexistent/python cannot be used (there is no such program)" in finished.stderr
    assert not (project / ".venv").exists()


def test_chosen_interpreter_that_does_not_start(project: Path, programs: Path) -> None:
    shim = write_program(programs / "python3.10", "echo 'no such version' >&2; exit 127")
    finished = run(project, "test", PYTHON=str(shim))
    assert_fails_with_one_sentence(finished)
    assert f"PYTHON={shim} cannot be used (no such version)" in finished.stderr


@pytest.mark.parametrize(
    ("change", "reason"),
    [
        ("sys.version_info = (3, 9, 18)", "it is CPython"),
        ("sys.version_info = (3, 14, 0)", "it is CPython"),
        ("platform.python_implementation = lambda: 'PyPy'", "it is PyPy"),
        ("sys.modules['ensurepip'] = None", "ensurepip"),
        ("sysconfig.get_path = lambda name: '/nonexistent'", "no /nonexistent/Python.h"),
    ],
)
def test_chosen_interpreter_of_the_wrong_kind(
    project: Path, programs: Path, change: str, reason: str
) -> None:
    # Runs the script it is given, as an interpreter would that differs in this one point.
    code = f"import platform, runpy, sys, sysconfig; {change}; runpy.run_path(sys.argv[1])"
    python = write_program(programs / "python", f'exec "{sys.executable}" -c "{code}" "$1"')
    finished = run(project, "test", PYTHON=str(python))
    assert_fails_with_one_sentence(finished)
    assert reason in finished.stderr


def test_no_interpreter(project: Path, programs: Path) -> None:
    write_program(programs / "python3.10", "exit 127")
    finished = run(project, "test", PATH=str(programs), HOME=str(programs))
    assert_fails_with_one_sentence(finished)
    assert "no CPython 3.10 to 3.13" in finished.stderr
    assert "pyenv install 3.10" in finished.stderr


def test_interpreter_that_fails_is_passed_over(project: Path, programs: Path) -> None:
    write_program(programs / "python3.10", "exit 127")
    version = f"{sys.version_info.major}.{sys.version_info.minor}"
    pyenv = programs / "pyenv" / "versions" / f"{version}.1" / "bin"
    pyenv.mkdir(parents=True)
    write_program(pyenv / f"python{version}", f'exec "{sys.executable}" "$@"')
    finished = run(
        project,
        "test",
        PATH=str(programs),
        HOME=str(programs),
        PYENV_ROOT=str(programs / "pyenv"),
        CXX="/nonexistent/c++",
    )
    assert_fails_with_one_sentence(finished)
    assert "CXX=/nonexistent/c++" in finished.stderr


@pytest.mark.parametrize("compiler", ["/nonexistent/c++", "/bin/false", "/bin/true"])
def test_chosen_compiler_that_does_not_compile(project: Path, compiler: str) -> None:
    finished = run(project, "test", PYTHON=sys.executable, CXX=compiler)
    assert_fails_with_one_sentence(finished)
    assert f"CXX={compiler} does not compile C++20" in finished.stderr
    assert not (project / ".venv").exists()


def test_no_compiler(project: Path, programs: Path) -> None:
    finished = run(project, "test", PYTHON=sys.executable, PATH=str(programs))
    assert_fails_with_one_sentence(finished)
    assert "no C++20 compiler was found" in finished.stderr
    assert not (project / ".venv").exists()


@pytest.mark.skipif(os.geteuid() != 0, reason="only root installs packages of the system")
def test_root_installs_the_compiler(project: Path, programs: Path) -> None:
    calls = programs / "calls"
    write_program(programs / "sh", 'exec /bin/sh "$@"')
    write_program(programs / "apt-get", f'echo "$@" >> "{calls}"')
    finished = run(project, "test", PYTHON=sys.executable, PATH=str(programs))
    assert calls.read_text() == "update\ninstall -y g++\n"
    announcement, sentence = finished.stderr.splitlines()
    assert announcement == "run: no C++20 compiler found; installing g++ with apt-get"
    assert sentence.startswith("run: no C++20 compiler was found")
    assert finished.returncode != 0


def test_check_refuses_unknown_arguments(project: Path) -> None:
    finished = run(project, "check", "--fix", PYTHON=sys.executable)
    assert_fails_with_one_sentence(finished)
    assert "check takes --sanitize and --long; got" in finished.stderr


def test_works_from_its_own_folder_by_name(project: Path) -> None:
    finished = subprocess.run(["sh", "run", "--help"], cwd=project, capture_output=True, text=True)
    assert finished.returncode == 0
    assert finished.stdout.startswith("Usage: ./run COMMAND")


@pytest.mark.parametrize("arguments", [["--compare"], ["--compare", "no-such-revision"]])
def test_a_comparison_needs_a_revision(project: Path, arguments: list[str]) -> None:
    finished = run(project, "bench", *arguments)
    assert_fails_with_one_sentence(finished)
    assert "--compare" in finished.stderr
    assert not (project / ".venv").exists()
