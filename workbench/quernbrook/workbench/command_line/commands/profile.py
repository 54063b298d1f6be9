"""`quernbrook profile`: where the time of a run goes."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer
from quernbrook.workbench.command_line import frame_file
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.graph_argument import GraphArgument
from quernbrook.workbench.command_line.inputs import DataOption, UniverseOption, load
from quernbrook.workbench.command_line.output import JsonOption, print_json

EXAMPLE = 'quernbrook profile "rank(delta(close, 5))" --data prices --svg profile.svg'


def command(
    graph: GraphArgument,
    data: DataOption = None,
    universe: UniverseOption = None,
    svg: Annotated[
        Path | None,
        typer.Option(
            "--svg", metavar="FILE", show_default=False, help="Draw the flame view to this file."
        ),
    ] = None,
    json: JsonOption = False,
) -> None:
    """Evaluate GRAPH and tell what each of its functions and the evaluator itself cost.

    Prints calls, rows, time and share of each function, and what a row kernel would save.
    """
    if svg is not None:
        frame_file.require_place("--svg", svg)
    node, panel = load(graph, data, *(() if universe is None else (universe,)))

    from quernbrook.workbench.tracing import profile
    from quernbrook.workbench.tracing.profile_text import document

    found = profile(node, panel, universe=universe)
    if svg is not None:
        try:
            found.write_svg(svg)
        except OSError as error:
            raise InputError(f"--svg {svg} can't be written: {error.strerror or error}") from None
    if json:
        print_json(document(found))
    else:
        typer.echo(str(found))
