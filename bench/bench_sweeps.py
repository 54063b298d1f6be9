"""Sweeps: a thousand runs in worker processes, what each costs beside its evaluation, and a call
that finds all done.

Wall-clock time, which worker processes share; the ideal is the serial evaluation, spread over the
cores.
"""

from __future__ import annotations

import os
import time
from collections.abc import Callable
from functools import cache
from pathlib import Path

import pytest
from quernbrook.reference_host import default_registry
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.sweeps import Run, read_manifest, runs_from_grid, sweep
from quernbrook.workbench.together import evaluate_together

DATES, SYMBOLS, RUNS, FINISHED = 8313, 20, 1000, 10_000
CORES = len(os.sched_getaffinity(0))
HEAVY = (
    "ts_rank(correlation(rank(close), rank(volume), $b), $a) - decay_linear(delta(vwap, $b), $a)"
)
LIGHT = "rank(delta(close, $a)) * ts_rank(volume, $b)"


@cache
def panel() -> Panel:
    return synthetic_panel(SYMBOLS, DATES, gaps=False)


def runs_of(formula: str, count: int) -> list[Run]:
    grid = {"a": range(2, count // 10 + 2), "b": range(5, 15)}
    return runs_from_grid("$a-$b", formula, grid)


def evaluated(runs: list[Run]) -> None:
    """As the workers do, in calls of as many graphs, but nothing is kept."""
    registry = default_registry()
    for start in range(0, len(runs), 25):
        texts = [str(run.graph) for run in runs[start : start + 25]]
        graphs = {}
        for run, text in zip(runs[start : start + 25], texts, strict=True):
            filled = text.replace("$a", str(run.parameters["a"])).replace(
                "$b", str(run.parameters["b"])
            )
            graphs[run.name] = parse_formula(filled, features=panel().fields)
        context = panel().context(registry)
        context._collect_states = False
        evaluate_together(graphs, context)


def timed(call: Callable[[], object]) -> float:
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


@pytest.mark.slow
@pytest.mark.parametrize("formula", [LIGHT, HEAVY], ids=["light", "heavy"])
def test_a_thousand_runs(tmp_path: Path, formula: str) -> None:
    runs = runs_of(formula, RUNS)
    panel()
    evaluated(runs[:25])
    serial = timed(lambda: evaluated(runs))
    ideal = serial / CORES
    for results in ("summary", "weights"):
        for engine in ("joblib", "threads", "serial"):
            out = tmp_path / f"{engine}-{results}"
            seconds = timed(
                lambda out=out, engine=engine, results=results: sweep(  # type: ignore[misc]
                    runs, panel(), out=out, engine=engine, results=results
                )
            )
            peak = read_manifest(out)["peak_memory"].max() / 2**20
            cores = 1 if engine == "serial" else CORES
            overhead = (seconds * cores - serial) / RUNS * 1e3
            print(
                f"{engine}, {results}: {seconds:.2f} s, {seconds * cores / serial:.2f} of the "
                f"ideal {serial / cores:.2f} s, {overhead:.2f} ms a run beside it, "
                f"peak {peak:.0f} MiB"
            )
    assert ideal > 0.0


@pytest.mark.slow
def test_ten_thousand_finished_runs(tmp_path: Path) -> None:
    small = Panel(
        panel().dates[:50],
        panel().symbols,
        {name: values[:50] for name, values in panel().fields.items()},
    )
    runs = runs_of(LIGHT, FINISHED)
    print(f"{FINISHED:,} small runs: {timed(lambda: sweep(runs, small, out=tmp_path)):.2f} s")
    again = timed(lambda: sweep(runs, small, out=tmp_path))
    print(f"found done: {again:.2f} s")
