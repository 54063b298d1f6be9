"""The output of any node of a graph."""

from __future__ import annotations

from copy import copy

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import nodes_by_path
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels.panel import Matrix


def node_output(graph: Node, context: EvaluationContext, path: str) -> Matrix:
    """Return what the node at a path gave in each row of a whole run, float64 of shape (T, N).

    The node alone is evaluated, with what is below it. Rows that the warm-up blanks in weights are
    not blanked here.

    Raises ValueError for a path that the graph doesn't have, and what `evaluate` raises.
    """
    nodes = nodes_by_path(graph)
    if path not in nodes:
        raise ValueError(f"the graph has no node '{path}'{suggestion(path, nodes)}")
    watched = copy(context)
    watched._collect_node_outputs = True
    result = evaluate(nodes[path], watched)
    # Fast roads collect nothing, and blank nothing.
    outputs = result.node_outputs or {"root": result.weights}
    return np.asarray(outputs["root"])
