"""What commands print: what was asked for goes to the standard output, the rest to the error."""

from __future__ import annotations

import json
import math
from collections.abc import Mapping
from typing import Annotated, Any

import typer
from rich.console import Console
from rich.table import Table

JsonOption = Annotated[
    bool, typer.Option("--json", help="Print one JSON document, for other programs.")
]

# Where there is no terminal, lines are as long as they are.
_UNLIMITED = 1000


def console() -> Console:
    """The standard output. Colours and the width of a terminal only where there is one."""
    made = Console(highlight=False, markup=False)
    if not made.is_terminal:
        made.width = _UNLIMITED
    return made


def print_facts(facts: Mapping[str, str]) -> None:
    """Print a line for each name and its value."""
    table = Table.grid(padding=(0, 2))
    table.add_column(style="bold")
    table.add_column(overflow="fold")
    for name, value in facts.items():
        table.add_row(name, value)
    console().print(table)


def print_json(document: Any) -> None:
    """Print a document of plain data; numbers that JSON doesn't have become null."""
    typer.echo(json.dumps(_finite(document), indent=2, ensure_ascii=False, allow_nan=False))


def _finite(value: Any) -> Any:
    if isinstance(value, float):
        return value if math.isfinite(value) else None
    if isinstance(value, Mapping):
        return {name: _finite(one) for name, one in value.items()}
    if isinstance(value, list | tuple):
        return [_finite(one) for one in value]
    return value
