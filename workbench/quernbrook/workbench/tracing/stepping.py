"""Going through a run node by node."""

from __future__ import annotations

import copy
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.warmup import warmup_rows
from quernbrook.workbench.graphs import FILTERS, LITERALS
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.subject import Data, Label, Subject
from quernbrook.workbench.tracing.watched_rows import Row, RowRecord, WatchedRows

# States are kept every so many rows; a row runs again after those since then.
_ROWS_BETWEEN_STATES = 64


@dataclass(frozen=True)
class Breakpoint:
    """Where to stop: before or after a node, in one row or in all, or after its first NaN."""

    path: str
    when: Literal["before", "after", "nan"]
    row: int | None = None
    column: int | None = None


@dataclass(frozen=True)
class Stop:
    """Where a run stands.

    row: its label; None at the end of the run. before, after: the paths of the node that is next
    and of the one that was last in this row; None where there is none. error: that of the node
    `before`, which failed.
    """

    row: Label | None
    before: str | None
    after: str | None
    error: Exception | None = None

    def __str__(self) -> str:
        if self.row is None:
            return "at the end of the run"
        if self.error is not None:
            return f"row {self.row}: {self.before} failed: {self.error}"
        if self.before is None:
            return f"row {self.row}: after {self.after}"
        last = "" if self.after is None else f", after {self.after}"
        return f"row {self.row}: before {self.before}{last}"


class Stepper:
    """A run that stops where it is told to.

    A row is evaluated as a whole, by the evaluator, and then shown node by node; so a row that is
    changed, by `replace`, runs again from its beginning. Children come before their parents;
    literals and filters are no steps. Weights are, bit for bit, those of one whole run.
    """

    def __init__(self, graph: Node, data: Data, *, universe: str | None = None) -> None:
        """Stand before the first node of the first row.

        data: a panel or a context, which is not changed. universe: a field of the panel. Outside
        it, where it is 0 or NaN, fields are NaN.

        Raises what `evaluate` raises for functions and configuration.
        """
        self._subject = subject = Subject.of(graph, data, universe)
        registry = subject.context.registry
        self._warmup = 0 if registry is None else warmup_rows(subject.graph, registry)
        self._rows = WatchedRows(subject)
        self._nodes = subject.nodes_as_run
        self._order = [
            path for path, node in self._nodes.items() if node.type not in LITERALS | FILTERS
        ]
        self._row = self._done = 0
        self._record: RowRecord | None = None
        self._states_before: dict[str, Any] | None = None
        shape = (len(subject.rows), len(subject.columns))
        self._weights = np.zeros(shape)
        self._last_values: dict[str, Row] = {}
        self._checkpoint = (0, self._rows.states())
        # Whether instances may have seen a part of the row already.
        self._is_torn = False
        self.breakpoints: list[Breakpoint] = []

    @property
    def graph(self) -> Node:
        """What is run: with the transforms of the context's pipeline laid around it."""
        return self._subject.graph

    @property
    def rows(self) -> Sequence[Label]:
        return self._subject.rows

    @property
    def columns(self) -> Sequence[Label]:
        return self._subject.columns

    @property
    def stop(self) -> Stop:
        """Where the run stands now."""
        if self._is_over:
            return Stop(None, None, None)
        before = self._order[self._done] if self._done < len(self._order) else None
        after = self._order[self._done - 1] if self._done else None
        return Stop(self._subject.rows[self._row], before, after, self._error)

    @property
    def weights(self) -> NDArray[np.float64]:
        """The rows that are done, as a run gives them."""
        is_done = not self._is_over and self._done == len(self._order)
        return self._weights[: self._row + is_done].copy()

    @property
    def registers(self) -> dict[str, Row]:
        """Every node's register: its value in this row, or where it hasn't run that of the row
        before, which is 0 in the first."""
        found = {}
        done = set(self._order[: self._done])
        for path, node in self._nodes.items():
            values = self._last_values
            if self._record is not None and (path in done or node.type in LITERALS | FILTERS):
                values = self._record.values
            found[path] = values.get(path, np.zeros(len(self.columns))).copy()
        return found

    def arguments(self, path: str | None = None) -> list[Row]:
        """What a function is called with in this row, by default the one that is next.

        Raises TraceError for other nodes, and for a function that isn't reached yet.
        """
        path = self._at_hand(path)
        if not self._is_over and self._index(path) <= self._done:
            record = self._evaluated()
            if path in record.arguments:
                return [row.copy() for row in record.arguments[path]]
        raise TraceError(f"{path} isn't called in this row, or not yet")

    def state(self, path: str | None = None) -> Any:
        """A copy of a stateful function's state where the run stands, by default of the next one.

        Raises TraceError for nodes without a state.
        """
        path = self._at_hand(path)
        if path not in self._rows.functions or not self._rows.functions[path].stateful:
            raise TraceError(f"{path} has no state")
        if self._is_torn and self._record is None:
            self._rewind()
        if not self._is_over and self._index(path) >= self._done and self._record is not None:
            if self._states_before is None:
                self._rewind()
                self._states_before = self._rows.states()
                self._evaluated()
            return copy.deepcopy(self._states_before[path])
        return self._rows.states()[path]

    def instance(self, path: str) -> Any:
        """The instance at a path. Raises TraceError where there is none."""
        if self._subject.require_path(path) not in self._rows.functions:
            raise TraceError(f"{path} is no function")
        return self._rows.functions[path].instance

    def break_before(self, path: str, row: Any = None) -> Breakpoint:
        """Stop before a node, in the row of a date or in every row."""
        return self._add(path, "before", row)

    def break_after(self, path: str, row: Any = None) -> Breakpoint:
        """Stop after a node, in the row of a date or in every row."""
        return self._add(path, "after", row)

    def break_nan(self, path: str, symbol: Any = None) -> Breakpoint:
        """Stop, once, after the next row of a node that holds a NaN, in any column or in one."""
        column = None if symbol is None else self._subject.column(symbol)
        found = Breakpoint(path, "nan", None, column)
        self._index(path)
        self.breakpoints.append(found)
        return found

    def step(self) -> Stop:
        """Run the next node."""
        if self._done == len(self._order):
            self._move()
        self._move()
        return self.stop

    def next_row(self) -> Stop:
        """Run the rest of this row. Breakpoints don't count."""
        row = self._row
        while self._row == row and self._move():
            pass
        return self.stop

    def go(self, row: Any = None) -> Stop:
        """Run to the next breakpoint, to the beginning of a date's row, or to the end.

        Stops before a node that fails. Raises TraceError for a row that is behind.
        """
        until = None if row is None else self._subject.row(row)
        if until is not None and (until, 0) < (self._row, self._done):
            raise TraceError(f"row {self._subject.rows[until]} is behind: begin anew")
        while (self._row, self._done) != (until, 0) and self._move():
            if self._is_at_breakpoint():
                break
        return self.stop

    def finish(self) -> NDArray[np.float64]:
        """Run to the end, whatever the breakpoints, and return the weights.

        Raises the error of a node that fails.
        """
        while self._move():
            pass
        if self._error is not None:
            raise self._error
        return self.weights

    def again(self) -> Stop:
        """Go back to the beginning of this row; states are again what they were.

        Raises TraceError for a stateful function without ``restore(state_data)``.
        """
        if self._is_over:
            raise TraceError("the run is at its end; there is no row to run again")
        self._rewind()
        self._done = 0
        return self.stop

    def replace(self, path: str, instance: Any) -> Stop:
        """Put another instance in a function's place, from this row on.

        The run then stands before that function, or where it stood if that is earlier. The
        instance keeps the state that it has. Raises TraceError where no function is, and what
        `again` raises.
        """
        self.instance(path)
        if self._is_over:
            raise TraceError("the run is at its end; there is no row to run again")
        self._rewind()
        self._rows.functions[path].instance = instance
        self._checkpoint = (self._row, self._rows.states())
        self._states_before = None
        self._done = min(self._done, self._index(path))
        if self._done:
            self._evaluated()
        return self.stop

    @property
    def _is_over(self) -> bool:
        return self._row == len(self._subject.rows)

    @property
    def _error(self) -> Exception | None:
        failed = None if self._record is None else self._record.failed
        if failed is None or self._done != self._index(failed[0]):
            return None
        return failed[1]

    def _index(self, path: str) -> int:
        if self._subject.require_path(path) not in self._order:
            raise TraceError(f"{path} is a literal or a filter, which are no steps")
        return self._order.index(path)

    def _at_hand(self, path: str | None) -> str:
        if path is not None:
            return self._subject.require_path(path)
        if self.stop.before is None:
            raise TraceError("no node is next; give a path")
        return self.stop.before

    def _add(self, path: str, when: Literal["before", "after"], row: Any) -> Breakpoint:
        self._index(path)
        found = Breakpoint(path, when, None if row is None else self._subject.row(row))
        self.breakpoints.append(found)
        return found

    def _move(self) -> bool:
        """Run one node, or go from the end of a row to the next; False where it can't go on."""
        if self._is_over:
            return False
        if self._done < len(self._order):
            self._evaluated()
            if self._error is not None:
                return False
            self._done += 1
            return True
        assert self._record is not None
        self._last_values = self._record.values
        self._row, self._done = self._row + 1, 0
        self._record = self._states_before = None
        if self._row - self._checkpoint[0] >= _ROWS_BETWEEN_STATES:
            self._checkpoint = (self._row, self._rows.states())
        return not self._is_over

    def _evaluated(self) -> RowRecord:
        if self._record is None:
            if self._is_torn:
                self._rewind()
            self._is_torn = True
            self._record = record = self._rows.run(self._row)
            self._is_torn = record.failed is not None
            if record.failed is None:
                is_warmup = self._row < self._warmup
                self._weights[self._row] = np.nan if is_warmup else record.values["root"]
        return self._record

    def _rewind(self) -> None:
        """Bring all instances to the beginning of this row."""
        start, states = self._checkpoint
        self._rows.restore(states)
        self._record = None
        for row in range(start, self._row):
            self._rows.run(row)
        self._is_torn = False

    def _is_at_breakpoint(self) -> bool:
        stop = self.stop
        if stop.row is None:
            return False
        found = False
        for one in list(self.breakpoints):
            if one.when == "nan":
                if one.path == stop.after and self._has_nan(one):
                    self.breakpoints.remove(one)
                    found = True
            elif one.row in (None, self._row):
                found |= one.path == (stop.before if one.when == "before" else stop.after)
        return found

    def _has_nan(self, one: Breakpoint) -> bool:
        assert self._record is not None
        values = self._record.values[one.path]
        return bool(np.isnan(values if one.column is None else values[one.column]).any())
