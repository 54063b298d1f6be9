"""The program's help, and that it is there at once."""

from __future__ import annotations

import shlex
import subprocess
import sys
from importlib import import_module

import pytest
from quernbrook.workbench.command_line import commands
from quernbrook.workbench.command_line.application import COMMANDS

from .conftest import Program

HEAVY = ("numpy", "pandas", "matplotlib", "lark", "quernbrook.simulator_engine")


def test_the_help_lists_the_commands_and_exit_codes(program: Program) -> None:
    assert program("--help") == 0
    assert "Exit codes: 0 done, 1 the evaluation failed, 2 wrong input." in program.output
    assert [
        line.split()[0]
        for line in program.output.partition("Commands:")[2].splitlines()
        if line[2:3].isalpha()
    ] == list(COMMANDS)


@pytest.mark.parametrize("name", COMMANDS)
def test_help_of_commands_ends_with_an_example(name: str, program: Program) -> None:
    example = import_module(f"{commands.__name__}.{name}").EXAMPLE
    assert shlex.split(example)[:2] == ["quernbrook", name]
    assert program(name, "--help") == 0
    assert program.output.rstrip().endswith(f"Example:\n    {example}")


@pytest.mark.parametrize("name", COMMANDS)
def test_options_have_no_short_form(name: str, program: Program) -> None:
    program(name, "--help")
    starts = [
        line.split()[0] for line in program.output.splitlines() if line.lstrip().startswith("-")
    ]
    assert starts and all(start.startswith("--") for start in starts)


def test_help_imports_nothing_heavy() -> None:
    code = (
        "import sys\n"
        "from quernbrook.workbench.command_line.application import application\n"
        "application(['run', '--help'], standalone_mode=False)\n"
        f"print([name for name in {HEAVY} if name in sys.modules], file=sys.stderr)"
    )
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)
    assert done.stderr == "[]\n"


@pytest.mark.parametrize("arguments", [["nope"], ["run"], ["run", "close", "--out"]])
def test_wrong_usage_has_code_2(arguments: list[str], program: Program) -> None:
    assert program(*arguments) == 2
    assert "Error: " in program.errors and not program.output
