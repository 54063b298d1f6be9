"""`quernbrook report`: from a graph and data to a page that tells and shows what came of it."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer
from quernbrook.workbench.command_line import frame_file
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.graph_argument import GraphArgument
from quernbrook.workbench.command_line.inputs import (
    DataOption,
    UniverseOption,
    known_fields,
    load,
)
from quernbrook.workbench.command_line.output import print_facts
from quernbrook.workbench.names import suggestion

if TYPE_CHECKING:
    import pandas as pd
    from quernbrook.workbench.report import Run

EXAMPLE = 'quernbrook report "rank(delta(close, 5))" --data prices --out report.html'

_RETURNS = ("returns", "close")

PageOption = Annotated[
    Path,
    typer.Option("--out", metavar="FILE", show_default=False, help="The file to write: .html."),
]
BenchmarkOption = Annotated[
    str | None,
    typer.Option(
        "--benchmark",
        metavar="SYMBOL",
        show_default=False,
        help="A symbol of the data, whose returns PnL is compared with. Default: the mean of the "
        "returns of all symbols.",
    ),
]


def command(
    graph: GraphArgument,
    out: PageOption,
    data: DataOption = None,
    universe: UniverseOption = None,
    benchmark: BenchmarkOption = None,
) -> None:
    """Evaluate GRAPH over data and write a report of the run as one HTML file.

    The file needs no network. It shows the weights, exposure, turnover, concentration, the causes
    of missing weights and, where the data have a field returns or close, PnL and drawdown.
    """
    frame_file.require_writable(out, (".html",))
    known = known_fields(data)
    wanted = [name for name in _RETURNS if name in known][:1]
    if universe is not None:
        wanted.append(universe)
    node, panel = load(graph, data, *wanted)

    from quernbrook.reference_host import default_registry
    from quernbrook.workbench.report import report_page, run_graph

    run = run_graph(node, panel, default_registry(), universe=universe)
    page = report_page(run, benchmark=None if benchmark is None else _returns_of(run, benchmark))
    with frame_file.replacing(out) as temporary:
        temporary.write_text(page, "utf-8")
    print_facts({"seconds": f"{run.seconds:.3f}", "written to": str(out)})


def _returns_of(run: Run, symbol: str) -> pd.Series:
    if run.returns is None:
        raise InputError(
            f"--benchmark {symbol}: there are no returns; the data need a field returns or close"
        )
    names = [str(name) for name in run.panel.symbols]
    if symbol not in names:
        raise InputError(f"--benchmark: there is no symbol '{symbol}'{suggestion(symbol, names)}")
    return run.returns.iloc[:, names.index(symbol)].rename(symbol)
