"""`quernbrook explain`: what a run of a graph over data would do, before it runs."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer
from quernbrook.workbench.command_line.failures import EVALUATION_FAILED, InputError
from quernbrook.workbench.command_line.graph_argument import GraphArgument
from quernbrook.workbench.command_line.inputs import DataOption, UniverseOption, load_as_written
from quernbrook.workbench.command_line.output import JsonOption, console, print_json

EXAMPLE = 'quernbrook explain "rank(delta(close, 5))" --data prices --svg graph.svg'

_SvgOption = Annotated[
    Path | None,
    typer.Option(
        "--svg", metavar="FILE", show_default=False, help="Write a drawing of the graph, too."
    ),
]
_RowOption = Annotated[
    str | None,
    typer.Option(
        "--row",
        metavar="DATE",
        show_default=False,
        help="Evaluate the graph up to this date, and put what each node gives on that day on the "
        "drawing's edges. Needs --svg.",
    ),
]


def command(
    graph: GraphArgument,
    data: DataOption = None,
    universe: UniverseOption = None,
    json: JsonOption = False,
    svg: _SvgOption = None,
    row: _RowOption = None,
) -> None:
    """Tell what a run of GRAPH over data would do, before it runs.

    Prints the road that it takes and what closes the fast ones, the nodes that go in strips of rows
    and why others don't, the warm-up, the configuration of the functions, and all faults. Ends with
    exit code 1 if there are any.
    """
    if row is not None and svg is None:
        raise InputError("--row puts values on a drawing: name its file with --svg FILE")
    others = () if universe is None else (universe,)
    node, panel = load_as_written(graph, data, *others)

    from quernbrook.workbench.explanation import explain

    explanation = explain(node, panel, universe=universe)
    if json:
        print_json(explanation.to_json())
    else:
        console().print(explanation.table())
    if svg is not None:
        _write(svg, explanation.svg(None if explanation.faults else row))
    if explanation.faults:
        count = len(explanation.faults)
        typer.echo(f"quernbrook: {count} fault{'s' if count > 1 else ''} found", err=True)
        raise typer.Exit(EVALUATION_FAILED)


def _write(path: Path, drawing: str) -> None:
    try:
        path.write_text(drawing, "utf-8")
    except OSError as error:
        raise InputError(f"--svg {path} can't be written: {error.strerror}") from None
