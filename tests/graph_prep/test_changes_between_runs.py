"""What a host changes in a graph or its record between two runs counts in the next one."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError
from support.bound_runs import bound_run
from support.functions import RecordingFunction
from support.graphs import feature, number, rotation
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, counting_matrix, fails, make_context, same_bits

# The record is made by the first and read by the second.
RUNS = 2
Change = Callable[[FunctionGraphNode], None]


def two_functions() -> FunctionGraphNode:
    inner = rotation("g", feature("a"), number(2.5), config={"k": 1})
    return rotation("f", inner, feature("b"))


def inner(graph: FunctionGraphNode) -> FunctionGraphNode:
    return graph.children[0]


def run_before(evaluator: ModuleType, graph: FunctionGraphNode) -> None:
    for _ in range(RUNS):
        bound_run(evaluator, graph)


def engine_only(path: str, function: str) -> str:
    return (
        f"Function '{function}' at node '{path}' config contains engine-only parameter(s): N_alloc"
    )


def fill_configuration(graph: FunctionGraphNode) -> None:
    inner(graph).config["N_alloc"] = 1


def set_configuration(graph: FunctionGraphNode) -> None:
    graph.config = {"N_alloc": 1}


def replace_a_child(graph: FunctionGraphNode) -> None:
    graph.children[1] = object()


def add_a_child(graph: FunctionGraphNode) -> None:
    inner(graph).children.append("child")


def replace_the_children(graph: FunctionGraphNode) -> None:
    graph.children = (inner(graph), None)


def forget_the_value(graph: FunctionGraphNode) -> None:
    del inner(graph).node


def replace_the_attributes(graph: FunctionGraphNode) -> None:
    attributes = dict(vars(inner(graph)))
    del attributes["type"]
    vars(graph)["children"][0].__dict__ = attributes


def make_a_function_of_a_leaf(graph: FunctionGraphNode) -> None:
    leaf = graph.children[1]
    leaf.type, leaf.config = "rotation", {"N_alloc": 1}


@pytest.mark.parametrize(
    ("change", "error", "text"),
    [
        (fill_configuration, FunctionExecutionError, engine_only("root.c0", "g")),
        (set_configuration, FunctionExecutionError, engine_only("root", "f")),
        (make_a_function_of_a_leaf, FunctionExecutionError, engine_only("root.c1", "b")),
        (
            replace_a_child,
            SchemaError,
            "Graph node 'root.c1' must be FunctionGraphNode; got object",
        ),
        (add_a_child, SchemaError, "Graph node 'root.c0.c2' must be FunctionGraphNode; got str"),
        (
            replace_the_children,
            SchemaError,
            "Graph node 'root.c1' must be FunctionGraphNode; got NoneType",
        ),
        (forget_the_value, EvaluationError, "Graph node 'root.c0' missing required key: node"),
        (
            replace_the_attributes,
            EvaluationError,
            "Graph node 'root.c0' missing required key: type",
        ),
    ],
)
def test_a_fault_that_was_put_in(
    evaluator: ModuleType, change: Change, error: type[Exception], text: str
) -> None:
    graph = two_functions()
    instances = bind_all(graph)
    run_before(evaluator, graph)
    change(graph)
    for _ in range(2):
        with fails(error, text):
            bound_run(evaluator, graph, instances)


def test_a_fault_that_was_taken_out(evaluator: ModuleType) -> None:
    graph = two_functions()
    run_before(evaluator, graph)
    for _ in range(RUNS):
        inner(graph).config["N_alloc"] = 1
        with fails(FunctionExecutionError, engine_only("root.c0", "g")):
            bound_run(evaluator, graph)
        del inner(graph).config["N_alloc"]
        bound_run(evaluator, graph)


def test_a_class_that_gets_a_property(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    graph = two_functions()
    instances = bind_all(graph)
    run_before(evaluator, graph)
    monkeypatch.setattr(
        FunctionGraphNode, "config", property(lambda _: {"N_alloc": 1}), raising=False
    )
    with fails(FunctionExecutionError, engine_only("root", "f")):
        bound_run(evaluator, graph, instances)


def test_a_registry_that_comes_later(evaluator: ModuleType) -> None:
    graph = two_functions()
    run_before(evaluator, graph)
    registry = RecordingRegistry({"g": entry(family="virtualization", param_schema={"o": {}})})
    text = "Function 'g' at node 'root.c0' config contains unknown parameter(s): k"
    with fails(FunctionExecutionError, text):
        bound_run(evaluator, graph, registry=registry)


def test_nodes_whose_attributes_were_set_in_any_order(evaluator: ModuleType) -> None:
    """Instances of a class share the keys of their dictionaries, but not all do."""
    backwards, again, emptied = feature("a"), feature("a"), feature("a")
    attributes = dict(reversed(vars(backwards).items()))
    backwards.__dict__.clear()
    vars(backwards).update(attributes)
    del again.type
    again.type = "feature"
    del emptied.children, emptied.config
    emptied.config, emptied.extra, emptied.children = None, 1, None
    graph = rotation("f", backwards, again, emptied, feature("b"), config={})
    for bound in ({"root": RecordingFunction()}, {"root": RecordingFunction()}):
        bound_run(evaluator, graph, bound)
        a, b = counting_matrix(2), counting_matrix(2, start=50)
        given = bound["root"].calls[1].values
        same_bits(np.array(given), np.array([a[1], a[1], a[1], b[1]]))


# --- changes in the middle of a run --------------------------------------------------------------


class OddKey:
    """A key of a dictionary that runs code when `name` is looked up there."""

    def __init__(self, name: str, answer: Callable[[], bool]) -> None:
        self.name, self.answer = name, answer

    def __hash__(self) -> int:
        return hash(self.name)

    def __eq__(self, other: object) -> bool:
        return other == self.name and self.answer()


def put_first(attributes: dict[Any, Any], key: Any, value: Any) -> None:
    others = dict(attributes)
    attributes.clear()
    attributes[key] = value
    attributes.update(others)


def test_a_key_that_answers_otherwise(evaluator: ModuleType) -> None:
    graph = two_functions()
    answers = {"config": False}
    put_first(vars(graph), OddKey("config", lambda: answers["config"]), {"N_alloc": 1})
    run_before(evaluator, graph)
    answers["config"] = True
    with fails(FunctionExecutionError, engine_only("root", "f")):
        bound_run(evaluator, graph, {"root": RecordingFunction(), "root.c0": RecordingFunction()})


def test_a_context_that_runs_other_graphs(evaluator: ModuleType) -> None:
    others = [rotation("g", number(float(value))) for value in range(40)]
    bound = {"root": RecordingFunction()}
    graph = rotation("f", feature("a"))
    for _ in range(RUNS):
        bound_run(evaluator, graph, bound)
    busy = []

    def run_others() -> bool:
        if not busy:
            busy.append(True)
            for other in others * RUNS:
                bound_run(evaluator, other, bound)
        return False

    context = make_context(evaluator, {"a": counting_matrix(2)})
    put_first(vars(context), OddKey("feature_index", run_others), None)
    result = evaluator.evaluate(
        graph, context, bound_function_instances=bound, data_nan_features=["none"]
    )
    same_bits(result.weights, counting_matrix(2))
    assert busy


class Meddling(dict[str, Any]):
    """Bound instances that change something when they are looked for."""

    def __init__(self, instances: Any, change: Callable[[], None]) -> None:
        super().__init__(instances)
        self.change = change

    def __contains__(self, path: object) -> bool:
        self.change()
        return super().__contains__(path)


def test_a_record_that_grows_while_it_is_read(evaluator: ModuleType) -> None:
    graph = rotation("f", number(2.0))
    bound_run(evaluator, graph)
    info: Any = graph._collect_nodes_cache["node_info"]

    def grow() -> None:
        info["extra"] = info["root.c0"]

    bound_run(evaluator, graph, Meddling(bind_all(graph), grow))
    for _ in range(RUNS):
        outputs = bound_run(evaluator, graph).node_outputs
        assert list(outputs) == ["root.c0", "root", "extra"]


def test_a_set_that_changes_the_record(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"), number(2.5))
    bound_run(evaluator, graph)
    record: Any = graph._collect_nodes_cache
    armed = []

    def change() -> bool:
        if armed:
            record["float_values"]["root.c1"] = 9.0
        return False

    record["node_info"]["root"]["config_child_paths"] = {OddKey("root.c0", change)}
    run_before(evaluator, graph)
    armed.append(True)
    bound_run(evaluator, graph)
    result = bound_run(evaluator, graph)
    same_bits(result.node_outputs["root.c1"], np.full((2, 3), 9.0))


class Bomb:
    """Does something when it is let go."""

    def __init__(self, action: Callable[[], None]) -> None:
        self.action = action

    def __del__(self) -> None:
        self.action()


def test_attributes_that_go_in_the_middle_of_a_walk(evaluator: ModuleType) -> None:
    leaf: Any = rotation("g", feature("a"))
    graph: Any = rotation("f", leaf)
    leaf.extra = 1
    exploded = []

    def explode() -> None:
        exploded.append(True)
        del leaf.extra

    class Exchanging(RecordingRegistry):
        def has(self, name: str) -> bool:
            if name == "f" and not hasattr(graph, "bomb"):
                graph.bomb = Bomb(explode)
                graph.__dict__ = {**vars(graph), "bomb": None}
            return False

    result = bound_run(evaluator, graph, registry=Exchanging())
    same_bits(result.weights, counting_matrix(2))
    assert exploded
