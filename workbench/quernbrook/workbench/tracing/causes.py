"""Why a cell has its value: the tree of the nodes behind it."""

from __future__ import annotations

import math
from collections.abc import Iterator
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.simulator_engine.expression_evaluator import EvaluationResult
from quernbrook.workbench.graphs import FILTERS, LEAVES, LITERALS
from quernbrook.workbench.tracing import columns
from quernbrook.workbench.tracing.cause_html import html
from quernbrook.workbench.tracing.cause_text import text
from quernbrook.workbench.tracing.cell_causes import KINDS, Cause, CellCauses, Kind, Mark, Window
from quernbrook.workbench.tracing.columns import Column, Oddities
from quernbrook.workbench.tracing.runs import evaluate_node_by_node
from quernbrook.workbench.tracing.subject import Data, Subject


class Why(CellCauses):
    """What is behind one cell, as text: the tree."""

    def __str__(self) -> str:
        return text(self)

    def _repr_html_(self) -> str:
        return html(self)


def why(
    graph: Node,
    data: Data,
    date: Any,
    symbol: Any,
    *,
    universe: str | None = None,
    jump_factor: float = columns.JUMP_FACTOR,
) -> Why:
    """Evaluate a graph and tell what is behind its value on a date for a symbol.

    data: a panel, or a context, whose rows and columns have numbers instead of dates and symbols.
    universe: a field of the panel. Outside it, where it is 0 or NaN, fields are NaN.
    jump_factor: a value is a jump if it differs from that of the row before by more than so many
        medians of the absolute changes in the 60 rows before, 20 of which at least must be changes
        between numbers.

    Costs a matrix for each node. Raises TraceError for a date or symbol that isn't there, and what
    `evaluate` raises.
    """
    subject = Subject.of(graph, data, universe)
    row, column = subject.row(date), subject.column(symbol)
    result = evaluate_node_by_node(subject, with_states=True)
    tree = _Tree(subject, result, row, column, jump_factor)
    root = tree.root()
    weight = float(result.weights[row, column])
    is_warmup = math.isnan(weight) and not math.isnan(root.value)
    return Why(subject.rows[row], subject.columns[column], weight, is_warmup, jump_factor, root)


class _Tree:
    def __init__(
        self,
        subject: Subject,
        result: EvaluationResult,
        row: int,
        column: int,
        jump_factor: float,
    ) -> None:
        self._labels = subject.rows
        self._nodes = subject.nodes
        self._context = subject.context
        self._states = result.states
        self._row, self._column = row, column
        until = row + 1
        self._values: dict[str, Column] = {
            path: matrix[:until, column] for path, matrix in result.node_outputs.items()
        }
        self._oddities = {
            path: Oddities.of(values, jump_factor) for path, values in self._values.items()
        }

    def root(self) -> Cause:
        causes: dict[str, Cause] = {}
        for path, node in reversed(self._nodes.items()):
            causes[path] = self._cause(path, node, causes)
        return causes["root"]

    def _cause(self, path: str, node: Node, below: dict[str, Cause]) -> Cause:
        children = [f"{path}.c{number}" for number in range(len(node.children or ()))]
        inputs = [child for child in children if self._nodes[child].type not in LITERALS | FILTERS]
        capacity = self._capacity(path, node)
        is_filling = capacity is not None and self._row + 1 < capacity
        held = range(max(self._row + 1 - (capacity or 1), 0), self._row + 1)
        return Cause(
            path,
            node,
            float(self._values[path][self._row]),
            tuple(self._marks(path, node, inputs, held, is_filling)),
            self._window(inputs, held) if capacity is not None and inputs else None,
            tuple(below[child] for child in children),
        )

    def _capacity(self, path: str, node: Node) -> int | None:
        """The rows that a function along time holds when it has seen enough; None for others."""
        state = self._states.get(getattr(node, "_state_identity", path))
        data = getattr(state, "state_data", state)
        if not isinstance(data, dict) or not isinstance(data.get("window"), int):
            return None
        # Some hold more rows than their window: for a difference, also the one before it.
        buffers = data.get("buffers") or [data.get("buffer")]
        held = len(buffers[0]) if isinstance(buffers[0], list) else 0
        return max(held, data["window"])

    def _window(self, inputs: list[str], rows: range) -> Window:
        return Window(
            tuple(self._labels[row] for row in rows),
            {path: tuple(self._values[path][rows.start : rows.stop].tolist()) for path in inputs},
        )

    def _marks(
        self, path: str, node: Node, inputs: list[str], rows: range, is_filling: bool
    ) -> Iterator[Mark]:
        for kind in KINDS:
            if not self._flags(path, kind)[self._row]:
                continue
            sources = tuple(
                (child, self._labels[rows[int(places[-1])]])
                for child in inputs
                if len(places := np.flatnonzero(self._flags(child, kind)[rows.start : rows.stop]))
            )
            reason = "" if sources or kind != "nan" else self._reason(node, is_filling)
            yield Mark(kind, sources, reason)

    def _flags(self, path: str, kind: Kind) -> columns.Flags:
        return getattr(self._oddities[path], kind)

    def _reason(self, node: Node, is_filling: bool) -> str:
        if is_filling:
            return "its window is not full yet"
        if node.type not in LEAVES:
            return ""
        return "outside the universe" if self._is_outside() else "missing in the data"

    def _is_outside(self) -> bool:
        universe = self._context.universe
        if universe is None:
            return False
        inside = universe[self._row, self._column]
        return bool(inside == 0.0 or np.isnan(inside))
