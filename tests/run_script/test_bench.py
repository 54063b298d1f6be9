"""What ./run bench hands to pytest, and what it does with the results."""

from __future__ import annotations

from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

ROOT = Path(__file__).parents[2]


class Calls:
    """The programs that a command would run, of which some fail."""

    def __init__(self, *failing: str) -> None:
        self.made: list[tuple[str, ...]] = []
        self.failing = failing

    def __call__(self, *arguments: str, **variables: str) -> int:
        self.made.append((*arguments, *(f"{name}={value}" for name, value in variables.items())))
        return int(arguments[1] in self.failing)


@pytest.fixture
def commands(monkeypatch: pytest.MonkeyPatch, tmp_path: Path) -> ModuleType:
    monkeypatch.syspath_prepend(str(ROOT / "tools" / "run_script"))
    import commands

    monkeypatch.setattr(commands, "prepare", lambda groups: None)
    monkeypatch.setattr(commands, "commit_of", lambda revision: f"commit of {revision}")
    monkeypatch.setattr(commands, "build_revision", lambda commit: Path(f"{commit}.so"))
    monkeypatch.setattr(commands, "RESULTS", tmp_path / "build" / "results.json")
    return commands


def run(commands: Any, calls: Calls, monkeypatch: pytest.MonkeyPatch, *arguments: str) -> int:
    monkeypatch.setattr(commands, "python", calls)
    return commands.bench(arguments)


def test_without_options_all_goes_to_pytest(commands: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    calls = Calls()
    assert run(commands, calls, monkeypatch, "-k", "bench_rank and 500", "--slow", "-x") == 0
    assert calls.made == [("-m", "pytest", "bench", "-k", "bench_rank and 500", "--slow", "-x")]


def test_a_comparison_names_the_other_module(
    commands: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    calls = Calls("pytest")
    assert run(commands, calls, monkeypatch, "-k", "rank", "--compare", "HEAD~1") == 1
    assert calls.made == [
        (
            *("-m", "pytest", "bench", "-k", "rank"),
            "OTHER_MODULE_FILE=commit of HEAD~1.so",
            "OTHER_MODULE_NAME=revision HEAD~1",
        )
    ]


@pytest.mark.parametrize(
    ("options", "scripts"),
    [
        (["--page"], ["bench.report"]),
        (["--keep"], ["bench.releases"]),
        (["--keep", "--page"], ["bench.report", "bench.releases"]),
    ],
)
def test_results_go_where_they_are_wanted(
    commands: Any, monkeypatch: pytest.MonkeyPatch, options: list[str], scripts: list[str]
) -> None:
    calls = Calls()
    assert run(commands, calls, monkeypatch, *options, "-k", "rank") == 0
    results = str(commands.RESULTS)
    assert calls.made == [
        ("-m", "pytest", "bench", "-k", "rank", f"--benchmark-json={results}"),
        *(("-m", script, results) for script in scripts),
    ]
    for script in scripts:
        assert (ROOT / script.replace(".", "/")).with_suffix(".py").is_file()


def test_results_of_a_run_that_failed_go_nowhere(
    commands: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    calls = Calls("pytest")
    with pytest.raises(commands.Failure, match="stay as they are"):
        run(commands, calls, monkeypatch, "--page", "--keep")
    assert len(calls.made) == 1


def test_a_script_that_fails_fails_the_command(
    commands: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    assert run(commands, Calls("bench.report"), monkeypatch, "--page", "--keep") == 1


@pytest.mark.parametrize(
    ("arguments", "reason"),
    [
        (["--compare"], "--compare: expected one argument"),
        (["--compare", "--slow"], "--compare: expected one argument"),
        (["--compare", "HEAD", "--keep"], "are for runs of one"),
        (["--page", "--compare", "HEAD"], "are for runs of one"),
    ],
)
def test_options_that_make_no_sense_are_refused(
    commands: Any, monkeypatch: pytest.MonkeyPatch, arguments: list[str], reason: str
) -> None:
    calls = Calls()
    with pytest.raises(commands.Failure, match=reason):
        run(commands, calls, monkeypatch, *arguments)
    assert calls.made == []
