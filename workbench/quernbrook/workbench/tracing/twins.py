"""What a function of the library costs in machine code."""

from __future__ import annotations

import time
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate

_ROWS = 512
_REPEATS = 3


def twin_seconds_a_row(node: Node, config: dict[str, Any], columns: int) -> float | None:
    """Measure the function's compiled twin in a run over random rows of that many columns.

    None for reductions and where the distribution quernbrook-row-kernels has no such function.
    """
    try:
        registry = default_registry(compiled=True)
    except ModuleNotFoundError:
        return None
    if node.type != "rotation" or node.node not in registry.compiled:
        return None
    names = [str(place) for place in range(registry.create_instance(node.node, **config).arity)]
    random = np.random.default_rng(0)
    features = tuple(random.normal(size=(_ROWS, columns)) for _ in names)
    index = {name: place for place, name in enumerate(names)}
    graph = rotation(node.node, *map(feature, names))
    return min(_seconds(graph, registry, config, features, index) for _ in range(_REPEATS)) / _ROWS


def _seconds(
    graph: Node, registry: Any, config: dict[str, Any], features: Any, index: dict[str, int]
) -> float:
    twin = registry.create_instance(graph.node, **config)
    context = EvaluationContext(features, index)
    context._collect_node_outputs = context._collect_states = False
    begin = time.perf_counter()
    evaluate(graph, context, bound_function_instances={"root": twin})
    return time.perf_counter() - begin
