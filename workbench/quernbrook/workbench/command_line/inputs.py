"""What commands evaluate: a graph over a folder of data."""

from __future__ import annotations

from collections.abc import Iterable
from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.frame_file import SUFFIXES
from quernbrook.workbench.command_line.graph_argument import read_graph, read_graph_as_written
from quernbrook.workbench.names import nearest, suggestion

if TYPE_CHECKING:
    from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
    from quernbrook.workbench.panels import Panel

DataOption = Annotated[
    Path | None,
    typer.Option(
        "--data",
        metavar="FOLDER",
        show_default=False,
        help="A wide file for each field, dates by symbols: close.parquet, close.csv or "
        "close.csv.gz. Default: 2,000 days of 500 shares that never were, always the same.",
    ),
]
UniverseOption = Annotated[
    str | None,
    typer.Option(
        "--universe",
        metavar="FIELD",
        show_default=False,
        help="A field of the data. Where it is 0 or missing, all fields are taken as missing.",
    ),
]


def load(text: str, folder: Path | None, *others: str) -> tuple[Node, Panel]:
    """Return the graph that a GRAPH argument names, and a panel with what it reads.

    folder: as --data gives it. others: fields that are wanted beside those of the graph.

    Raises InputError and the errors of formulas, documents and panels.
    """
    known = known_fields(folder)
    graph = read_graph(text, known)
    require_no_signals(graph)
    require_fields(known, others)
    return graph, load_panel(folder, [*fields_of([graph]), *others])


def load_as_written(text: str, folder: Path | None, *others: str) -> tuple[Node, Panel]:
    """Like `load`, for commands that tell of what a graph lacks themselves: it may have names that
    nobody knows, and reductions."""
    known = known_fields(folder)
    graph = read_graph_as_written(text, known)
    require_fields(known, others)
    # Those that come nearest to unknown names are read, too: whoever tells of these looks for them.
    fields = (name if name in known else nearest(name, known) for name in fields_of([graph]))
    return graph, load_panel(folder, [*(name for name in fields if name is not None), *others])


def known_fields(folder: Path | None) -> list[str]:
    """The names of all fields of a folder, or of the synthetic panel."""
    if folder is None:
        from quernbrook.workbench.alphas import FIELDS

        return list(FIELDS)
    if not folder.is_dir():
        raise InputError(f"there is no folder {folder}: --data wants a folder with a file a field")
    try:
        files = [file.name for file in folder.iterdir() if file.is_file()]
    except OSError as error:
        raise InputError(f"{folder} can't be read: {error.strerror}") from None
    shown = [name for name in files if not name.startswith(".")]
    names = {name[: -len(end)] for name in shown for end in SUFFIXES if name.endswith(end)}
    if not names:
        raise InputError(f"{folder} has no data: expected files such as close.parquet or close.csv")
    return sorted(names)


def fields_of(graphs: Iterable[Node]) -> list[str]:
    """The fields that graphs read, each once, in the order of their names."""
    from quernbrook.workbench.graphs import LEAVES, children_first

    nodes = (visit.node for graph in graphs for visit in children_first(graph))
    return sorted({node.node for node in nodes if node.type in LEAVES})


def load_panel(folder: Path | None, fields: Iterable[str]) -> Panel:
    """Read these fields, or any one if there are none, whose dates and symbols then count.

    Without a folder it is the whole synthetic panel, which the standard error says.
    """
    from quernbrook.workbench.panels import read_panel, synthetic_panel

    if folder is None:
        panel = synthetic_panel()
        typer.echo(
            f"No --data: {len(panel.dates):,} days of {len(panel.symbols):,} shares that never "
            "were.",
            err=True,
        )
        return panel
    panel = read_panel(folder, dict.fromkeys(fields) or known_fields(folder)[:1])
    if not panel.dates.size or not panel.symbols.size:
        what = "symbols" if panel.dates.size else "dates"
        raise InputError(f"the data in {folder} have no {what}")
    return panel


def require_fields(known: Iterable[str], names: Iterable[str]) -> None:
    """Raise InputError for the first of the names that isn't known."""
    for name in names:
        if name not in known:
            raise InputError(f"unknown field '{name}'{suggestion(name, known)}")


def require_no_signals(graph: Node) -> None:
    """Raise InputError for a graph that data alone don't suffice for."""
    from quernbrook.workbench.graphs import FILTERS, children_first, path_of

    for visit in children_first(graph):
        if visit.node.type == "reduction" or visit.node.type in FILTERS:
            raise InputError(
                f"{path_of(visit.place)}: {visit.node.type} '{visit.node.node}' needs a pool of "
                "signals, which data in a folder don't have: evaluate it from Python"
            )
