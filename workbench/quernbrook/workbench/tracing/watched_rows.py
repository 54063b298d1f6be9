"""Rows of a run, one at a time, with all that goes in and out of every node."""

from __future__ import annotations

import copy
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host.trees import functions_by_path
from quernbrook.simulator_engine._graph_helpers import extract_feature_leaf_names
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.graphs import LEAVES, LITERALS
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.registries import NodeByNode, in_front_of
from quernbrook.workbench.tracing.runs import evaluate_outputs
from quernbrook.workbench.tracing.subject import Subject

Row = NDArray[np.float64]


@dataclass(frozen=True)
class RowRecord:
    """What a row gave.

    values: each node's row, of those that ran. arguments: what functions were called with.
    failed: the path of the node that failed, and its error; None if none did.
    """

    values: dict[str, Row]
    arguments: dict[str, list[Row]]
    failed: tuple[str, Exception] | None


class WatchedFunction:
    """Stands for an instance from row to row, and keeps what the last call got and gave."""

    def __init__(self, path: str, instance: Any, context: EvaluationContext) -> None:
        self.path = path
        self.instance = instance
        self.arguments: list[Row] | None = None
        # None also for a result that the evaluator will refuse.
        self.result: Row | None = None
        self._context = context

    def __getattr__(self, name: str) -> Any:
        return getattr(self.instance, name)

    def __call__(self, *rows: Row, **named: Any) -> Any:
        self.arguments = [row.copy() for row in (*rows, *_arrays(named))]
        if "context" in named:
            # That of the run holds all rows, and the number of this one.
            named["context"] = self._context
        result = self.instance(*rows, **named)
        self.result = _row_of(result, self._context.features[0].shape[1])
        return result


class SteppingRegistry(NodeByNode):
    """Hands out the same instances in every run, in the order in which nodes ask for them."""

    paths: list[str]
    context: EvaluationContext

    def __init__(self, registry: Any) -> None:
        super().__init__(registry)
        self.functions: list[WatchedFunction] = []
        self.asked = 0

    def create_instance(self, name: str, /, **config: Any) -> Any:
        if self.asked == len(self.functions):
            instance = self._registry.create_instance(name, **config)
            path = self.paths[self.asked]
            self.functions.append(WatchedFunction(path, instance, self.context))
        self.asked += 1
        return self.functions[self.asked - 1]


class WatchedRows:
    """Runs any row; what stateful instances hold goes on from one call to the next."""

    def __init__(self, subject: Subject) -> None:
        """Makes the instances. Raises what `evaluate` raises for functions and configuration."""
        self._graph = subject.graph
        self._nodes = subject.nodes_as_run
        self._whole = subject.context
        _attach_stage_arrays(self._graph, self._whole)
        self._registry: SteppingRegistry | None = None
        if self._whole.registry is not None:
            self._registry = in_front_of(self._whole.registry, SteppingRegistry)
            self._registry.paths = list(functions_by_path(self._graph))
            self._registry.context = self._whole
        self._evaluate(0, 0)
        self.functions = {watched.path: watched for watched in self._watched}

    def run(self, row: int) -> RowRecord:
        self._whole.current_day_index = row
        for watched in self._watched:
            watched.arguments = watched.result = None
        try:
            outputs = self._evaluate(row, row + 1)
        except Exception as error:  # noqa: BLE001 - to be looked at
            return self._failure(row, error)
        return RowRecord({path: rows[0] for path, rows in outputs.items()}, self._arguments(), None)

    def states(self) -> dict[str, Any]:
        """Copies of the states of all stateful instances, by path."""
        return {
            path: copy.deepcopy(watched.get_state())
            for path, watched in self.functions.items()
            if watched.stateful
        }

    def restore(self, states: Mapping[str, Any]) -> None:
        """Raises TraceError, before anything is restored, for an instance that has no restore."""
        for path in states:
            instance = self.functions[path].instance
            if not hasattr(instance, "restore"):
                raise TraceError(
                    f"the row can't be run again: {type(instance).__name__} at {path} has no "
                    "method restore(state_data)"
                )
        for path, state in states.items():
            data = copy.deepcopy(getattr(state, "state_data", state))
            self.functions[path].instance.restore(data)

    @property
    def _watched(self) -> list[WatchedFunction]:
        return [] if self._registry is None else self._registry.functions

    def _arguments(self) -> dict[str, list[Row]]:
        return {
            watched.path: watched.arguments
            for watched in self._watched
            if watched.arguments is not None
        }

    def _evaluate(self, start: int, stop: int) -> dict[str, NDArray[np.float64]]:
        if self._registry is not None:
            self._registry.asked = 0
        return evaluate_outputs(self._graph, self._tick(start, stop))

    def _tick(self, start: int, stop: int) -> EvaluationContext:
        rows = slice(start, stop)
        tick = copy.copy(self._whole)
        tick.features = tuple(matrix[rows] for matrix in self._whole.features)
        if self._whole.universe is not None:
            tick.universe = self._whole.universe[rows]
        pool = self._whole.useful_signals
        tick.useful_signals = {name: _rows_of_signal(one, rows) for name, one in pool.items()}
        tick.registry = self._registry
        tick._collect_node_outputs = True
        tick._collect_states = False
        return tick

    def _failure(self, row: int, error: Exception) -> RowRecord:
        """What there was before the failure: the outputs themselves are lost with the run."""
        failed = self._failed_path()
        results = {watched.path: watched.result for watched in self._watched}
        values: dict[str, Row] = {}
        for path, node in self._nodes.items():
            result = results.get(path)
            if path == failed:
                break
            if node.type in LEAVES | LITERALS:
                alone = Node(node.type, node.node)
                values[path] = evaluate(alone, self._tick(row, row + 1)).weights[0]
            elif result is not None:
                values[path] = result
        return RowRecord(values, self._arguments(), (failed, error))

    def _failed_path(self) -> str:
        """The function that was called and gave no row, or else the one after the last that did."""
        last = ""
        for watched in self._watched:
            if watched.arguments is not None:
                last = watched.path
                if watched.result is None:
                    return last
        functions = list(functions_by_path(self._graph))
        following = functions.index(last) + 1 if last else 0
        return functions[following] if following < len(functions) else "root"


def _row_of(result: Any, width: int) -> Row | None:
    if isinstance(result, np.ndarray) and (result.shape, result.dtype) != ((width,), np.float64):
        return None
    try:
        return np.broadcast_to(np.asarray(result, dtype=np.float64), width).copy()
    except (TypeError, ValueError):
        return None


def _arrays(named: Mapping[str, Any]) -> list[Row]:
    return [value for value in named.values() if isinstance(value, np.ndarray)]


def _rows_of_signal(signal: Any, rows: slice) -> Any:
    part = copy.copy(signal)
    part.weights = None if signal.weights is None else signal.weights[rows]
    part.pnl = None if signal.pnl is None else signal.pnl[rows]
    return part


def _attach_stage_arrays(graph: Node, context: EvaluationContext) -> None:
    """As a run does; they have all rows, and runs of one row must not meet them."""
    for name in sorted(extract_feature_leaf_names(graph) - set(context.feature_index)):
        value = context.stage_data.value(name, None)
        if isinstance(value, np.ndarray) and value.ndim == 2:
            context.feature_index[name] = len(context.features)
            context.features = (*context.features, np.asarray(value, dtype=np.float64))
    context.stage_data = StageData()
