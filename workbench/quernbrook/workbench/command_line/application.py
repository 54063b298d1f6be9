"""The program `quernbrook` and the list of its commands."""

from __future__ import annotations

from importlib import import_module

import typer
from quernbrook.workbench.command_line import commands
from quernbrook.workbench.command_line.failures import failures_told

# In the order of the help. Each is a module of `commands`.
COMMANDS = (
    "run",
    "explain",
    "why",
    "diff",
    "profile",
    "step",
    "report",
    "sweep",
    "live",
)

application = typer.Typer(
    name="quernbrook",
    add_completion=False,
    no_args_is_help=True,
    # Examples in the help can be copied, and a fault of this program shows Python's own traceback.
    rich_markup_mode=None,
    pretty_exceptions_enable=False,
)


@application.callback()
def _program() -> None:
    """Work with expression graphs: formulas as text, over daily data.

    'quernbrook COMMAND --help' tells the rest, with an example.

    Exit codes: 0 done, 1 the evaluation failed, 2 wrong input.
    """


def _add(name: str) -> None:
    module = import_module(f"{commands.__name__}.{name}")
    register = application.command(
        name,
        epilog=f"\b\nExample:\n  {module.EXAMPLE}",
        # A formula may start with a minus.
        context_settings={"ignore_unknown_options": True},
    )
    register(failures_told()(module.command))


for _name in COMMANDS:
    _add(_name)


def main() -> None:
    application(prog_name="quernbrook")
