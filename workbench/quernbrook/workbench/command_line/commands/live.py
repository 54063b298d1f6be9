"""`quernbrook live`: weights row by row, as rows come."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.graph_argument import GraphArgument, graph_reader
from quernbrook.workbench.command_line.inputs import (
    UniverseOption,
    fields_of,
    known_fields,
    load_panel,
    require_fields,
    require_no_signals,
)

if TYPE_CHECKING:
    from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
    from quernbrook.workbench.live import LiveRun, OutputFolder

EXAMPLE = 'quernbrook live "rank(delta(close, 5))" --in days --out live --history prices'

_STANDARD_INPUT = 0

_InOption = Annotated[
    str,
    typer.Option(
        "--in",
        metavar="FOLDER",
        show_default=False,
        help="A folder of files named after their days, 2024-01-31.parquet or 2024-01-31.csv: a "
        "row for each symbol, with the columns symbol and one for each field. Or -, for lines of "
        "JSON on the standard input.",
    ),
]
_OutOption = Annotated[
    Path,
    typer.Option(
        "--out",
        metavar="FOLDER",
        show_default=False,
        help="The folder for weights-2024-01-31.parquet and so on, and for the checkpoint that the "
        "run goes on from. It is made if it isn't there.",
    ),
]
_HistoryOption = Annotated[
    Path | None,
    typer.Option(
        "--history",
        metavar="FOLDER",
        show_default=False,
        help="A wide file for each field, as --data of other commands takes them: the rows before "
        "the first tick. It is read once, when the run begins.",
    ),
]
_OnceOption = Annotated[
    bool, typer.Option("--once", help="End after the files that are there; don't wait for more.")
]
_PollOption = Annotated[
    float,
    typer.Option(
        "--poll", metavar="SECONDS", help="How often to look for new files.", min=0.001, max=86400
    ),
]


def command(
    graph: GraphArgument,
    in_: _InOption,
    out: _OutOption,
    history: _HistoryOption = None,
    universe: UniverseOption = None,
    once: _OnceOption = False,
    poll: _PollOption = 1.0,
) -> None:
    """Evaluate GRAPH day by day, as days come, and write each day's weights to a file.

    Prints the file of each day when it and the checkpoint are on the disk. Started again with the
    same arguments, it goes on where it ended, however it ended. Ctrl-C and SIGTERM end it between
    days, with exit code 0.
    """
    read = graph_reader(graph)
    # Faults of a formula show before the first day comes.
    require_no_signals(read(None))

    from quernbrook.workbench.live import OutputFolder
    from quernbrook.workbench.live.ending import Ending
    from quernbrook.workbench.live.feeds import days_of_folder, days_of_lines

    if in_ != "-" and not Path(in_).is_dir():
        raise InputError(f"there is no folder {in_}: --in wants a folder of files, or -")
    if history is not None and not history.is_dir():
        raise InputError(f"there is no folder {history}: --history wants a folder as --data does")
    with Ending() as ending, OutputFolder(out) as output:
        days = (
            days_of_lines(_STANDARD_INPUT, output, ending)
            if in_ == "-"
            else days_of_folder(Path(in_), output, ending, None if once else poll)
        )
        begun = None
        if output.progress is not None:
            begun = _begin(read, output, universe, output.progress.fields)
        elif history is not None:
            begun = _begin(read, output, universe, known_fields(history))
            run, names = begun
            run.warm_up(load_panel(history, names))
        for day in days:
            # The first day tells which names features can have.
            begun = begun or _begin(read, output, universe, day.fields)
            run, names = begun
            typer.echo(run.tick(day.panel(names)))


def _begin(
    read: Callable[[Iterable[str]], Node],
    output: OutputFolder,
    universe: str | None,
    known: Sequence[str],
) -> tuple[LiveRun, list[str]]:
    """The run, and the fields that it reads."""
    from quernbrook.workbench.live import LiveRun

    graph = read(known)
    others = [] if universe is None else [universe]
    require_fields(known, others)
    # A context needs a field, also for a graph that reads none.
    names = list(dict.fromkeys([*fields_of([graph]), *others])) or list(known[:1])
    return LiveRun(graph, output, fields=known, universe=universe), names
