"""Many runs over one panel."""

from __future__ import annotations

import os
from collections.abc import Iterable, Sequence
from contextlib import closing
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Literal, TypeAlias

import joblib
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.sweeps import hashes, interrupts, shells, warnings_seen
from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.groups import grouped
from quernbrook.workbench.sweeps.output import Output, opened
from quernbrook.workbench.sweeps.progress import SweepProgress
from quernbrook.workbench.sweeps.runs import OPTIONS, Run, plain, require_names, text_of
from quernbrook.workbench.sweeps.scheduler import Pool, Scheduler
from quernbrook.workbench.sweeps.slices import slice_of
from quernbrook.workbench.sweeps.work import Group, Results, Setup, Slice, Task
from quernbrook.workbench.sweeps.worker import load_registry

Engine: TypeAlias = Literal["serial", "threads", "joblib", "ray"]
ENGINES: tuple[Engine, ...] = ("serial", "threads", "joblib", "ray")
REGISTRY = "quernbrook.reference_host:default_registry"


@dataclass(frozen=True)
class SweepReport:
    """What a call of `sweep` did: numbers of runs.

    done, failed: in this call. skipped: those that had ended before with the same hashes.
    """

    done: int
    failed: int
    skipped: int


@dataclass(frozen=True)
class _Planned:
    task: Task
    slice: Slice
    facts: dict[str, Any]


def sweep(
    runs: Iterable[Run],
    panel: Panel,
    *,
    out: str | os.PathLike[str],
    engine: Engine = "joblib",
    registry: str = REGISTRY,
    results: Results = "weights",
    workers: int | None = None,
    time_limit: float | None = None,
    tries: int = 3,
    retry_failed: bool = False,
    ray_address: str | None = None,
    progress: bool = True,
) -> SweepReport:
    """Evaluate all runs that `out` doesn't have yet with the same graph, data and code.

    out: a folder, made if it isn't there, for the data set `weights` (run, date, symbol, weight)
    and `manifest.jsonl` with a row for each run. See `read_weights` and `read_manifest`.
    engine: where runs are evaluated: "serial", "threads", "joblib" (processes) or "ray".
    registry: the import path "module:function" of what makes the registry, in every worker.
    results: "weights", or "summary" for a few figures of each run in the manifest.
    workers: how many at once; by default as many as this process has cores, or the cluster has.
    time_limit: seconds that a run may take, for "joblib" and "ray"; None for any time.
    tries: how often a run is tried that ends its worker or overruns its time.
    retry_failed: whether runs that failed before are done again.
    ray_address: of a Ray cluster; None starts one on this machine.
    progress: whether a bar is shown where the standard error is a terminal.

    A run that fails is a row of the manifest and no exception. KeyboardInterrupt ends workers and
    keeps what is done.

    Raises SweepError for runs that can't be planned, a folder that another process writes to, and
    results that can't be written.
    """
    _require_settings(engine, results, workers, time_limit, tries)
    planned = _planned(list(runs), panel, registry, results)
    with opened(Path(out)) as output:
        missing = {
            name: run
            for name, run in planned.items()
            if not output.has(name, run.task.key, failures_count=not retry_failed)
        }
        skipped = len(planned) - len(missing)
        if not missing:
            return SweepReport(0, 0, skipped)
        output.clear(missing)
        count = workers or joblib.cpu_count()
        shells_by_slice = _shells(missing.values(), panel, results)
        setup = Setup(registry, results, output.staging, shells_by_slice)
        pool = _pool(engine, panel, setup, count, workers, output, ray_address)
        with closing(pool), warnings_seen.shown_to_collectors():
            groups = grouped(
                [(run.task, run.slice) for run in missing.values()],
                len(panel.symbols),
                max(1, pool.capacity()),
            )
            scheduler = Scheduler(pool, time_limit, tries)
            done, failed = _work(groups, scheduler, missing, output, setup, progress=progress)
        return SweepReport(done, failed, skipped)


def _work(
    groups: Sequence[Group],
    scheduler: Scheduler,
    planned: dict[str, _Planned],
    output: Output,
    setup: Setup,
    *,
    progress: bool,
) -> tuple[int, int]:
    done = failed = 0
    facts = {name: run.facts for name, run in planned.items()}
    with SweepProgress(len(planned), is_wanted=progress) as bar:
        for group, outcomes in scheduler.outcomes(groups):
            with interrupts.held_back():
                output.keep(outcomes, facts, setup.shells.get(group.slice))
            failures = sum(outcome.error is not None for outcome in outcomes)
            done += len(outcomes) - failures
            failed += failures
            bar.advance(len(outcomes), failures)
    return done, failed


def _require_settings(
    engine: str, results: str, workers: int | None, time_limit: float | None, tries: int
) -> None:
    if engine not in ENGINES:
        raise SweepError(f"there is no engine {engine!r}: take one of {', '.join(ENGINES)}")
    if results not in ("weights", "summary"):
        raise SweepError(f"results are 'weights' or 'summary'; got {results!r}")
    if workers is not None and workers < 1:
        raise SweepError(f"workers must be 1 at least; got {workers}")
    if tries < 1:
        raise SweepError(f"tries must be 1 at least; got {tries}")
    if time_limit is not None and not time_limit > 0:
        raise SweepError(f"time_limit must be more than 0 seconds; got {time_limit:g}")
    if time_limit is not None and engine in ("serial", "threads"):
        raise SweepError(f"the engine '{engine}' can't end a run: take 'joblib' or 'ray'")


def _planned(runs: list[Run], panel: Panel, registry: str, results: Results) -> dict[str, _Planned]:
    require_names(runs)
    if registry.startswith("__main__:"):
        raise SweepError(
            f"the registry {registry} stands in the program itself, where workers don't find it: "
            "put it into a module of its own"
        )
    try:
        load_registry(registry)
    except Exception as error:
        raise SweepError(f"the registry {registry} can't be made: {error}") from error
    data, code = hashes.of_panel(panel), hashes.of_code(registry)
    return {run.name: _plan(run, panel, data, code, results) for run in runs}


def _plan(run: Run, panel: Panel, data: str, code: str, results: Results) -> _Planned:
    for option in run.options:
        if option not in OPTIONS:
            raise SweepError(
                f"the run '{run.name}': there is no option '{option}', only {', '.join(OPTIONS)}"
            )
    text, is_formula = text_of(run)
    part = slice_of(run, panel)
    options = dict(run.options)
    graph = hashes.of_text(text)
    shown = [part.rows, part.columns, part.universe]
    key = hashes.of_document([run.name, graph, shown, options, data, code, results])
    facts = {
        "parameters": {name: plain(value) for name, value in run.parameters.items()},
        "first_date": panel.dates[part.rows[0]].isoformat(),
        "last_date": panel.dates[part.rows[1] - 1].isoformat(),
        "key": key,
        "graph": graph,
        "data": data,
        "code": code,
    }
    return _Planned(Task(run.name, key, text, is_formula, options), part, facts)


def _shells(
    planned: Iterable[_Planned], panel: Panel, results: Results
) -> dict[Slice, list[bytes]]:
    if results == "summary":
        return {}
    made: dict[Slice, list[bytes]] = {}
    for part in {run.slice for run in planned}:
        symbols = panel.symbols if part.columns is None else panel.symbols[list(part.columns)]
        made[part] = shells.make(panel.dates[slice(*part.rows)], symbols)
    return made


def _pool(
    engine: Engine,
    panel: Panel,
    setup: Setup,
    count: int,
    workers: int | None,
    output: Output,
    ray_address: str | None,
) -> Pool:
    """Engines are imported when they are asked for: Ray need not be there."""
    if engine == "serial":
        from quernbrook.workbench.sweeps.engines.serial import SerialPool

        return SerialPool(panel.fields, panel.universe, setup)
    if engine == "threads":
        from quernbrook.workbench.sweeps.engines.threads import ThreadsPool

        return ThreadsPool(panel.fields, panel.universe, setup, count)
    if engine == "joblib":
        from quernbrook.workbench.sweeps.engines.processes import ProcessesPool

        return ProcessesPool(panel.fields, panel.universe, setup, count, output.workplace)
    try:
        from quernbrook.workbench.sweeps.engines.cluster import RayPool
    except ImportError as error:
        raise SweepError(
            "the engine 'ray' needs the package ray: pip install 'quernbrook-workbench[ray]'"
        ) from error
    return RayPool(panel.fields, panel.universe, setup, workers, ray_address)
