"""Runs that go down the general road with bound functions, and the record that they leave."""

from __future__ import annotations

from types import ModuleType
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from support.graphs import aggregation, feature, number, rotation
from support.runs import bind_all, counting_matrix, make_context

NOT_FAST = ["unused, but it closes the fast roads"]


def bound_run(evaluator: ModuleType, graph: Any, bound: Any = "all", **options: Any) -> Any:
    """`graph` over the features "a" and "b" of 2 rows, all its functions bound."""
    features = options.pop("features", {"a": counting_matrix(2), "b": counting_matrix(2, start=50)})
    attributes = options.pop("attributes", {})
    states = options.pop("states", None)
    context = make_context(evaluator, features, **options)
    for name, value in attributes.items():
        setattr(context, name, value)
    instances = bind_all(graph) if bound == "all" else bound
    return evaluator.evaluate(
        graph, context, states, bound_function_instances=instances, data_nan_features=NOT_FAST
    )


def recorded(
    evaluator: ModuleType, graph: Any, bound: Any = "all", *, runs: int = 1, **options: Any
) -> Any:
    """The record that a number of runs leaves."""
    for _ in range(runs):
        bound_run(evaluator, graph, bound, **options)
    return graph._collect_nodes_cache


def nested() -> FunctionGraphNode:
    """Two functions, a feature and an aggregation, and a literal."""
    return rotation("f", rotation("g", feature("a"), number(2.5)), aggregation("b"))
