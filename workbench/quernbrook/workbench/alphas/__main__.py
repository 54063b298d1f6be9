"""Evaluate the 101 published formulas over a panel, tell of them and draw them."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Sequence
from pathlib import Path

from quernbrook.reference_host import default_registry
from quernbrook.workbench.alphas import report
from quernbrook.workbench.alphas.evaluation import evaluate_formulas
from quernbrook.workbench.alphas.published import fields_of, published_graphs
from quernbrook.workbench.alphas.summaries import summarise
from quernbrook.workbench.panels import PanelError, read_panel, synthetic_panel, write_frame
from quernbrook.workbench.seeing.measures import correlations
from rich.console import Console
from rich.progress import Progress


def main(arguments: Sequence[str] | None = None) -> int:
    options = _options(arguments)
    console = Console()
    try:
        _run(options.data, options.out, console)
    except PanelError as error:
        print(f"alphas: {error}", file=sys.stderr)
        return 2
    except OSError as error:
        print(f"alphas: {options.out} can't be written: {error.strerror}", file=sys.stderr)
        return 2
    return 0


def _options(arguments: Sequence[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="alphas", description=__doc__)
    parser.add_argument(
        "--data",
        type=Path,
        metavar="FOLDER",
        help="a wide Parquet or CSV file a field, dates by symbols: open, high, low, close, "
        "volume, vwap, cap, and sector, industry, subindustry as numbers (default: 2,000 days of "
        "500 shares that never were, always the same)",
    )
    parser.add_argument(
        "--out",
        type=Path,
        metavar="FOLDER",
        default=Path("alphas"),
        help="where alpha001.parquet to alpha101.parquet and alphas.png go (default: alphas)",
    )
    return parser.parse_args(arguments)


def _run(data: Path | None, out: Path, console: Console) -> None:
    graphs = published_graphs()
    panel = synthetic_panel() if data is None else read_panel(data, fields_of(graphs))
    out.mkdir(parents=True, exist_ok=True)
    registry = default_registry()
    console.print(
        f"{len(graphs)} formulas over {len(panel.dates):,} days of {len(panel.symbols):,} shares, "
        f"with {len(registry.compiled)} of {len(registry.names())} functions in machine code"
    )
    summaries = []
    with Progress(console=console) as progress:
        task = progress.add_task("Evaluating", total=len(graphs))
        for evaluated in evaluate_formulas(graphs, panel, registry):
            path = out / f"alpha{evaluated.number:03}.parquet"
            write_frame(panel.frame(evaluated.values), path)
            summaries.append(summarise(evaluated))
            progress.advance(task)
    matrix = correlations([summary.sample for summary in summaries])
    console.print(report.table(summaries, matrix))
    report.draw(summaries, matrix, out / "alphas.png")
    console.print(f"Written to {out}: {len(graphs)} files of values, and alphas.png")


if __name__ == "__main__":
    sys.exit(main())
