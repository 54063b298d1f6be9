"""`quernbrook sweep`: many runs from a plan in a file."""

from __future__ import annotations

import time
from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer
from quernbrook.workbench.command_line.failures import EVALUATION_FAILED, InputError
from quernbrook.workbench.command_line.inputs import known_fields, load_panel
from quernbrook.workbench.command_line.output import JsonOption, print_facts, print_json

if TYPE_CHECKING:
    from quernbrook.workbench.sweeps import SweepReport
    from quernbrook.workbench.sweeps.plan import Plan

EXAMPLE = "quernbrook sweep plan.yaml --out results"

# What shells tell of a program that Ctrl-C has ended.
_INTERRUPTED = 130


def command(
    plan: Annotated[
        Path,
        typer.Argument(metavar="PLAN", show_default=False, help="A YAML file: see the guide."),
    ],
    out: Annotated[
        Path | None,
        typer.Option(
            "--out",
            metavar="FOLDER",
            show_default=False,
            help="Where results go, instead of the plan's 'out'.",
        ),
    ] = None,
    retry_failed: Annotated[
        bool, typer.Option("--retry-failed", help="Do runs that failed before again, too.")
    ] = False,
    json: JsonOption = False,
) -> None:
    """Evaluate all runs of PLAN that the folder of results doesn't have yet.

    The same command again goes on where this one ended, for whatever reason. Ends with the code 1
    if a run failed; the manifest tells why.
    """
    from quernbrook.workbench.sweeps import SweepError
    from quernbrook.workbench.sweeps.plan import read_plan

    start = time.perf_counter()
    try:
        read = read_plan(plan)
        folder = out or read.out
        if folder is None:
            raise InputError(f"{plan} names no folder of results: add 'out' there, or give --out")
        report = _swept(read, plan.parent, folder, retry_failed)
    except SweepError as error:
        raise InputError(str(error)) from None
    except KeyboardInterrupt:
        typer.echo("quernbrook: stopped; the same command goes on with what is missing", err=True)
        raise typer.Exit(_INTERRUPTED) from None
    seconds = time.perf_counter() - start
    if json:
        document = {
            "done": report.done,
            "failed": report.failed,
            "skipped": report.skipped,
            "seconds": seconds,
            "out": str(folder),
        }
        print_json(document)
    else:
        facts = {
            "done": f"{report.done:,} runs",
            "failed": f"{report.failed:,}",
            "there before": f"{report.skipped:,}",
            "seconds": f"{seconds:.3f}",
            "written to": str(folder),
        }
        print_facts(facts)
    if report.failed:
        raise typer.Exit(EVALUATION_FAILED)


def _swept(plan: Plan, folder: Path, out: Path, retry_failed: bool) -> SweepReport:
    from quernbrook.workbench.sweeps import sweep
    from quernbrook.workbench.sweeps.plan import fields_of, runs_of

    runs = runs_of(plan, folder)
    panel = load_panel(plan.data, fields_of(runs, known_fields(plan.data)))
    return sweep(
        runs,
        panel,
        out=out,
        engine=plan.engine,
        registry=plan.registry,
        results=plan.results,
        workers=plan.workers,
        time_limit=plan.time_limit,
        tries=plan.tries,
        retry_failed=retry_failed,
        ray_address=plan.ray_address,
    )
