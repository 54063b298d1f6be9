"""Explaining changes nothing, and calls no function."""

from __future__ import annotations

import copy
from collections.abc import Iterator
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, default_registry
from quernbrook.reference_host.graphs import feature, filtration, reduction, rotation, signal
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.explanation import Explanation, explain

GRAPH = rotation(
    "numerical_add",
    rotation("longitudinal_mean", feature("a"), 3),
    reduction("weighted_by_pnl", filtration("top_n", "q", 1), 4),
)


def context_of(registry: Any = None, **options: Any) -> Any:
    matrix: Any = np.arange(12.0).reshape(6, 2)
    pool = {name: UsefulSignal(matrix, matrix[:, :1], {"q": 1.0}) for name in "st"}
    return EvaluationContext(
        (matrix, matrix.copy()),
        {"a": 0, "b": 1},
        registry=default_registry() if registry is None else registry,
        useful_signals=pool,
        stage_data=StageData({"c": matrix}),
        column_labels=["gross_returns"],
        **options,
    )


def nodes(graph: Node) -> Iterator[Node]:
    yield graph
    for child in graph.children or ():
        yield from nodes(child)


def insides(context: Any, graph: Node) -> Any:
    """Every attribute, objects by identity, and what containers hold."""
    attributes = dict(vars(context))
    held = [list(attributes[name]) for name in ("feature_index", "useful_signals")]
    return attributes, held, list(context.transform_pipeline), [dict(vars(n)) for n in nodes(graph)]


def same(left: Any, right: Any) -> bool:
    if isinstance(left, dict):
        return left.keys() == right.keys() and all(left[name] is right[name] for name in left)
    return all(map(same, left, right)) if left and isinstance(left[0], dict) else left == right


@pytest.mark.parametrize("with_pipeline", [False, True])
def test_context_graph_and_states_stay_as_they_are(with_pipeline: bool) -> None:
    graph = copy.deepcopy(GRAPH)
    states = evaluate(graph, context_of()).states
    template = rotation("numerical_add", signal(), feature("c"))
    stage = TransformStage("on", "on", {"on": template})
    context = context_of(transform_pipeline=[stage] if with_pipeline else None)
    before, templates = insides(context, graph), [dict(vars(node)) for node in nodes(template)]
    data = [array.copy() for array in context.features]
    saved = copy.deepcopy(states)
    explanation = explain(graph, context, states=states, cold=True, data_nan_features=["a"])
    explanation.table()
    explanation.to_json()
    explanation.svg()
    explanation.svg(5)
    after = insides(context, graph)
    assert all(same(*pair) for pair in zip(before, after, strict=True))
    assert same(templates, [dict(vars(node)) for node in nodes(template)])
    np.testing.assert_array_equal(context.features, data)
    assert repr(saved) == repr(states)


def test_a_record_left_by_a_run_with_bound_instances_stays() -> None:
    graph: Any = copy.deepcopy(GRAPH)
    registry = default_registry()
    bound = {
        "root": registry.create_instance("numerical_add"),
        "root.c0": registry.create_instance("longitudinal_mean", window=3),
        "root.c1": registry.create_instance("weighted_by_pnl", window=4),
    }
    evaluate(graph, context_of(), bound_function_instances=bound)
    record, counts = (
        graph._collect_nodes_cache,
        [one.get_state() for one in bound.values() if one.stateful],
    )
    explanation = explain(graph, context_of(), bound=bound)
    explanation.svg(3)
    assert graph._collect_nodes_cache is record
    assert repr([one.get_state() for one in bound.values() if one.stateful]) == repr(counts)


class Untouchable:
    """Whoever calls any of this ran the user's function."""

    stateful = True
    arity = 1
    made = 0
    asked = 0

    def __init__(self) -> None:
        Untouchable.made += 1

    def __call__(self, *rows: Any, context: Any = None) -> Any:
        raise AssertionError("called")

    def __quernbrook_row_block__(self, *rows: Any) -> Any:
        raise AssertionError("called with a block")

    def __quernbrook_row_kernel__(self) -> Any:
        Untouchable.asked += 1
        return None

    def get_state(self) -> Any:
        raise AssertionError("asked for its state")

    def restore(self, state: Any) -> None: ...


def test_no_function_is_called() -> None:
    registry = FunctionRegistry([FunctionEntry("f", "own", Untouchable, stateful=True)])
    explanation = explain(rotation("f", feature("a")), context_of(registry))
    assert explanation.nodes[-1].step == "strip" and not explanation.faults
    assert Untouchable.made <= 2 and Untouchable.asked == 1


def test_explanations_are_values() -> None:
    first, second = (explain(GRAPH, context_of()) for _ in range(2))
    assert first == second and isinstance(first, Explanation)
    with pytest.raises(AttributeError):
        first.rows = 1  # type: ignore[misc]
