"""A worker: contexts over shared features, and groups of runs evaluated on them."""

from __future__ import annotations

import json
import threading
import time
import traceback
from collections.abc import Iterable, Mapping
from importlib import import_module
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench.formulas.reader import parse_formula
from quernbrook.workbench.graph_json import graph_from_json
from quernbrook.workbench.sweeps import faults, peak_memory, shells, warnings_seen
from quernbrook.workbench.sweeps.summaries import summary
from quernbrook.workbench.sweeps.work import (
    Group,
    Matrix,
    Outcome,
    Setup,
    Slice,
    StorageError,
    Task,
)
from quernbrook.workbench.together import evaluate_together


def load_registry(path: str) -> Any:
    """Return what the function at "module:function" returns.

    Raises ImportError, AttributeError or ValueError for what can't be imported.
    """
    module, separator, name = path.partition(":")
    if not separator:
        raise ValueError(f"expected module:function, such as 'package.registry:make'; got {path!r}")
    return getattr(import_module(module), name)()


class Worker:
    """Evaluates groups over fields that others use, too. Threads need one each."""

    def __init__(self, fields: Mapping[str, Matrix], universe: Matrix | None, setup: Setup) -> None:
        self._fields = dict(fields)
        self._universe = universe
        self._setup = setup
        self._registry = load_registry(setup.registry)
        self._slice: Slice | None = None
        self._arrays: tuple[tuple[Matrix, ...], Matrix | None] = ((), None)

    def evaluate(self, group: Group) -> list[Outcome]:
        """Return an outcome for each run; a run that fails doesn't touch the others.

        Raises StorageError if results can't be written.
        """
        outcomes = {task.name: Outcome(task) for task in group.tasks}
        graphs = {}
        for task in group.tasks:
            try:
                graphs[task] = self._graph(task)
            except Exception as error:  # noqa: BLE001 - whatever it is stands in the run's row
                _fail(outcomes[task.name], error)
        for done in self._evaluate(graphs, group):
            outcomes[done.task.name] = done
        return list(outcomes.values())

    def _graph(self, task: Task) -> Node:
        if task.is_formula:
            return parse_formula(task.text, features=self._fields, registry=self._registry)
        document = json.loads(task.text)
        return graph_from_json(document, features=self._fields, registry=self._registry)

    def _evaluate(self, graphs: Mapping[Task, Node], group: Group) -> Iterable[Outcome]:
        """All in one call, unless one of them fails or warns: only by itself it tells which."""
        if len(graphs) > 1:
            together = [Outcome(task) for task in graphs]
            try:
                self._call(graphs, group.slice, together)
            except StorageError:
                raise
            except (Exception, SystemExit):  # noqa: BLE001 - found again below
                together = []
            if together and not together[0].warnings:
                return together
        return [self._alone(task, graph, group.slice) for task, graph in graphs.items()]

    def _alone(self, task: Task, graph: Node, part: Slice) -> Outcome:
        outcome = Outcome(task)
        try:
            self._call({task: graph}, part, [outcome])
        except StorageError:
            raise
        # One that exits would end the driver, too, and again in each later call.
        except (Exception, SystemExit) as error:  # noqa: BLE001 - it stands in the run's row
            _fail(outcome, error)
            outcome.error_path = faults.path_in(str(error), graph)
            outcome.error_row = faults.row_in(str(error))
        return outcome

    def _call(self, graphs: Mapping[Task, Node], part: Slice, outcomes: list[Outcome]) -> None:
        with peak_memory.measured() as peak, warnings_seen.collected() as warned:
            start = time.perf_counter()
            context = self._context(part, outcomes[0].task.options)
            results = evaluate_together(graphs, context)
            seconds = (time.perf_counter() - start) / len(graphs)
            for outcome in outcomes:
                weights = results.pop(outcome.task).weights
                self._keep(outcome, np.ascontiguousarray(weights), part)
        for outcome in outcomes:
            outcome.seconds, outcome.together = seconds, len(graphs)
            outcome.peak_memory, outcome.warnings = peak.size, warned

    def _keep(self, outcome: Outcome, weights: Matrix, part: Slice) -> None:
        outcome.rows = weights.size
        if self._setup.results == "summary":
            outcome.summary, outcome.rows = summary(weights), 1
        elif self._setup.staging is None:
            outcome.weights = weights
        else:
            outcome.file = self._setup.staging / f"{outcome.task.key}.parquet"
            shells.write(outcome.file, self._setup.shells[part], weights)

    def _context(self, part: Slice, options: Mapping[str, Any]) -> EvaluationContext:
        if part != self._slice:
            self._arrays = self._cut(part)
            self._slice = part
        features, universe = self._arrays
        index = {name: place for place, name in enumerate(self._fields)}
        context = EvaluationContext(
            features, index, registry=self._registry, universe=universe, **options
        )
        # Nobody reads them, and they are larger than all else.
        context._collect_states = False
        return context

    def _cut(self, part: Slice) -> tuple[tuple[Matrix, ...], Matrix | None]:
        chosen = self._universe if part.universe is None else self._fields[part.universe]
        cut = {id(matrix): _cut(matrix, part) for matrix in self._fields.values()}
        universe = None if chosen is None else cut.get(id(chosen))
        if chosen is not None and universe is None:
            universe = _cut(chosen, part)
        return tuple(cut[id(matrix)] for matrix in self._fields.values()), universe


def _cut(matrix: Matrix, part: Slice) -> Matrix:
    rows = matrix[slice(*part.rows)]
    return rows if part.columns is None else np.ascontiguousarray(rows[:, list(part.columns)])


def _fail(outcome: Outcome, error: BaseException) -> None:
    outcome.error = type(error).__name__
    outcome.message = str(error) or "".join(traceback.format_exception_only(error)).strip()
    outcome.rows = 0


_here = threading.local()


def prepare_thread(fields: Mapping[str, Matrix], universe: Matrix | None, setup: Setup) -> None:
    """Make the worker of this thread, or of the only thread of a process."""
    _here.worker = Worker(fields, universe, setup)


def evaluate_here(group: Group) -> list[Outcome]:
    """Evaluate on the worker of this thread."""
    worker: Worker = _here.worker
    return worker.evaluate(group)
