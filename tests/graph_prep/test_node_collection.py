"""The tables that a graph is flattened into, and the configuration that literal children give."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError
from support.functions import RecordingFunction
from support.graphs import (
    aggregation,
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
from support.runs import collected_tables, fails, lets_through, make_context

COMMON_KEYS = ["type", "node", "canonical_id", "children_paths", "children"]
FUNCTION_KEYS = [*COMMON_KEYS, "config", "config_child_paths"]


def every_kind() -> FunctionGraphNode:
    return rotation(
        "f",
        feature("a"),
        reduction("mean", filtration("top", node("pool", "all")), integer(3)),
        number("1.5"),
        aggregation("b"),
        boolean(True),
        node("odd kind", None),
        string("pnl"),
    )


def test_tables_stand_in_post_order_with_the_root_last(evaluator):
    tables = collected_tables(evaluator, every_kind())
    assert list(tables["node_info"]) == [
        "root.c0",
        "root.c1.c0.c0",
        "root.c1.c0",
        "root.c1.c1",
        "root.c1",
        "root.c2",
        "root.c3",
        "root.c4",
        "root.c5",
        "root.c6",
        "root",
    ]
    assert list(tables["state_keys"].items()) == [("root.c1", "root.c1"), ("root", "root")]
    assert list(tables["feature_ref_names"].items()) == [("root.c0", "a"), ("root.c3", "b")]
    assert tables["float_values"] == {"root.c2": 1.5}
    assert type(tables["float_values"]["root.c2"]) is float


def test_records_hold_what_the_nodes_say(evaluator):
    graph = every_kind()
    info = collected_tables(evaluator, graph)["node_info"]
    for path, record in info.items():
        function = record["type"] in ("rotation", "reduction")
        assert list(record) == (FUNCTION_KEYS if function else COMMON_KEYS), path
        assert type(record["children_paths"]) is list
    assert info["root"]["children"] is graph.children
    assert info["root"]["children_paths"] == [f"root.c{i}" for i in range(7)]
    assert info["root.c1"]["node"] == "mean"
    assert info["root.c1"]["children_paths"] == ["root.c1.c0", "root.c1.c1"]
    assert info["root.c2"]["node"] == "1.5"
    assert info["root.c5"]["type"] == "odd kind"
    assert info["root.c5"]["node"] is None
    assert info["root.c0"]["children_paths"] == []
    assert info["root.c0"]["children"] == []


@pytest.mark.parametrize("empty", [None, [], ()])
def test_a_node_without_children_gets_a_new_empty_list(evaluator, empty):
    info = collected_tables(evaluator, node("float", 1.0, empty))["node_info"]
    assert info["root"]["children"] == []
    assert type(info["root"]["children"]) is list
    assert info["root"]["children"] is not empty


def test_canonical_id_is_none_unless_the_node_has_one(evaluator):
    graph = rotation("f", feature("a"), feature("b", canonical_id="b#1"), canonical_id=None)
    info = collected_tables(evaluator, graph)["node_info"]
    assert [record["canonical_id"] for record in info.values()] == [None, "b#1", None]


def test_a_feature_as_root_has_one_record(evaluator):
    tables = collected_tables(evaluator, feature("b"), bound={})
    assert list(tables["node_info"]) == ["root"]
    assert tables["feature_ref_names"] == {"root": "b"}
    for table in ("float_values", "state_keys", "filtration_nodes", "reduction_nodes"):
        assert tables[table] == {}


def test_a_bool_as_root_is_recorded_and_nothing_more(evaluator):
    tables = collected_tables(evaluator, boolean(True), bound={})
    assert list(tables.pop("node_info")) == ["root"]
    assert all(table == {} for table in tables.values())


def test_filtrations_are_kept_as_they_are_and_first_one_serves_the_reduction(evaluator):
    first, second = filtration("top"), filtration("bottom")
    graph = rotation(
        "f", reduction("two", integer(1), first, second), reduction("none", feature("a"))
    )
    tables = collected_tables(evaluator, graph)
    assert list(tables["filtration_nodes"]) == ["root.c0.c1", "root.c0.c2"]
    assert tables["filtration_nodes"]["root.c0.c1"] is first
    assert tables["filtration_nodes"]["root.c0.c2"] is second
    reductions = tables["reduction_nodes"]
    assert list(reductions) == ["root.c0", "root.c1"]
    assert list(reductions["root.c0"]) == ["filtration_path", "config"]
    assert reductions["root.c0"]["filtration_path"] == "root.c0.c1"
    assert reductions["root.c1"]["filtration_path"] is None
    for path, record in reductions.items():
        assert record["config"] is tables["node_info"][path]["config"]


def test_a_shared_child_stands_under_each_of_its_paths_with_an_instance_each(evaluator):
    shared = rotation("g", feature("a"))
    registry = RecordingRegistry(entries={"f": entry(), "g": entry()})
    context = make_context(evaluator, {"a": np.ones((2, 3))}, registry=registry)
    evaluator.evaluate(rotation("f", shared, shared), context)
    assert registry.names("create_instance") == ["g", "g", "f"]
    left, right, _ = (instance for _, instance in registry.instances)
    assert left is not right
    assert (len(left.calls), len(right.calls)) == (2, 2)


# --- configuration from literal children ---------------------------------------------------------

INT_A, STRING_B = {"name": "a", "type": "int"}, {"name": "b", "type": "string"}
FOLDING = {
    "named first, then the fallback, a float stays an input": (
        [INT_A, STRING_B],
        [integer(1), string("s"), number(2.0), integer(3)],
        None,
        {"a": 1, "b": "s", "window": 3},
        [0, 1, 3],
    ),
    "fallback names, the string last": (
        None,
        [string("p"), integer(5), boolean(False)],
        None,
        {"window": 5, "invert": False, "pnl_column": "p"},
        [0, 1, 2],
    ),
    "named overwrites the node's own and keeps its place": (
        [INT_A],
        [integer(1)],
        {"a": 9, "z": 0},
        {"a": 1, "z": 0},
        [0],
    ),
    "a later int overwrites an earlier one": (
        None,
        [integer(5), integer(7)],
        {"window": 3},
        {"window": 7},
        [0, 1],
    ),
    "fallback names overwrite the node's own": (
        None,
        [string("p"), boolean(False)],
        {"invert": True, "pnl_column": "own", "stat_name": "own"},
        {"invert": False, "pnl_column": "p", "stat_name": "own"},
        [0, 1],
    ),
    "only the first string counts": (
        None,
        [string(""), string("x")],
        None,
        {"pnl_column": ""},
        [0, 1],
    ),
    "a string that fills a named parameter is no fallback string": (
        [STRING_B],
        [string("x"), string("y")],
        None,
        {"b": "x", "pnl_column": "y"},
        [0, 1],
    ),
    "named filling takes no account of the kind": (
        [INT_A, STRING_B],
        [boolean(True), number(0.5)],
        None,
        {"a": True, "b": 0.5},
        [0, 1],
    ),
    "real inputs use up no parameter": (
        [INT_A],
        [feature("a"), integer(4), node("odd", 1), number(1.0)],
        None,
        {"a": 4},
        [1],
    ),
    "parameters of other types are dropped but keep their number": (
        [{"name": "x", "type": "array"}, {"type": "int"}],
        [number(1.5)],
        None,
        {"param_1": 1.5},
        [0],
    ),
    "a dict of parameters": (
        {"k": "float", "data": {"type": "array"}, 7: {"type": "bool"}},
        [number(1.5), boolean(True)],
        None,
        {"k": 1.5, "7": True},
        [0, 1],
    ),
    "unused parameters leave nothing": ([INT_A, STRING_B], [feature("a")], None, {}, []),
}


@pytest.mark.parametrize(
    ("schema", "children", "own", "merged", "taken"), FOLDING.values(), ids=FOLDING.keys()
)
class TestConfigurationChildren:
    def test_in_the_tables(self, evaluator, schema, children, own, merged, taken):
        registry = RecordingRegistry(entries={"f": entry(param_schema=schema)})
        graph = rotation("f", *children, config=own)
        info = collected_tables(evaluator, graph, registry=registry)["node_info"]["root"]
        assert list(info["config"].items()) == list(merged.items())
        assert type(info["config_child_paths"]) is set
        assert info["config_child_paths"] == {f"root.c{i}" for i in taken}

    @pytest.mark.parametrize("make", [rotation, reduction])
    def test_in_the_factory(self, evaluator, schema, children, own, merged, taken, make):
        registry = RecordingRegistry(entries={"f": entry(param_schema=schema)})
        context = make_context(evaluator, {"a": np.zeros((0, 2))}, registry=registry)
        before = None if own is None else list(own.items())
        evaluator.evaluate(make("f", *children, config=own), context)
        (config,) = (config for method, _, _, config in registry.calls if method[0] == "c")
        assert list(config.items()) == list(merged.items())
        assert own is None or list(own.items()) == before


@pytest.mark.parametrize(
    ("function", "key"),
    [
        ("weighted_by_vol", "stat_name"),
        ("weighted_by_sharpe", "stat_name"),
        ("weighted_by_turnover", "stat_name"),
        ("weighted_by_Sharpe", "pnl_column"),
        ("weighted_mean", "pnl_column"),
    ],
)
def test_the_string_of_a_weighting_function_is_its_statistic(evaluator, function, key):
    graph = reduction(function, string("first"), string("second"))
    info = collected_tables(evaluator, graph)["node_info"]["root"]
    assert info["config"] == {key: "first"}
    assert info["config_child_paths"] == {"root.c0", "root.c1"}


def test_values_of_children_are_handed_on_unconverted(evaluator):
    value = object()
    info = collected_tables(evaluator, rotation("f", integer(value)))["node_info"]["root"]
    assert info["config"]["window"] is value


def test_a_factory_that_changes_its_configuration_changes_nothing_else(evaluator):
    def make(**config: Any) -> RecordingFunction:
        config.clear()
        return RecordingFunction()

    registry = RecordingRegistry(factories={"f": make})
    context = make_context(evaluator, {"a": np.ones((1, 2))}, registry=registry)
    graph = rotation("f", feature("a"), config={"k": 1})
    evaluator.evaluate(graph, context)
    evaluator.evaluate(graph, context)
    assert graph.config == {"k": 1}
    assert [call[3] for call in registry.calls if call[0] == "create_instance"] == [{"k": 1}] * 2


# --- the registry's part -------------------------------------------------------------------------


class FailingRegistry(RecordingRegistry):
    """Raises `fault` at the `nth` call of `method`."""

    def __init__(self, method: str, nth: int, fault: BaseException) -> None:
        super().__init__(entries={"f": entry(param_schema=[INT_A])})
        self.plan = (method, nth, fault)

    def _log(self, method: str, *args: Any) -> None:
        super()._log(method, *args)
        planned, nth, fault = self.plan
        if method == planned and len(self.names(method)) == nth:
            raise fault


def run_with(evaluator, registry, bound=None):
    context = make_context(evaluator, {"a": np.ones((1, 2))}, registry=registry)
    graph = rotation("f", feature("a"), integer(4))
    evaluator.evaluate(graph, context, bound_function_instances=bound)
    return registry


ASKED_BEFORE_CREATION = ["has", "get_entry"] * 3


def test_order_of_questions_to_the_registry(evaluator):
    registry = run_with(evaluator, RecordingRegistry(entries={"f": entry()}))
    assert [call[0] for call in registry.calls] == [
        *ASKED_BEFORE_CREATION,
        "has",
        "create_instance",
        "has",
        "get_entry",
    ]


def test_order_of_questions_when_the_function_is_bound(evaluator):
    registry = RecordingRegistry(entries={"f": entry()})
    run_with(evaluator, registry, {"root": RecordingFunction()})
    assert [call[0] for call in registry.calls] == ASKED_BEFORE_CREATION


def test_an_unknown_function_is_asked_about_and_never_looked_up(evaluator):
    registry = RecordingRegistry()
    run_with(evaluator, registry, {"root": RecordingFunction()})
    assert [call[0] for call in registry.calls] == ["has"] * 3


@pytest.mark.parametrize("nth", range(1, 6))
def test_a_failing_has_is_let_through(evaluator, nth):
    fault = RuntimeError("no")
    with lets_through(fault):
        run_with(evaluator, FailingRegistry("has", nth, fault))


@pytest.mark.parametrize("nth", [1, 3, 4])
def test_a_failing_lookup_is_let_through_where_it_is_needed(evaluator, nth):
    fault = RuntimeError("no")
    with lets_through(fault):
        run_with(evaluator, FailingRegistry("get_entry", nth, fault))


def test_a_failing_lookup_of_parameter_names_leaves_the_fallback(evaluator):
    registry = run_with(evaluator, FailingRegistry("get_entry", 2, RuntimeError("no")))
    assert registry.calls[-3] == ("create_instance", "f", None, {"window": 4})


@pytest.mark.parametrize("fault", [KeyboardInterrupt(), SystemExit(3), GeneratorExit()])
def test_an_interrupted_lookup_of_parameter_names_ends_the_run(evaluator, fault):
    with lets_through(fault):
        run_with(evaluator, FailingRegistry("get_entry", 2, fault))


class FailingSchema:
    """A schema that can't be iterated at the `nth` attempt."""

    def __init__(self, nth: int) -> None:
        self.left = nth
        self.fault = RuntimeError("schema")

    def __iter__(self):
        self.left -= 1
        if self.left == 0:
            raise self.fault
        return iter([entry(name="a", type="int")])


@pytest.mark.parametrize(("nth", "config"), [(2, {"window": 4}), (99, {"a": 4})])
def test_an_unreadable_schema_leaves_the_fallback(evaluator, nth, config):
    registry = RecordingRegistry(entries={"f": entry(param_schema=FailingSchema(nth))})
    run_with(evaluator, registry)
    assert registry.calls[-3] == ("create_instance", "f", None, config)


@pytest.mark.parametrize("nth", [1, 3])
def test_an_unreadable_schema_is_an_error_where_it_is_needed(evaluator, nth):
    schema = FailingSchema(nth)
    with lets_through(schema.fault):
        run_with(evaluator, RecordingRegistry(entries={"f": entry(param_schema=schema)}))


# --- failures ------------------------------------------------------------------------------------


@pytest.mark.parametrize("make", [feature, aggregation])
@pytest.mark.parametrize("name", ["zz", "", 5, ("t", 1)])
def test_a_leaf_that_the_context_lacks(evaluator, make, name):
    graph = rotation("f", make(name))
    with fails(EvaluationError, f"Feature '{name}' not in context"):
        collected_tables(evaluator, graph)
    assert getattr(graph, "_collect_nodes_cache", None) is None


@pytest.mark.parametrize("value", ["x", [], {}])
def test_a_float_literal_that_is_none(evaluator, value):
    with pytest.raises((TypeError, ValueError)) as expected:
        float(value)
    with pytest.raises(type(expected.value)) as caught:
        collected_tables(evaluator, rotation("f", number(value)))
    assert str(caught.value) == str(expected.value)


def test_a_float_literal_is_converted_once(evaluator):
    class Literal:
        conversions = 0

        def __float__(self) -> float:
            Literal.conversions += 1
            return 2.5

    context = make_context(evaluator, {"a": np.zeros((4, 2))})
    weights, _ = evaluator.evaluate(number(Literal()), context)
    assert Literal.conversions == 1
    assert weights.tolist() == [[2.5, 2.5]] * 4


NOT_A_NODE = {"type": "feature"}
MISSING_FIRST = [
    (
        "the child's fault before the parent's",
        rotation("f", feature("zz")),
        {},
        EvaluationError("Feature 'zz' not in context"),
    ),
    (
        "the earlier child's fault before the later one's",
        rotation("f", rotation("g", feature("y")), feature("z")),
        None,
        EvaluationError("Feature 'y' not in context"),
    ),
    (
        "a fault of the graph before one of collection",
        rotation("f", feature("zz"), rotation("g", NOT_A_NODE)),
        {},
        SchemaError("Graph node 'root.c1.c0' must be FunctionGraphNode; got dict"),
    ),
    (
        "explicit configuration before collection",
        rotation("f", feature("zz"), config={"N_alloc": 1, "A": 2}),
        {},
        FunctionExecutionError(
            "Function 'f' at node 'root' config contains engine-only parameter(s): A, N_alloc"
        ),
    ),
    (
        "merged configuration before the choice of the instance",
        rotation("engine", integer(3)),
        {"root": None},
        FunctionExecutionError(
            "Function 'engine' at node 'root' config contains engine-only parameter(s): N_alloc"
        ),
    ),
    (
        "merged configuration against the virtualization schema",
        rotation("virtual", integer(3), string("s"), boolean(True)),
        {"root": None},
        FunctionExecutionError(
            "Function 'virtual' at node 'root' config contains unknown parameter(s): "
            "invert, pnl_column"
        ),
    ),
    (
        "the deeper instance before the upper one",
        rotation("f", rotation("g", feature("a"))),
        {"root": None},
        FunctionExecutionError("Bound function instance missing for path 'root.c0' (function 'g')"),
    ),
]


@pytest.mark.parametrize(
    ("graph", "bound", "error"),
    [case[1:] for case in MISSING_FIRST],
    ids=[case[0] for case in MISSING_FIRST],
)
def test_which_of_two_faults_is_reported(evaluator, graph, bound, error):
    registry = RecordingRegistry(
        entries={
            "engine": entry(param_schema=[{"name": "N_alloc", "type": "int"}]),
            "virtual": entry(param_schema={"window": "array"}, family="virtualization"),
        }
    )
    context = make_context(evaluator, {"a": np.zeros((1, 2))}, registry=registry)
    with fails(type(error), str(error)):
        evaluator.evaluate(graph, context, bound_function_instances=bound)
    assert context.registers is None


def test_an_instance_is_created_before_a_later_child_fails(evaluator):
    registry = RecordingRegistry(entries={"g": entry()})
    context = make_context(evaluator, {"a": np.zeros((1, 2))}, registry=registry)
    with fails(EvaluationError, "Feature 'zz' not in context"):
        evaluator.evaluate(rotation("f", rotation("g", feature("a")), feature("zz")), context)
    assert registry.names("create_instance") == ["g"]
