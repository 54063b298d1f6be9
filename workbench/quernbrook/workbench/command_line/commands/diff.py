"""`quernbrook diff`: where two runs part."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer
from quernbrook.workbench.command_line.output import JsonOption, print_facts, print_json

if TYPE_CHECKING:
    from quernbrook.workbench.tracing import Comparison, Difference, Run

EXAMPLE = "quernbrook diff monday.run tuesday.run"

RUNS_PART = 1
_HELP = "A file of 'quernbrook run --save-run', or a folder of weights."


def command(
    left: Annotated[Path, typer.Argument(metavar="A", show_default=False, help=_HELP)],
    right: Annotated[Path, typer.Argument(metavar="B", show_default=False, help=_HELP)],
    json: JsonOption = False,
) -> None:
    """Find the first row, node and column at which two runs part, bit for bit.

    The exit code is 0 if they are the same and 1 if not.
    """
    from quernbrook.workbench.tracing import diff

    comparison = diff(_read(left), _read(right))
    if json:
        print_json(_document(comparison))
    else:
        print_facts(_facts(comparison, left, right))
    if not comparison.is_same:
        raise typer.Exit(RUNS_PART)


def _read(path: Path) -> Run:
    from quernbrook.workbench.tracing import load_run, load_weights

    return load_weights(path) if path.is_dir() else load_run(path)


def _facts(comparison: Comparison, left: Path, right: Path) -> dict[str, str]:
    facts = {
        "compared": f"{comparison.rows:,} rows, {comparison.columns:,} columns, "
        f"{comparison.outputs:,} outputs"
    }
    for path, only in ((left, comparison.only_left), (right, comparison.only_right)):
        for what, labels in only.items():
            facts[f"only in {path}, {what}"] = f"{len(labels):,}, first {labels[0]}"
    if comparison.first is None:
        return {**facts, "differences": "none"}
    cells = sum(comparison.differing.values())
    facts["differences"] = f"{cells:,} cells of {len(comparison.differing):,} outputs"
    facts["first"] = str(comparison.first)
    if comparison.first_value != comparison.first:
        value = comparison.first_value
        facts["first value"] = "none: only bits of zeros and NaNs" if value is None else str(value)
    return facts


def _document(comparison: Comparison) -> dict[str, Any]:
    return {
        "is_same": comparison.is_same,
        "first": _cell(comparison.first),
        "first_value": _cell(comparison.first_value),
        "differing": comparison.differing,
        "rows": comparison.rows,
        "columns": comparison.columns,
        "outputs": comparison.outputs,
        "only_left": comparison.only_left,
        "only_right": comparison.only_right,
    }


def _cell(found: Difference | None) -> dict[str, Any] | None:
    if found is None:
        return None
    return {
        "row": found.row,
        "column": found.column,
        "output": found.output,
        "name": found.name,
        "kind": found.kind,
        # As texts, for JSON has no NaN and programs read numbers with fewer digits.
        "left": str(found.left),
        "right": str(found.right),
    }
