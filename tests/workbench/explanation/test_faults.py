"""All faults at once, and none where a run has none."""

from __future__ import annotations

import sys
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, default_registry
from quernbrook.reference_host.graphs import feature, number, rotation
from quernbrook.simulator_engine._types import SimulatorEngineError
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.explanation import Explanation, ExplanationError, explain
from quernbrook.workbench.panels import synthetic_panel
from support.registries import RecordingRegistry, entry


def context_of(registry: Any = None, rows: int = 6, **options: Any) -> Any:
    matrix = np.arange(rows * 2.0).reshape(rows, 2)
    return EvaluationContext((matrix,), {"close": 0}, registry=registry, **options)


def told(explanation: Explanation) -> list[str]:
    return [str(fault) for fault in explanation.faults]


def test_every_fault_is_told_with_its_path_and_the_nearest_name() -> None:
    graph = rotation(
        "numerical_multply",
        rotation("longitudinal_mean", feature("clsoe"), 40),
        Node("rotation", "longitudinal_std", [feature("close")], {"windw": 3}),
    )
    found = told(explain(graph, context_of(default_registry()), data_nan_features=["Close"]))
    assert found == [
        "root: the registry has no function 'numerical_multply'; did you mean 'numerical_multiply'?",
        "root.c0.c0: the context has no feature 'clsoe'; did you mean 'close'?",
        "root.c1: 'longitudinal_std' has no parameter 'windw'; did you mean 'window'?",
        "data_nan_features: the graph reads no feature 'Close'; did you mean 'close'?",
        "root.c0: 'longitudinal_mean' is full after 40 rows; the history has 6",
    ]


@pytest.mark.parametrize("states", [{"root.c": None}, {}])
def test_state_keys(states: dict[str, Any]) -> None:
    graph = rotation("longitudinal_mean", feature("close"), 2)
    found = told(explain(graph, context_of(default_registry()), states=states))
    assert "function_states: no state for 'root' (longitudinal_mean)" in found
    assert len(found) == 1 + len(states)


def test_a_state_of_another_window() -> None:
    states = evaluate(
        rotation("longitudinal_mean", feature("close"), 2), context_of(default_registry())
    ).states
    graph = rotation("longitudinal_mean", feature("close"), 3)
    (fault,) = told(explain(graph, context_of(default_registry()), states=states))
    assert fault.startswith("root: 'longitudinal_mean' can't be made: FunctionExecutionError: ")


def test_bound_functions_need_no_registry() -> None:
    graph = rotation("mine", feature("close"))
    registry = default_registry()
    bound = {"root": registry.create_instance("numerical_negate")}
    for one in (None, registry, RecordingRegistry()):
        assert not told(explain(graph, context_of(one), bound=bound))
    assert told(explain(graph, context_of(None))) == ["root: the registry has no function 'mine'"]


def test_fast_roads_need_no_registry() -> None:
    assert not told(explain(rotation("latitudinal_rank", feature("close")), context_of(None)))


def test_other_registries() -> None:
    registry = RecordingRegistry({"f": entry(stateful=False)})
    graph = rotation("g", rotation("f", feature("close")))
    assert told(explain(graph, context_of(registry))) == ["root: the registry has no function 'g'"]


def test_a_registry_of_ones_own_goes_before_that_of_the_context() -> None:
    registry = FunctionRegistry([FunctionEntry("f", "own", lambda: lambda row, context: row)])
    context = context_of(default_registry())
    graph = rotation("f", feature("close"))
    texts = told(explain(graph, context, registry))
    assert texts == ["root: an instance of 'f' has no attribute 'stateful'"]


NO_NODE: Any = {"type": "feature"}


@pytest.mark.parametrize(
    ("graph", "options", "fault"),
    [
        (NO_NODE, {}, "root: a node must be a FunctionGraphNode; got dict"),
        (rotation("numerical_negate"), {"children": [NO_NODE]}, "root.c0: a node must be"),
    ],
)
def test_graphs_that_cannot_be_read(graph: Any, options: Any, fault: str) -> None:
    for name, value in options.items():
        setattr(graph, name, value)
    explanation = explain(graph, context_of(default_registry()))
    assert told(explanation)[0].startswith(fault)
    assert explanation.road is None and not explanation.nodes
    assert explanation.svg().startswith("<svg") and explanation.to_json()["faults"]
    with pytest.raises(ExplanationError, match="can't be read"):
        explanation.svg(0)


def test_parameters_of_the_engine() -> None:
    graph = Node("rotation", "latitudinal_rank", [feature("close")], {"A": 1})
    for registry in (None, default_registry()):
        explanation = explain(graph, context_of(registry))
        assert explanation.road is None and len(explanation.faults) == 1
        with pytest.raises(SimulatorEngineError, match="engine-only"):
            evaluate(graph, context_of(registry))


def test_a_strict_family() -> None:
    strict = entry(family="virtualization", param_schema={"a": "int"}, stateful=False)
    graph = Node("rotation", "f", [feature("close")], {"a": 1, "b": 2})
    explanation = explain(graph, context_of(RecordingRegistry({"f": strict})))
    assert told(explanation) == ["root: config contains unknown parameter(s): b"]
    assert explanation.road is None


def test_a_node_below_itself() -> None:
    graph = rotation("numerical_negate", feature("close"))
    graph.children = [graph]
    assert "stands below itself" in told(explain(graph, context_of(default_registry())))[0]


def test_no_features() -> None:
    context = EvaluationContext((), {}, registry=default_registry())
    assert "features: the context has no features" in told(explain(number(1.0), context))


def test_a_universe_of_another_shape() -> None:
    context = context_of(default_registry())
    context.universe = np.ones((2, 2))
    (fault,) = told(explain(feature("close"), context))
    assert fault.startswith("context: Feature dimension mismatch")


def test_features_that_nobody_checked() -> None:
    context = context_of(default_registry())
    context.features = ([1.0, 2.0],)
    context._skip_evaluation_shape_validation = True
    (fault,) = told(explain(number(1.0), context))
    assert fault == "context: AttributeError: 'list' object has no attribute 'shape'"


def test_stage_data_of_another_shape() -> None:
    context = context_of(default_registry(), stage_data=StageData({"c": np.ones((2, 2))}))
    graph = rotation("numerical_add", feature("close"), feature("c"))
    texts = told(explain(graph, context))
    assert texts == ["root.c1: feature 'c' has shape (2, 2), expected (6, 2)"]


def test_panels_and_their_universe() -> None:
    panel = synthetic_panel(5, 20)
    assert not told(explain(rotation("longitudinal_mean", feature("close"), 3), panel))
    masked = explain(feature("close"), panel, universe="cap")
    assert masked.memory.weights > 0
    with pytest.raises(ExplanationError, match="unknown field 'cpa'; the nearest is 'cap'"):
        explain(feature("close"), panel, universe="cpa")
    with pytest.raises(ExplanationError, match="a context has its own universe"):
        explain(feature("close"), context_of(), universe="cap")


def test_deep_graphs() -> None:
    graph = feature("close")
    depth = sys.getrecursionlimit() + 100
    for _ in range(depth):
        graph = rotation("numerical_negate", graph)
    explanation = explain(graph, context_of(default_registry()))
    assert len(explanation.nodes) == depth + 1 and explanation.road is None
    assert told(explanation)[0].startswith("root: the graph nests too deeply")
    with pytest.raises(RecursionError):
        evaluate(graph, context_of(default_registry()))
