"""Sweeps: what a run costs beside its evaluation, and a call that finds all done.

Worker processes have clocks of their own, so the figures are printed, not measured as others are:
the processor's time of all processes, the start of workers included, and the time on the wall. The
ideal is that of parsing and evaluating the same graphs in one process, in calls of 25.
"""

from __future__ import annotations

import resource
import time
from collections.abc import Callable
from functools import cache
from pathlib import Path

import joblib
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.sweeps import Run, read_manifest, runs_from_grid, sweep
from quernbrook.workbench.sweeps.runs import text_of
from quernbrook.workbench.together import evaluate_together

DATES, SYMBOLS, RUNS, FINISHED = 8313, 20, 1000, 10_000
FORMULAS = {
    "light": "rank(delta(close, $a)) * ts_rank(volume, $b)",
    "heavy": "ts_rank(correlation(rank(close), rank(volume), $b), $a)"
    " - decay_linear(delta(vwap, $b), $a)",
    "heaviest": " + ".join(
        f"ts_rank(correlation(rank({one}), rank({other}), $b), $a)"
        for one in ("open", "close", "low")
        for other in ("volume", "vwap", "high")
    ),
}


@cache
def panel() -> Panel:
    return synthetic_panel(SYMBOLS, DATES, gaps=False)


def runs_of(formula: str, count: int) -> list[Run]:
    grid = {"a": range(2, count // 10 + 2), "b": range(5, 15)}
    return runs_from_grid("$a-$b", formula, grid)


def evaluate_all(runs: list[Run]) -> None:
    for start in range(0, len(runs), 25):
        texts = {run.name: text_of(run)[0] for run in runs[start : start + 25]}
        graphs = {
            name: parse_formula(text, features=panel().fields) for name, text in texts.items()
        }
        context = panel().context(default_registry())
        context._collect_states = False
        evaluate_together(graphs, context)


def processor_time() -> float:
    usages = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
    return sum(usage.ru_utime + usage.ru_stime for usage in usages)


def timed(call: Callable[[], object]) -> tuple[float, float]:
    """Seconds of the processor, and on the wall."""
    start, wall = processor_time(), time.perf_counter()
    call()
    return processor_time() - start, time.perf_counter() - wall


@pytest.mark.slow
@pytest.mark.parametrize("formula", FORMULAS)
def test_a_thousand_runs(tmp_path: Path, formula: str) -> None:
    runs = runs_of(FORMULAS[formula], RUNS)
    evaluate_all(runs[:25])
    ideal, wall = timed(lambda: evaluate_all(runs))
    cores = joblib.cpu_count()
    print(f"\n{formula}: {ideal:.2f} s of the processor; {wall:.2f} s on the wall, {cores} cores")
    for engine in ("serial", "threads", "joblib"):
        out = tmp_path / engine
        used, wall = timed(
            lambda out=out, engine=engine: sweep(runs, panel(), out=out, engine=engine)
        )  # type: ignore[misc]
        peak = read_manifest(out)["peak_memory"].max() / 2**20
        print(
            f"  {engine}: {used:.2f} s, {used / ideal:.2f} of the ideal, "
            f"{(used - ideal) / RUNS * 1e3:.2f} ms a run beside it; {wall:.2f} s on the wall; "
            f"a worker had {peak:.0f} MiB at most, features included"
        )


@pytest.mark.slow
def test_ten_thousand_finished_runs(tmp_path: Path) -> None:
    fields = {name: values[:50] for name, values in panel().fields.items()}
    small = Panel(panel().dates[:50], panel().symbols, fields)
    runs = runs_of(FORMULAS["light"], FINISHED)
    sweep(runs, small, out=tmp_path)
    used, wall = timed(lambda: sweep(runs, small, out=tmp_path))
    print(f"\n{FINISHED:,} finished runs: {used:.2f} s of the processor, {wall:.2f} s on the wall")
