"""Configuration is checked twice: what a graph says, before anything else, and what a function
gets once its literal children are folded in, during collection."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError
from support.functions import RecordingFunction, raising
from support.graphs import (
    boolean,
    feature,
    filtration,
    integer,
    node,
    number,
    reduction,
    rotation,
    string,
)
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, fails, lets_through

DATA = np.arange(6.0).reshape(3, 2)


def virtual(schema: Any = None, **attributes: Any) -> Any:
    return entry(family="virtualization", param_schema=schema, **attributes)


def run(evaluator: ModuleType, graph: Any, registry: Any = None, **arguments: Any) -> Any:
    context = evaluator.EvaluationContext((DATA.copy(),), {"x": 0}, registry=registry)
    return evaluator.evaluate(graph, context, **arguments)


def created(registry: RecordingRegistry) -> list[tuple[str, dict[str, Any]]]:
    return [(name, config) for method, name, _, config in registry.calls if "create" in method]


def engine_only(function: str, path: str, keys: str) -> str:
    return (
        f"Function '{function}' at node '{path}' config contains engine-only parameter(s): {keys}"
    )


def unknown(function: str, path: str, keys: str) -> str:
    return f"Function '{function}' at node '{path}' config contains unknown parameter(s): {keys}"


# --- keys that belong to the engine ----------------------------------------------------------


@pytest.mark.parametrize("build", [rotation, reduction])
@pytest.mark.parametrize(
    ("config", "keys"),
    [
        ({"N_alloc": 1, "A": 2}, "A, N_alloc"),
        ({"A": 2, "other": 0, "N_alloc": 1}, "A, N_alloc"),
        ({"A": None}, "A"),
        ({"N_alloc": 3}, "N_alloc"),
    ],
)
@pytest.mark.parametrize(
    "registry",
    [
        None,
        RecordingRegistry(),
        RecordingRegistry({"f": entry()}),
        RecordingRegistry({"f": virtual({"A": 1, "N_alloc": 1})}),
    ],
    ids=["none", "without the function", "plain", "virtualization that names them"],
)
def test_engine_only_keys(
    evaluator: ModuleType, build: Any, config: dict[str, Any], keys: str, registry: Any
) -> None:
    with fails(FunctionExecutionError, engine_only("f", "root", keys)):
        run(evaluator, build("f", feature("x"), config=config), registry)


@pytest.mark.parametrize("key", ["a", "N_ALLOC", "n_alloc", "AA", "", " A"])
def test_other_keys_are_free(evaluator: ModuleType, key: str) -> None:
    registry = RecordingRegistry({"f": entry()})
    run(evaluator, rotation("f", feature("x"), config={key: 1}), registry)
    assert created(registry) == [("f", {key: 1})]


def test_a_key_is_engine_only_when_it_compares_equal(evaluator: ModuleType) -> None:
    class Name(str):
        pass

    class Like:
        def __eq__(self, other: object) -> bool:
            return other == "A"

        def __hash__(self) -> int:
            return hash("A")

    with fails(FunctionExecutionError, engine_only("f", "root", "A")):
        run(evaluator, rotation("f", config={Name("A"): 1}))
    with pytest.raises(TypeError):  # it is engine-only, but cannot be joined to a text
        run(evaluator, rotation("f", config={Like(): 1}))


def test_engine_only_keys_are_found_before_the_registry_is_asked(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": virtual({"k": 1})})
    with fails(FunctionExecutionError, engine_only("f", "root", "A")):
        run(evaluator, rotation("f", config={"A": 1, "unknown": 2}), registry)
    assert registry.calls == []


@pytest.mark.parametrize("kind", ["feature", "float", "filtration", "anything", "Rotation", None])
def test_only_function_nodes_have_a_configuration(evaluator: ModuleType, kind: Any) -> None:
    graph = node(kind, "x", config={"A": 1, "N_alloc": 2})
    root = rotation("f", feature("x"), graph)
    registry = RecordingRegistry({"f": entry()}, {"f": RecordingFunction(1.0)})
    if kind == "float":
        graph.node = 1.0
    context = evaluator.EvaluationContext((DATA[:0],), {"x": 0}, registry=registry)
    evaluator.evaluate(root, context)
    assert created(registry) == [("f", {})]


def test_function_name_and_path_in_the_message(evaluator: ModuleType) -> None:
    inner = rotation(7, config={"A": 1})  # type: ignore[arg-type]
    graph = rotation("f", feature("x"), filtration("and_", string("s"), inner))
    with fails(FunctionExecutionError, engine_only("7", "root.c1.c1", "A")):
        run(evaluator, graph)


# --- keys that a schema must name ------------------------------------------------------------


class Schema(dict):  # type: ignore[type-arg]
    pass


def named(*names: Any) -> list[Any]:
    return [SimpleNamespace(name=name) for name in names]


SCHEMAS: list[tuple[Any, str | None]] = [
    ({"k": "int"}, "a, z"),
    (Schema(k=None), "a, z"),
    ({"k": 1, "z": 1}, "a"),
    ({"k": 1, "z": 1, "a": 1}, None),
    (named("k", "a"), "z"),
    (named("k", None, ""), "a, z"),
    (tuple(named("a", "z", "k")), None),
    ([SimpleNamespace(), *named("z")], "a, k"),
    # neither dicts nor pairs have an attribute `name`
    ([{"name": "k"}, *named("k", "z")], "a"),
    ([("a", "int"), *named("k")], "a, z"),
]


@pytest.mark.parametrize("build", [rotation, reduction])
@pytest.mark.parametrize(("schema", "keys"), SCHEMAS)
def test_explicit_configuration(
    evaluator: ModuleType, build: Any, schema: Any, keys: str | None
) -> None:
    graph = build("f", feature("x"), config={"z": 1, "k": 2, "a": 3})
    registry = RecordingRegistry({"f": virtual(schema)}, {"f": RecordingFunction(0.0)})
    if keys is None:
        # RecordingFunction is an instance here, so any configuration serves
        run(evaluator, rotation("f", feature("x"), config=graph.config), registry)
        assert created(registry) == [("f", {"z": 1, "k": 2, "a": 3})]
    else:
        with fails(FunctionExecutionError, unknown("f", "root", keys)):
            run(evaluator, graph, registry)
        assert created(registry) == []


@pytest.mark.parametrize("family", ["", "Virtualization", "rotation", None, b"virtualization"])
def test_other_families_take_any_key(evaluator: ModuleType, family: Any) -> None:
    registry = RecordingRegistry({"f": entry(family=family, param_schema={"k": "int"})})
    run(evaluator, rotation("f", feature("x"), config={"z": 1}), registry)
    assert created(registry) == [("f", {"z": 1})]


def test_entry_without_a_family(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": entry(param_schema={"k": "int"})})
    run(evaluator, rotation("f", feature("x"), config={"z": 1}), registry)
    assert created(registry) == [("f", {"z": 1})]


EMPTY = [None, {}, [], (), "", "text", [{"name": "k", "type": "int"}], named(None, "")]


@pytest.mark.parametrize("schema", EMPTY)
def test_schema_without_names(evaluator: ModuleType, schema: Any) -> None:
    """It lets explicit keys through at first, and refuses them all once they are merged."""
    registry = RecordingRegistry({"f": virtual(schema), "g": virtual(schema)})
    inner = rotation("g", feature("x"), config={"y": 1, "b": 2})
    graph = rotation("f", inner, config={"z": 1})
    with fails(FunctionExecutionError, unknown("g", "root.c0", "b, y")):
        run(evaluator, graph, registry)
    # both nodes had passed the first check before the inner one failed the second
    assert registry.names("has")[:2] == ["f", "g"]


@pytest.mark.parametrize("schema", EMPTY)
def test_schema_without_names_and_no_configuration(evaluator: ModuleType, schema: Any) -> None:
    registry = RecordingRegistry({"f": virtual(schema)})
    run(evaluator, rotation("f", feature("x")), registry)
    assert created(registry) == [("f", {})]


def test_configuration_children_are_checked_after_merging(evaluator: ModuleType) -> None:
    schema = {"window": "array", "pnl_column": "array", "data": "array"}
    children = [feature("x"), integer(3), string("col")]
    registry = RecordingRegistry({"f": virtual(schema)})
    run(evaluator, rotation("f", *children, config={"data": 1}), registry)
    merged = {"data": 1, "window": 3, "pnl_column": "col"}
    assert created(registry) == [("f", merged)]
    with fails(FunctionExecutionError, unknown("f", "root", "invert")):
        run(evaluator, rotation("f", *children, boolean(True)), registry)
    del schema["window"]
    with fails(FunctionExecutionError, unknown("f", "root", "invert, window")):
        run(evaluator, rotation("f", *children, boolean(False)), registry)


def test_statistic_of_a_weighted_reduction_must_be_named(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"weighted_by_vol": virtual({"pnl_column": "array"})})
    with fails(FunctionExecutionError, unknown("weighted_by_vol", "root", "stat_name")):
        run(evaluator, reduction("weighted_by_vol", string("vol")), registry)


def test_children_can_bring_an_engine_only_key(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": entry(param_schema={"N_alloc": "int", "A": "float"})})
    graph = rotation("f", feature("x"), integer(3), number(1.0))
    with fails(FunctionExecutionError, engine_only("f", "root", "A, N_alloc")):
        run(evaluator, graph, registry)
    assert created(registry) == []


def test_merged_engine_only_keys_come_before_unknown_ones(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": virtual({"A": "int", "k": "array"})})
    with fails(FunctionExecutionError, engine_only("f", "root", "A")):
        run(evaluator, rotation("f", integer(3), boolean(True)), registry)


# --- order -----------------------------------------------------------------------------------


@pytest.mark.parametrize("build", [rotation, reduction])
def test_parent_is_reported_before_its_child(evaluator: ModuleType, build: Any) -> None:
    graph = build("f", rotation("g", config={"A": 1}), config={"N_alloc": 1})
    with fails(FunctionExecutionError, engine_only("f", "root", "N_alloc")):
        run(evaluator, graph)
    registry = RecordingRegistry({"f": virtual({"k": 1})})
    graph = build("f", rotation("g", config={"A": 1}), config={"z": 1})
    with fails(FunctionExecutionError, unknown("f", "root", "z")):
        run(evaluator, graph, registry)


def test_children_are_visited_in_order_and_depth_first(evaluator: ModuleType) -> None:
    bad = {"A": 1}
    graph = rotation("f", rotation("g", rotation("h", config=bad)), rotation("i", config=bad))
    with fails(FunctionExecutionError, engine_only("h", "root.c0.c0", "A")):
        run(evaluator, graph)


def test_any_explicit_fault_comes_before_any_merged_one(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": virtual(), "g": entry()})
    graph = rotation("g", rotation("f", config={"z": 1}), rotation("h", config={"A": 1}))
    with fails(FunctionExecutionError, engine_only("h", "root.c1", "A")):
        run(evaluator, graph, registry)


def test_merged_configuration_is_checked_before_instances(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": virtual()})
    graph = rotation("f", feature("x"), config={"z": 1})
    text = unknown("f", "root", "z")
    with fails(FunctionExecutionError, text):
        run(evaluator, graph, registry, bound_function_instances={})
    with fails(FunctionExecutionError, text):
        run(evaluator, graph, registry, bound_function_instances={"root": None})


def test_every_question_to_the_registry(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": virtual({"k": "float"})})
    run(evaluator, rotation("f", feature("x"), config={"k": 1}), registry)
    questions = ["has", "get_entry"] * 3 + ["has", "create_instance"]
    asked = [method for method, _, _, _ in registry.calls]
    assert asked[: len(questions)] == questions


def test_questions_about_an_unknown_function(evaluator: ModuleType) -> None:
    registry = RecordingRegistry()
    with pytest.raises(FunctionExecutionError, match="cannot be instantiated"):
        run(evaluator, rotation("f", feature("x"), config={"z": 1}), registry)
    assert [method for method, _, _, _ in registry.calls] == ["has"] * 4


def test_truth_of_has_counts(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"f": virtual({"k": "int"})})
    registry.has = lambda name: []  # type: ignore[method-assign, assignment, return-value]
    with pytest.raises(FunctionExecutionError, match="cannot be instantiated"):
        run(evaluator, rotation("f", config={"z": 1}), registry)
    registry.has = lambda name: "yes"  # type: ignore[method-assign, assignment, return-value]
    with fails(FunctionExecutionError, unknown("f", "root", "z")):
        run(evaluator, rotation("f", config={"z": 1}), registry)


def test_leaf_asks_nothing(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"x": virtual({"k": "int"})})
    run(evaluator, feature("x"), registry)
    assert registry.calls == []


# --- nothing gets past it --------------------------------------------------------------------


def rank(config: dict[str, Any] | None = None) -> FunctionGraphNode:
    return rotation("latitudinal_rank", feature("x"), config=config)


def test_rank_road_passes_the_first_check_only(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({"latitudinal_rank": virtual()})
    run(evaluator, rank({"z": 1}), registry)
    assert [method for method, _, _, _ in registry.calls] == ["has", "get_entry", "has_factory"]
    with fails(FunctionExecutionError, engine_only("latitudinal_rank", "root", "A")):
        run(evaluator, rank({"A": 1}), registry)
    registry = RecordingRegistry({"latitudinal_rank": virtual({"k": "int"})})
    with fails(FunctionExecutionError, unknown("latitudinal_rank", "root", "z")):
        run(evaluator, rank({"z": 1}), registry)


@pytest.mark.parametrize(
    "arguments",
    [
        {"bound_function_instances": {}},
        {"function_states": {"root": {}}},
        {"is_cold_start": True},
        {"data_nan_features": ["x"]},
    ],
)
def test_no_argument_skips_it(evaluator: ModuleType, arguments: dict[str, Any]) -> None:
    with fails(FunctionExecutionError, engine_only("f", "root", "A")):
        run(evaluator, rotation("f", feature("x"), config={"A": 1}), **arguments)


def test_skipped_shape_validation_does_not_skip_it(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((DATA,), {"x": 0}, validate_inputs=False)
    with fails(FunctionExecutionError, engine_only("f", "root", "A")):
        evaluator.evaluate(rotation("f", config={"A": 1}), context)


def test_collected_graph_passes_the_first_check_only(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("x"), config={})
    bound = bind_all(graph)
    run(evaluator, graph, bound_function_instances=bound)
    assert graph.config is not None
    graph.config["z"] = 1
    run(evaluator, graph, RecordingRegistry({"f": virtual()}), bound_function_instances=bound)
    with fails(FunctionExecutionError, unknown("f", "root", "z")):
        run(
            evaluator,
            graph,
            RecordingRegistry({"f": virtual({"k": 1})}),
            bound_function_instances=bound,
        )
    graph.config["A"] = 1
    with fails(FunctionExecutionError, engine_only("f", "root", "A")):
        run(evaluator, graph, bound_function_instances=bound)


def test_graph_is_not_changed(evaluator: ModuleType) -> None:
    config = {"k": 1}
    graph = rotation("f", feature("x"), integer(3), config=config)
    run(evaluator, graph, RecordingRegistry({"f": entry()}))
    assert graph.config is config and config == {"k": 1}


# --- malformed graphs and hostile objects ----------------------------------------------------


@pytest.mark.parametrize("parent", [rotation, reduction, filtration, feature])
@pytest.mark.parametrize(("child", "type_name"), [({}, "dict"), (None, "NoneType"), ("x", "str")])
def test_child_that_is_no_node(
    evaluator: ModuleType, parent: Any, child: Any, type_name: str
) -> None:
    graph = parent("x")
    graph.children = [feature("x"), child]
    text = f"Graph node 'root.c1' must be FunctionGraphNode; got {type_name}"
    with fails(SchemaError, text):
        run(evaluator, graph)


@pytest.mark.parametrize("build", [feature, number, string, rotation])
@pytest.mark.parametrize("missing", ["type", "node"])
def test_child_without_a_field(evaluator: ModuleType, build: Any, missing: str) -> None:
    child = build("x")
    delattr(child, missing)
    with fails(EvaluationError, f"Graph node 'root.c0' missing required key: {missing}"):
        run(evaluator, rotation("f", child))


def test_type_is_missed_before_node(evaluator: ModuleType) -> None:
    graph = feature("x")
    del graph.type, graph.node
    with fails(EvaluationError, "Graph node 'root' missing required key: type"):
        run(evaluator, graph)


def test_node_is_checked_before_its_configuration(evaluator: ModuleType) -> None:
    graph = rotation("f", config={"A": 1})
    del graph.node
    with fails(EvaluationError, "Graph node 'root' missing required key: node"):
        run(evaluator, graph)


@pytest.mark.parametrize("config", [{1: 2}, {1: 2, "b": 3}, {("k",): 0}])
def test_unknown_keys_that_are_no_text(evaluator: ModuleType, config: Any) -> None:
    with pytest.raises(TypeError):
        run(evaluator, rotation("f", config=config), RecordingRegistry({"f": virtual({"k": 1})}))


def test_schema_that_cannot_be_read(evaluator: ModuleType) -> None:
    for schema in (5, [SimpleNamespace(name=["unhashable"])]):
        with pytest.raises(TypeError):
            run(evaluator, rotation("f"), RecordingRegistry({"f": entry(param_schema=schema)}))


@pytest.mark.parametrize("error", [OSError("gone"), KeyboardInterrupt()], ids=["error", "stop"])
@pytest.mark.parametrize("method", ["has", "get_entry"])
def test_failing_registry_passes_through(
    evaluator: ModuleType, method: str, error: BaseException
) -> None:
    registry = RecordingRegistry({"f": entry()})
    setattr(registry, method, raising(error))
    with lets_through(error):
        run(evaluator, rotation("f", feature("x")), registry)


def test_later_failures_of_the_registry_pass_through(evaluator: ModuleType) -> None:
    """The second `get_entry` of a run is guarded; the first and the third are not."""
    for failing in (1, 2, 3):
        error = OSError("gone")
        registry = RecordingRegistry({"f": entry()})
        asked: list[str] = []

        def get_entry(
            name: str, asked: list[str] = asked, failing: int = failing, error: OSError = error
        ) -> Any:
            asked.append(name)
            if len(asked) == failing:
                raise error
            return entry()

        registry.get_entry = get_entry  # type: ignore[method-assign]
        if failing == 2:
            run(evaluator, rotation("f", feature("x")), registry)
        else:
            with lets_through(error):
                run(evaluator, rotation("f", feature("x")), registry)


@pytest.mark.parametrize(
    "described",
    [
        lambda fail: type("Entry", (), {"param_schema": property(fail)})(),
        lambda fail: type("Entry", (), {"family": property(fail)})(),
        lambda fail: entry(param_schema=type("Schema", (), {"__iter__": fail})()),
        lambda fail: entry(param_schema=[type("Item", (), {"name": property(fail)})()]),
        lambda fail: entry(param_schema=named(type("Name", (), {"__bool__": fail})())),
        lambda fail: entry(param_schema=named(type("Name", (), {"__hash__": fail})())),
        lambda fail: entry(family=type("Family", (), {"__eq__": fail, "__ne__": fail})()),
    ],
)
def test_failing_entry_passes_through(evaluator: ModuleType, described: Any) -> None:
    error = OSError("gone")
    registry = RecordingRegistry({"f": described(raising(error))})
    with lets_through(error):
        run(evaluator, rotation("f", feature("x")), registry)


def test_schema_is_read_before_the_family(evaluator: ModuleType) -> None:
    first, second = OSError("schema"), OSError("family")
    kind = type(
        "Entry",
        (),
        {"param_schema": property(raising(first)), "family": property(raising(second))},
    )
    with lets_through(first):
        run(evaluator, rotation("f", feature("x")), RecordingRegistry({"f": kind()}))


def test_configuration_that_is_no_mapping(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError):
        run(evaluator, rotation("f", config=5))  # type: ignore[arg-type]


def test_failing_format_of_a_function_name(evaluator: ModuleType) -> None:
    error = OSError("gone")
    name = type("Name", (), {"__format__": raising(error)})()
    with lets_through(error):
        run(evaluator, rotation(name, config={"A": 1}))
