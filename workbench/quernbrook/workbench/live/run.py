"""A live run: one row after the other through functions that stay, with a checkpoint each."""

from __future__ import annotations

from collections.abc import Iterable
from dataclasses import replace
from pathlib import Path

import numpy as np
import pandas as pd
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry, bind_instances, default_registry
from quernbrook.reference_host.warmup import warmup_rows
from quernbrook.workbench.formulas import format_formula
from quernbrook.workbench.live.errors import LiveError
from quernbrook.workbench.live.output import OutputFolder, Progress
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.panels.columns import Matrix


class LiveRun:
    """A graph over rows as they come, from where its output folder's checkpoint stands.

    output: an open folder. The weights that it gets are, bit for bit, the rows of one whole run,
    however often the process ended between or within ticks.
    fields: the names that the graph's features could have when it was read, kept for whoever reads
    it again.
    universe: a field; where it is 0 or missing, all fields are taken as missing.

    Raises LiveError for a folder that was begun with another graph or universe, and what a run
    raises for functions and configuration. Two threads at once must not use it.
    """

    def __init__(
        self,
        graph: Node,
        output: OutputFolder,
        *,
        registry: FunctionRegistry | None = None,
        fields: Iterable[str] = (),
        universe: str | None = None,
    ) -> None:
        registry = default_registry() if registry is None else registry
        self._output = output
        self._fields = tuple(fields)
        self._universe = universe
        self._formula = format_formula(graph, registry=registry)
        progress = output.progress
        if progress is not None:
            self._require_same_run(progress)
        states = None if progress is None else progress.states
        self._bound = bind_instances(graph, registry, states)
        # Counts in states end at their windows; a graph of windows over windows warms up longer.
        seen = 0 if progress is None else progress.row_count
        self._bound.warmup_rows = max(warmup_rows(graph, registry) - seen, 0)
        self._is_torn = False

    def warm_up(self, history: Panel) -> None:
        """Run over rows that go before the first tick, and save the checkpoint; no weights are
        written.

        Raises LiveError where the run has begun, and for a panel without dates or with times.
        """
        if self._output.progress is not None:
            raise LiveError(f"{self._output.path} has a run that has begun; history goes before it")
        if not len(history.dates):
            raise LiveError("the history has no dates")
        _require_days(history)
        _require_texts(history)
        self._advance(history)
        self._save(history, history_end=history.dates[-1])

    def tick(self, row: Panel) -> Path:
        """Evaluate the next row, and return the file of its weights; the checkpoint is saved, too.

        row: a panel of one date, after all before; its symbols are those of the first row of the
        run, in any order.

        Raises LiveError for another row, which leaves the run as it was, and for a folder that
        can't be written; and what a run raises. After that it must be opened anew.
        """
        row = self._next(row)
        weights = self._advance(row)
        path = self._output.write_weights(row.dates[0], row.symbols, weights[0])
        self._save(row)
        return path

    def _require_same_run(self, progress: Progress) -> None:
        for what, its, ours in (
            ("graph", progress.formula, self._formula),
            ("universe", progress.universe, self._universe),
        ):
            if its != ours:
                raise LiveError(
                    f"{self._output.path} was begun with another {what}, {its}: go on with that "
                    f"one, or begin with {ours} in another output folder"
                )

    def _next(self, row: Panel) -> Panel:
        if len(row.dates) != 1:
            raise LiveError(f"a tick takes one date; got {len(row.dates)}")
        _require_days(row)
        if not len(row.symbols):
            raise LiveError(f"{row.dates[0].date()}: the row has no symbols")
        progress = self._output.progress
        date = row.dates[0]
        self._output.require_no_gap(date)
        if progress is None:
            _require_texts(row)
            return row
        if date <= progress.last_date:
            raise LiveError(
                f"{date.date()}: the run has come to {progress.last_date.date()}; rows must follow "
                "each other by date"
            )
        return _with_symbols(row, progress.symbols)

    def _advance(self, rows: Panel) -> Matrix:
        if self._is_torn:
            raise LiveError(
                "the run broke off within a tick: open its folder again to go on from the "
                "checkpoint"
            )
        # Instances stand for the functions, and without a registry none is looked up again.
        context = rows.context()
        context._collect_node_outputs = False
        context._collect_states = False
        if self._universe is not None:
            if self._universe not in rows.fields:
                near = suggestion(self._universe, rows.fields)
                raise LiveError(f"the rows lack the universe, the field '{self._universe}'{near}")
            context.universe = rows.fields[self._universe]
        # From here to the checkpoint the functions are ahead of it.
        self._is_torn = True
        return np.asarray(self._bound.evaluate(context).weights)

    def _save(self, rows: Panel, history_end: pd.Timestamp | None = None) -> None:
        last, states, before = rows.dates[-1], self._bound.states(), self._output.progress
        if before is not None:
            count = before.row_count + len(rows.dates)
            progress = replace(before, last_date=last, row_count=count, states=states)
        else:
            progress = Progress(
                rows.symbols,
                last,
                history_end,
                len(rows.dates),
                states,
                self._formula,
                self._fields,
                self._universe,
            )
        self._output.save(progress)
        self._is_torn = False


def _require_days(panel: Panel) -> None:
    dates = panel.dates
    if dates.tz is not None or not dates.equals(dates.normalize()):
        raise LiveError(f"a live run goes by days, without times and time zones; got {dates[0]}")


def _require_texts(panel: Panel) -> None:
    for symbol in panel.symbols:
        if not isinstance(symbol, str):
            raise LiveError(f"a live run takes symbols that are texts; got {symbol!r}")


def _with_symbols(row: Panel, symbols: pd.Index) -> Panel:
    if row.symbols.equals(symbols):
        return row
    date = row.dates[0].date()
    missing = symbols.difference(row.symbols, sort=False)
    if len(missing):
        raise LiveError(
            f"{date}: the symbol {missing[0]} is missing; give it a row with empty values"
        )
    unknown = row.symbols.difference(symbols, sort=False)
    if len(unknown):
        raise LiveError(
            f"{date}: the symbol {unknown[0]} is unknown to the run, whose first row lacks it; "
            "leave it out, or begin again in another output folder, with a history that has it"
        )
    places = row.symbols.get_indexer(symbols)
    fields = {name: np.ascontiguousarray(values[:, places]) for name, values in row.fields.items()}
    universe = None if row.universe is None else np.ascontiguousarray(row.universe[:, places])
    return Panel(row.dates, symbols, fields, universe)
