"""`quernbrook why`: the tree of values behind one cell."""

from __future__ import annotations

from typing import Annotated

import typer
from quernbrook.workbench.command_line.graph_argument import GraphArgument
from quernbrook.workbench.command_line.inputs import DataOption, UniverseOption, load
from quernbrook.workbench.command_line.output import JsonOption, print_json

EXAMPLE = 'quernbrook why "rank(delta(close, 5))" --data prices --date 2022-03-01 --symbol S007'


def command(
    graph: GraphArgument,
    date: Annotated[str, typer.Option("--date", metavar="DATE", help="The cell's date.")],
    symbol: Annotated[str, typer.Option("--symbol", metavar="NAME", help="The cell's symbol.")],
    data: DataOption = None,
    universe: UniverseOption = None,
    json: JsonOption = False,
) -> None:
    """Tell why GRAPH has its value on a date for a symbol.

    Prints the tree of nodes with their values in that cell, marks where a NaN, an infinity or a
    jump came in, and the rows that functions along time hold. A jump is a change from the row
    before of more than 10 times the median change of the 60 rows before.
    """
    node, panel = load(graph, data, *(() if universe is None else (universe,)))

    from quernbrook.workbench.tracing import why
    from quernbrook.workbench.tracing.cause_text import document

    found = why(node, panel, date, symbol, universe=universe)
    if json:
        print_json(document(found))
    else:
        typer.echo(str(found))
