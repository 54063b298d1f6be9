"""Graphs that run together give what each gives by itself."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench import together
from quernbrook.workbench.formulas import parse_formula
from quernbrook.workbench.together import evaluate_together

pytest.importorskip("quernbrook.row_kernels")

FORMULAS = [
    "rank(close)",
    "close",
    "-1 * correlation(rank(open), rank(volume), 10)",
    "correlation(rank(open), rank(volume), 10) + ts_max(correlation(rank(open), rank(volume), 10), 3)",
    "delta(close, 5) / stddev(close, 20)",
    "stddev(close, 20)",
    "sum(close, 8) / 8",
]


def make_context(**options: Any) -> EvaluationContext:
    rng = np.random.default_rng(3)
    names = ("open", "close", "volume")
    features = tuple(rng.normal(100.0, 5.0, (90, 17)) for _ in names)
    features[1][30:33, 4] = np.nan
    index = {name: place for place, name in enumerate(names)}
    return EvaluationContext(features, index, registry=default_registry(), **options)


def graphs() -> dict[str, Node]:
    return {text: parse_formula(text, features=("open", "close", "volume")) for text in FORMULAS}


def by_itself(graph: Node, **options: Any) -> Any:
    return evaluate(graph, make_context(**options))


def assert_same(together_result: Any, alone: Any) -> None:
    assert together_result.weights.tobytes() == alone.weights.tobytes()
    assert together_result.states.keys() == alone.states.keys()
    for key, state in alone.states.items():
        assert together_result.states[key].name == state.name
        np.testing.assert_equal(together_result.states[key].state_data, state.state_data)


@pytest.mark.parametrize("with_universe", [False, True])
def test_weights_and_states_are_those_of_single_runs(with_universe: bool) -> None:
    universe = np.ones((90, 17))
    universe[40:60, 3] = 0.0
    options = {"universe": universe} if with_universe else {}
    results = evaluate_together(graphs(), make_context(**options))
    assert list(results) == FORMULAS
    for text, graph in graphs().items():
        assert_same(results[text], by_itself(graph, **options))


def test_equal_parts_are_computed_once(monkeypatch: pytest.MonkeyPatch) -> None:
    registry = default_registry()
    made: list[Any] = []
    create = registry.create_instance

    def creating(name: str, /, **config: Any) -> Any:
        made.append(create(name, **config))
        return made[-1]

    monkeypatch.setattr(registry, "create_instance", creating)
    context = make_context()
    context.registry = registry
    both = [FORMULAS[2], FORMULAS[3]]
    evaluate_together({text: graphs()[text] for text in both}, context)
    counts = [
        instance.get_state().state_data["count"]
        for instance in made
        if instance.name == "longitudinal_correlation"
    ]
    assert sorted(counts) == [0, 0, 90]


def test_nothing_is_left_on_the_context() -> None:
    context = make_context()
    registry = context.registry
    evaluate_together(graphs(), context)
    assert context.registry is registry
    assert context.registers is None
    assert context.universe_mask is None


def test_a_failure_is_that_of_the_graph() -> None:
    failing = {"good": graphs()[FORMULAS[0]], "bad": Node("feature", "absent")}
    with pytest.raises(EvaluationError, match="Feature 'absent' not in context"):
        evaluate_together(failing, make_context())
    unknown = {"good": graphs()[FORMULAS[0]], "bad": Node("rotation", "no_such_function", [])}
    with pytest.raises(FunctionExecutionError, match="'no_such_function' at node 'root'"):
        evaluate_together(unknown, make_context())


def test_many_graphs_go_in_several_chains(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(together, "_MOST_AT_ONCE", 3)
    results = evaluate_together(graphs(), make_context())
    for text, graph in graphs().items():
        assert_same(results[text], by_itself(graph))


def test_one_graph_and_none() -> None:
    assert evaluate_together({}, make_context()) == {}
    (result,) = evaluate_together({"one": graphs()[FORMULAS[0]]}, make_context()).values()
    assert_same(result, by_itself(graphs()[FORMULAS[0]]))


def test_without_row_kernels_graphs_run_one_by_one(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(together, "RowFiling", None)
    results = evaluate_together(graphs(), make_context())
    for text, graph in graphs().items():
        assert_same(results[text], by_itself(graph))
