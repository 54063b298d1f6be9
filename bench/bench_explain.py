"""Explaining a graph before it runs."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench.explanation import explain

UNIT = "µs a node"


def wide(nodes: int) -> Node:
    """Sums of sums of rolling means: a quarter of the nodes are means, each with a leaf and a
    window."""
    level = [rotation("longitudinal_mean", feature("a"), 5) for _ in range(nodes // 4)]
    while len(level) > 1:
        pairs = [level[i : i + 2] for i in range(0, len(level), 2)]
        level = [rotation("numerical_add", *pair) if len(pair) > 1 else pair[0] for pair in pairs]
    return level[0]


def deep(nodes: int) -> Node:
    """Negation upon negation."""
    graph = feature("a")
    for _ in range(nodes - 1):
        graph = rotation("numerical_negate", graph)
    return graph


# Deeper ones are beyond the interpreter's recursion limit.
@pytest.mark.parametrize(("shape", "nodes"), [(wide, 100), (wide, 1000), (deep, 100), (deep, 900)])
def test_explain(measure: Callable[..., None], shape: Callable[[int], Node], nodes: int) -> None:
    graph = shape(nodes)
    matrix = np.zeros((2000, 500))
    context = EvaluationContext((matrix,), {"a": 0}, registry=default_registry())
    measure(
        lambda: explain(graph, context),
        workload=f"{shape.__name__} graph of {nodes:,} nodes, explained",
        contender="explain",
        count=nodes,
        unit=UNIT,
        rounds=5,
    )
