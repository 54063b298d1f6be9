"""A run with the output of every node, labelled."""

from __future__ import annotations

from collections.abc import Iterable, Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.trees import nodes_by_path
from quernbrook.simulator_engine.expression_evaluator import (
    EvaluationContext,
    EvaluationResult,
    evaluate,
)
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.registries import NodeByNode, in_front_of
from quernbrook.workbench.tracing.subject import (
    Data,
    Label,
    Subject,
    column_labels,
    row_labels,
)

Matrix = NDArray[np.float64]
# Under this name stand the weights, which differ from the root's output in warm-up rows.
WEIGHTS = "weights"


@dataclass(frozen=True)
class Run:
    """Outputs of one run, all float64 of shape (rows, columns).

    rows, columns: their labels, dates as texts; numbers where there are none.
    names: what stands at each path: "rotation longitudinal_mean".
    outputs: by path in the order of execution, and last the weights, "weights".
    """

    rows: tuple[Label, ...]
    columns: tuple[Label, ...]
    names: dict[str, str]
    outputs: dict[str, Matrix]

    @classmethod
    def of_result(
        cls,
        graph: Node,
        result: EvaluationResult,
        dates: Iterable[Any] | None = None,
        symbols: Iterable[Any] | None = None,
    ) -> Run:
        """Take the result of a run with ``_collect_node_outputs``.

        graph: the one that was evaluated, transforms included. Raises TraceError if it is another,
        if the result holds no node outputs, and for labels of another number.
        """
        outputs = _outputs(graph, result)
        nodes = nodes_by_path(graph)
        if outputs.keys() != nodes.keys():
            other = min(outputs.keys() ^ nodes.keys())
            raise TraceError(f"the result is one of another graph: they differ at {other}")
        rows, columns = result.weights.shape
        return cls(
            _labels("row", None if dates is None else row_labels(dates), rows),
            _labels("column", None if symbols is None else column_labels(symbols), columns),
            {path: f"{nodes[path].type} {nodes[path].node}" for path in outputs},
            {**outputs, WEIGHTS: result.weights},
        )


def record(graph: Node, data: Data, *, universe: str | None = None) -> Run:
    """Evaluate a graph over all rows of a panel or context and keep every node's output.

    universe: a field of the panel. Outside it, where it is 0 or NaN, fields are NaN.

    No fast road is taken. Costs a matrix for each node. Raises what `evaluate` raises.
    """
    subject = Subject.of(graph, data, universe)
    result = evaluate_node_by_node(subject, with_states=False)
    run = Run.of_result(subject.graph, result)
    return Run(subject.rows, subject.columns, run.names, run.outputs)


def joined(runs: Sequence[Run]) -> Run:
    """The runs as one, their rows one after the other: the ticks of a live run.

    Raises TraceError for no runs, other columns or nodes, and for labels that stand twice.
    """
    if not runs:
        raise TraceError("there are no runs to be joined")
    first = runs[0]
    rows = tuple(row for run in runs for row in run.rows)
    for run in runs[1:]:
        if (run.columns, run.names) != (first.columns, first.names):
            raise TraceError("runs of other columns or nodes can't be joined")
    if len(set(rows)) != len(rows):
        raise TraceError("rows of several runs have the same label: give each run its dates")
    outputs = {name: np.concatenate([run.outputs[name] for run in runs]) for name in first.outputs}
    return Run(rows, first.columns, first.names, outputs)


def evaluate_node_by_node(subject: Subject, *, with_states: bool) -> EvaluationResult:
    """The result with all node outputs, also for graphs that a fast road would take."""
    context = subject.context
    if context.registry is not None:
        context.registry = in_front_of(context.registry, NodeByNode)
    context._collect_node_outputs = True
    context._collect_states = with_states
    result = evaluate(subject.graph, context)
    result.node_outputs = _outputs(subject.graph, result)
    return result


def evaluate_outputs(graph: Node, context: EvaluationContext) -> dict[str, Matrix]:
    """Every node's output in a run that is to collect them."""
    return _outputs(graph, evaluate(graph, context))


def _outputs(graph: Node, result: EvaluationResult) -> dict[str, Matrix]:
    if result.node_outputs:
        return dict(result.node_outputs)
    if graph.children:
        raise TraceError(
            "the result holds no node outputs: set _collect_node_outputs on the context, and see "
            "that no fast road takes the graph"
        )
    return {"root": result.weights}


def _labels(what: str, labels: tuple[str, ...] | None, count: int) -> tuple[Label, ...]:
    if labels is None:
        return tuple(range(count))
    if len(labels) != count or len(set(labels)) != count:
        raise TraceError(f"expected {count} different {what} labels; got {len(labels)}")
    return labels
