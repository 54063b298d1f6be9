"""`quernbrook run`: from a graph and data to weights in a file."""

from __future__ import annotations

import time
from pathlib import Path
from typing import Annotated

import typer
from quernbrook.workbench.command_line import frame_file
from quernbrook.workbench.command_line.failures import InputError
from quernbrook.workbench.command_line.frame_file import OutOption
from quernbrook.workbench.command_line.graph_argument import GraphArgument
from quernbrook.workbench.command_line.inputs import DataOption, UniverseOption, load
from quernbrook.workbench.command_line.output import JsonOption, print_facts, print_json

EXAMPLE = 'quernbrook run "rank(delta(close, 5))" --data prices --out weights.parquet'

SaveRunOption = Annotated[
    Path | None,
    typer.Option(
        "--save-run",
        metavar="FILE",
        show_default=False,
        help="Evaluate once more and write the output of every node to this file, for "
        "'quernbrook diff'.",
    ),
]


def command(
    graph: GraphArgument,
    out: OutOption,
    data: DataOption = None,
    universe: UniverseOption = None,
    save_run: SaveRunOption = None,
    json: JsonOption = False,
) -> None:
    """Evaluate GRAPH over data and write its weights to a file.

    Prints how many dates and symbols there are, the share of cells that have a weight, and the
    seconds that the evaluation took.
    """
    frame_file.require_writable(out)
    if save_run is not None:
        frame_file.require_place("--save-run", save_run)
    others = () if universe is None else (universe,)
    node, panel = load(graph, data, *others)

    from quernbrook.reference_host import default_registry
    from quernbrook.simulator_engine.expression_evaluator import evaluate
    from quernbrook.workbench.seeing.measures import coverage

    context = panel.context(default_registry())
    if universe is not None:
        context.universe = panel.fields[universe]
    start = time.perf_counter()
    weights = evaluate(node, context).weights
    seconds = time.perf_counter() - start
    frame_file.write(panel.frame(weights), out)
    if save_run is not None:
        from quernbrook.workbench.tracing import record, run_files

        run = record(node, panel, universe=universe)
        try:
            run_files.save_run(run, save_run)
        except OSError as error:
            reason = error.strerror or error
            raise InputError(f"--save-run {save_run} can't be written: {reason}") from None

    first, last = (date.date().isoformat() for date in (panel.dates[0], panel.dates[-1]))
    share = coverage(weights)
    if json:
        document = {
            "dates": len(panel.dates),
            "first_date": first,
            "last_date": last,
            "symbols": len(panel.symbols),
            "coverage": share,
            "seconds": seconds,
            "out": str(out),
        }
        print_json(document)
        return
    facts = {
        "dates": f"{len(panel.dates):,} from {first} to {last}",
        "symbols": f"{len(panel.symbols):,}",
        "coverage": f"{share:.1%} of cells have a weight",
        "seconds": f"{seconds:.3f}",
        "written to": str(out),
    }
    print_facts(facts)
