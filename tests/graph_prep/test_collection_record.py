"""A run with bound functions goes by the record on the graph, whatever has become of either."""

from __future__ import annotations

import copy
import pickle
from collections import UserDict
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FunctionExecutionError,
)
from support.bound_runs import NOT_FAST, bound_run, nested, recorded
from support.functions import RecordingFunction
from support.graphs import (
    feature,
    filtration,
    number,
    reduction,
    rotation,
    string,
)
from support.pools import make_pool, replace_filters
from support.reductions import stateful
from support.runs import bind_all, counting_matrix, fails, make_context, same_bits
from support.traps import Trap

TABLES = ["node_info", "float_values", "state_keys", "filtration_nodes", "reduction_nodes"]
MISSING = "Bound function instance missing for path '{}' (function '{}')"


# --- the graph has changed -----------------------------------------------------------------------


def test_a_changed_graph_is_not_noticed(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"), number(2.0))
    recorded(evaluator, graph)
    graph.children = [feature("nowhere"), number("no number")]
    graph.node = "other"
    bound = {"root": RecordingFunction()}
    same_bits(bound_run(evaluator, graph, bound).weights, counting_matrix(2))
    with fails(FunctionExecutionError, MISSING.format("root", "f")):
        bound_run(evaluator, graph, {})
    evaluator.invalidate_graph_evaluation_caches(graph)
    with fails(EvaluationError, "Feature 'nowhere' not in context"):
        bound_run(evaluator, graph, bound)


def test_the_preflight_and_the_fast_roads_see_the_graph_itself(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    recorded(evaluator, graph)
    graph.config = {"A": 1}
    with pytest.raises(FunctionExecutionError, match="engine-only"):
        bound_run(evaluator, graph)
    graph.type, graph.node, graph.config = "feature", "b", None
    context = make_context(evaluator, {"b": counting_matrix(1)})
    assert (
        evaluator.evaluate(graph, context, bound_function_instances={}).weights
        is (context.features[0])
    )


def test_a_new_stamp_is_not_noticed(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    recorded(evaluator, graph)
    graph._state_identity = "stamp"
    bound = {"root": RecordingFunction(stateful=True, state={})}
    assert list(bound_run(evaluator, graph, bound).states) == ["root"]
    evaluator.invalidate_graph_evaluation_caches(graph)
    assert list(bound_run(evaluator, graph, bound).states) == ["stamp"]


@pytest.fixture(params=[1, 2, 4])
def runs(request: pytest.FixtureRequest) -> int:
    """How many runs come before the change; all but the first go by the record."""
    return request.param


# --- the record has changed ----------------------------------------------------------------------


def rename_function(record: Any) -> None:
    record["node_info"]["root"]["node"] = "renamed"


def rename_feature(record: Any) -> None:
    record["feature_ref_names"]["root.c0"] = "b"


def forget_feature(record: Any) -> None:
    del record["feature_ref_names"]["root.c0"]


def add_unknown_feature(record: Any) -> None:
    record["feature_ref_names"]["elsewhere"] = "zz"


def add_function(record: Any) -> None:
    record["state_keys"]["elsewhere"] = "elsewhere"


def forget_function(record: Any) -> None:
    record["state_keys"].clear()


def forget_child(record: Any) -> None:
    record["node_info"]["root"]["children_paths"].remove("root.c0")


def forget_float(record: Any) -> None:
    record["float_values"].clear()


@pytest.mark.parametrize(
    ("change", "error", "text"),
    [
        (rename_function, FunctionExecutionError, MISSING.format("root", "renamed")),
        (add_unknown_feature, EvaluationError, "Feature 'zz' not in context"),
        (add_function, KeyError, "'elsewhere'"),
    ],
)
def test_faults_of_a_changed_record(
    evaluator: ModuleType, runs: int, change: Any, error: Any, text: str
) -> None:
    graph = rotation("f", feature("a"), number(2.0))
    change(recorded(evaluator, graph, runs=runs))
    bound = {} if change is rename_function else {"root": RecordingFunction()}
    with pytest.raises(error) as caught:
        bound_run(evaluator, graph, bound)
    assert str(caught.value) == text


@pytest.mark.parametrize(
    ("change", "key"),
    [(forget_feature, "root.c0"), (forget_function, "root"), (forget_float, "root.c1")],
)
def test_what_the_record_lacks(evaluator: ModuleType, runs: int, change: Any, key: str) -> None:
    graph = rotation("f", feature("a"), number(2.0))
    change(recorded(evaluator, graph, runs=runs))
    with pytest.raises(KeyError) as caught:
        bound_run(evaluator, graph)
    assert caught.value.args == (key,)


def test_a_changed_record_is_honoured(evaluator: ModuleType, runs: int) -> None:
    graph = rotation("f", feature("a"), number(2.0))
    record = recorded(evaluator, graph, runs=runs)
    rename_feature(record)
    record["float_values"]["root.c1"] = -1.5
    record["state_keys"]["root"] = "another key"
    record["node_info"]["root"]["children_paths"].reverse()
    record["node_info"] = dict(reversed(record["node_info"].items()))
    instance = RecordingFunction(stateful=True, state={"count": 1})
    result = bound_run(evaluator, graph, {"root": instance}, states={"another key": {}})
    assert result.states == {"another key": {"count": 1}}
    assert list(result.node_outputs) == ["root", "root.c1", "root.c0"]
    (first, _) = instance.calls
    same_bits(first.values[0], [-1.5] * 3)
    same_bits(first.values[1], counting_matrix(2, start=50)[0])


def test_a_child_that_was_taken_out_is_not_run(evaluator: ModuleType, runs: int) -> None:
    graph = rotation("f", rotation("g", feature("a")), number(2.0))
    forget_child(recorded(evaluator, graph, runs=runs))
    bound = bind_all(graph)
    same_bits(bound_run(evaluator, graph, bound).weights, np.full((2, 3), 2.0))
    assert bound["root.c0"].calls == []


@pytest.mark.parametrize(
    ("kind", "value", "row"),
    [("int", 4, 4.0), ("bool", "yes", 1.0), ("string", "s", 0.0), ("odd", None, 0.0)],
)
def test_a_changed_kind_is_honoured(
    evaluator: ModuleType, runs: int, kind: str, value: Any, row: float
) -> None:
    graph = feature("a")
    record = recorded(evaluator, graph, {}, runs=runs)
    record["node_info"]["root"].update(type=kind, node=value)
    same_bits(bound_run(evaluator, graph, {}).weights, np.full((2, 3), row))


def test_changed_identities_and_configuration_children_are_honoured(
    evaluator: ModuleType, runs: int
) -> None:
    graph = rotation("f", feature("a"), number(2.0))
    info = recorded(evaluator, graph, runs=runs)["node_info"]
    info["root.c0"]["canonical_id"] = "id"
    info["root"]["config_child_paths"].add("root.c1")
    instance = RecordingFunction(arity=1)
    attributes = {"_precomputed_node_outputs": {"id": [7.0] * 3}}
    result = bound_run(evaluator, graph, {"root": instance}, attributes=attributes)
    same_bits(result.weights, np.full((2, 3), 7.0))
    assert len(instance.calls[0].args) == 1


def test_changed_marks_go_by_the_record(evaluator: ModuleType, runs: int) -> None:
    graph = rotation("f", feature("a"))
    recorded(evaluator, graph, runs=runs)["node_info"]["root.c0"]["node"] = NOT_FAST[0]
    assert list(bound_run(evaluator, graph).nan_source) == ["root.c0", "root"]


def test_reductions_go_by_the_record(
    evaluator: ModuleType, runs: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_filters(monkeypatch, evaluator, top=["b"], bottom=["c"])
    graph = reduction("mean", filtration("top"), filtration("bottom"), string("gross_returns"))
    pool = make_pool(rows=1)
    options = {"useful_signals": pool, "features": {"a": counting_matrix(1)}}
    instance = stateful(state={})
    record = recorded(evaluator, graph, {"root": instance}, **options, runs=runs)
    nodes = record["filtration_nodes"]
    nodes["root.c0"] = nodes["root.c1"]
    record["reduction_nodes"]["root"]["config"] = {"pnl_column": "net_returns"}
    vectors = {"c": {"net_returns": 5.0, "gross_returns": 1.0}}
    result = bound_run(evaluator, graph, {"root": instance}, signal_pnl_vectors=vectors, **options)
    same_bits(result.weights, pool["c"].weights)
    assert instance.calls[-1].kwargs["signal_pnl"].tolist() == [5.0]


def test_a_filter_that_is_none_is_no_filter(
    evaluator: ModuleType, runs: int, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_filters(monkeypatch, evaluator, top=["b"])
    graph = reduction("mean", filtration("top"))
    pool = make_pool(rows=1)
    options = {"useful_signals": pool, "features": {"a": counting_matrix(1)}}
    record = recorded(evaluator, graph, {"root": RecordingFunction()}, **options, runs=runs)
    record["filtration_nodes"]["root.c0"] = None
    result = bound_run(evaluator, graph, {"root": RecordingFunction()}, **options)
    same_bits(result.weights, np.mean([signal.weights for signal in pool.values()], axis=0))


@pytest.mark.parametrize("key", [*TABLES, "feature_ref_names"])
def test_a_record_without_a_table(evaluator: ModuleType, runs: int, key: str) -> None:
    graph = rotation("f", feature("a"))
    del recorded(evaluator, graph, runs=runs)[key]
    with pytest.raises(KeyError) as caught:
        bound_run(evaluator, graph)
    assert caught.value.args == (key,)


def test_tables_are_taken_in_order(evaluator: ModuleType, runs: int) -> None:
    graph = rotation("f", feature("a"))
    record = recorded(evaluator, graph, runs=runs)
    for key in reversed([*TABLES, "feature_ref_names"]):
        del record[key]
        with pytest.raises(KeyError) as caught:
            bound_run(evaluator, graph)
        assert caught.value.args == (key,)
    assert record == {}


@pytest.mark.parametrize("kept", [0, False, "record", Trap()], ids=lambda kept: type(kept).__name__)
def test_a_slot_that_holds_something_else(evaluator: ModuleType, runs: int, kept: Any) -> None:
    """Anything but None is taken for a record."""
    graph = rotation("f", feature("a"), _collect_nodes_cache=kept)
    with pytest.raises(TypeError):
        bound_run(evaluator, graph)
    assert graph._collect_nodes_cache is kept


class Tables(dict):
    """A mapping of a class of its own."""


def pickled(value: Any) -> Any:
    return pickle.loads(pickle.dumps(value))


@pytest.mark.parametrize("again", [copy.copy, copy.deepcopy, pickled, Tables])
def test_a_copied_record_serves_as_well(evaluator: ModuleType, runs: int, again: Any) -> None:
    graph = nested()
    expected = bound_run(evaluator, graph)
    graph._collect_nodes_cache = kept = again(graph._collect_nodes_cache)
    kept["float_values"]["root.c0.c1"] = 9.0
    bound = bind_all(graph)
    result = bound_run(evaluator, graph, bound)
    same_bits(result.weights, expected.weights)
    same_bits(bound["root.c0"].calls[0].values[1], [9.0] * 3)
    assert graph._collect_nodes_cache is kept


@pytest.mark.parametrize("mapping", [UserDict, Tables])
def test_entries_can_be_other_mappings(
    evaluator: ModuleType, runs: int, monkeypatch: pytest.MonkeyPatch, mapping: Any
) -> None:
    replace_filters(monkeypatch, evaluator, top=["b", "c"])
    graph = rotation("f", reduction("mean", filtration("top"), string("gross_returns")))
    pool = make_pool(rows=1)
    options = {"useful_signals": pool, "features": {"a": counting_matrix(1)}}
    instances = {"root": RecordingFunction(), "root.c0": stateful(state={})}
    record = recorded(evaluator, graph, instances, **options, runs=runs)
    record["node_info"] = {path: mapping(info) for path, info in record["node_info"].items()}
    entry = record["reduction_nodes"]["root.c0"]
    for column in ({}, {"pnl_column": "net_returns"}):
        record["reduction_nodes"]["root.c0"] = mapping(entry, config=mapping(column))
        vectors = {name: {"net_returns": 5.0, "gross_returns": 1.0} for name in "bc"}
        bound_run(evaluator, graph, instances, signal_pnl_vectors=vectors, **options)
        given = instances["root.c0"].calls[-1].kwargs["signal_pnl"]
        assert given.tolist() == ([5.0, 5.0] if column else [1.0, 1.0])


class Growing(UserDict):
    """Instances that leave something in another dict when one is looked up."""

    def __init__(self, instances: Any, other: dict[Any, Any]) -> None:
        super().__init__(instances)
        self.other = other

    def __contains__(self, path: object) -> bool:
        self.other[len(self.other)] = path
        return super().__contains__(path)


def test_a_table_that_grows_while_it_is_gone_through(evaluator: ModuleType, runs: int) -> None:
    graph = nested()
    keys = recorded(evaluator, graph, runs=runs)["state_keys"]
    with fails(RuntimeError, "dictionary changed size during iteration"):
        bound_run(evaluator, graph, Growing(bind_all(graph), keys))


def test_a_record_can_change_again_and_again(evaluator: ModuleType, runs: int) -> None:
    graph = rotation("f", feature("a"), number(2.0))
    record = recorded(evaluator, graph, runs=runs)
    bound = {"root": RecordingFunction(lambda _, literal: literal)}
    for value in (3.0, -1.0, 3.0, 3.5):
        record["float_values"]["root.c1"] = value
        same_bits(bound_run(evaluator, graph, bound).weights, np.full((2, 3), value))
    children = record["node_info"]["root"]["children_paths"]
    for path, argument in (("root.c0", 0), ("root.c1", 1)):
        children[:] = ["root.c1", "root.c1"]
        children[argument] = path
        first = bound_run(evaluator, graph, bound)
        expected = counting_matrix(2) if children[1] == "root.c0" else np.full((2, 3), 3.5)
        same_bits(first.weights, expected)


@pytest.mark.parametrize(
    "value",
    [3, True, "4.5", None, np.float32(0.1), [1.0, 2.0, 3.0], np.arange(3), [5], b"6"],
    ids=repr,
)
def test_a_kept_literal_is_whatever_the_record_holds(
    evaluator: ModuleType, runs: int, value: Any
) -> None:
    graph = number(2.0)
    recorded(evaluator, graph, {}, runs=runs)["float_values"]["root"] = value
    row = np.zeros(3)
    row[:] = value
    same_bits(bound_run(evaluator, graph, {}).weights, [row, row])


@pytest.mark.parametrize("value", [[1.0, 2.0], "word", object()], ids=["short", "word", "object"])
def test_a_kept_literal_that_fits_no_row(evaluator: ModuleType, runs: int, value: Any) -> None:
    graph = number(2.0)
    recorded(evaluator, graph, {}, runs=runs)["float_values"]["root"] = value
    with pytest.raises((TypeError, ValueError)) as expected:
        np.zeros(3)[:] = value
    with pytest.raises(expected.type) as caught:
        bound_run(evaluator, graph, {})
    assert str(caught.value) == str(expected.value)


def test_a_feature_at_no_node_is_only_looked_up(evaluator: ModuleType, runs: int) -> None:
    graph = number(2.0)
    recorded(evaluator, graph, {}, runs=runs)["feature_ref_names"]["elsewhere"] = "a"
    context = make_context(evaluator, {"a": counting_matrix(2)})
    weights, _ = evaluator.evaluate(graph, context, bound_function_instances={})
    same_bits(weights, np.full((2, 3), 2.0))


def test_a_table_of_another_graph(evaluator: ModuleType, runs: int) -> None:
    graph, other = rotation("f", feature("a")), rotation("g", feature("b"), number(1.0))
    recorded(evaluator, graph, runs=runs)
    graph._collect_nodes_cache = recorded(evaluator, other, runs=runs)
    instance = RecordingFunction()
    weights, _ = bound_run(evaluator, graph, {"root": instance})
    same_bits(weights, counting_matrix(2, start=50))
    assert len(instance.calls[0].args) == 2


@pytest.mark.parametrize("again", [copy.deepcopy, pickled])
def test_a_copied_graph_brings_its_record(evaluator: ModuleType, runs: int, again: Any) -> None:
    graph = nested()
    record = recorded(evaluator, graph, runs=runs)
    copied = again(graph)
    copied._collect_nodes_cache["float_values"]["root.c0.c1"] = 9.0
    bound = bind_all(copied)
    bound_run(evaluator, copied, bound)
    same_bits(bound["root.c0"].calls[0].values[1], [9.0] * 3)
    assert record["float_values"] == {"root.c0.c1": 2.5}
    assert copied._collect_nodes_cache["node_info"]["root"]["children"] is copied.children


# --- entries that a host took away ---------------------------------------------------------------


def clear_reductions(record: dict[str, Any]) -> None:
    record["reduction_nodes"].clear()


def retype_root(record: dict[str, Any]) -> None:
    record["node_info"]["root"]["type"] = "reduction"


@pytest.mark.parametrize(("alter", "path"), [(clear_reductions, "root.c0"), (retype_root, "root")])
@pytest.mark.parametrize("cold", [False, True])
def test_a_reduction_without_its_entry(
    evaluator: ModuleType, alter: Any, path: str, cold: bool
) -> None:
    graph, context, bound = reduction_below_a_rotation(evaluator)
    alter(graph._collect_nodes_cache)
    states = {}
    if cold:
        states = {"function_states": {"root.c0": {"count": 1, "window": 2}}, "is_cold_start": True}
    with pytest.raises(KeyError) as failure:
        evaluator.evaluate(graph, context, bound_function_instances=bound, **states)
    assert failure.value.args == (path,)


def test_a_reduction_without_an_instance_extracts_first(evaluator: ModuleType) -> None:
    graph, context, bound = reduction_below_a_rotation(evaluator)
    del graph._collect_nodes_cache["state_keys"]["root.c0"]
    with fails(KeyError, "'root.c0'"):
        evaluator.evaluate(graph, context, bound_function_instances=bound)
    context.useful_signals["b"].weights = None
    with fails(TypeError, "'NoneType' object is not subscriptable"):
        evaluator.evaluate(graph, context, bound_function_instances=bound)


def test_a_record_whose_children_go_round_in_circles(evaluator: ModuleType) -> None:
    graph, context, bound = reduction_below_a_rotation(evaluator)
    graph._collect_nodes_cache["node_info"]["root.c1"]["children_paths"] = ["root"]
    with pytest.raises(RecursionError):
        evaluator.evaluate(graph, context, bound_function_instances=bound)


def reduction_below_a_rotation(evaluator: ModuleType) -> tuple[Any, Any, dict[str, Any]]:
    graph = rotation("h", reduction("f"), feature("a"))
    context = make_context(evaluator, {"a": np.ones((3, 2))}, useful_signals=make_pool("ab", 3, 2))
    below = stateful(lambda block, **_: 0.0)
    below.window = 2
    bound = {"root": RecordingFunction(lambda *rows: 1.0), "root.c0": below}
    evaluator.evaluate(graph, context, bound_function_instances=bound)
    return graph, context, bound


def test_a_table_that_tells_too_small_a_length(evaluator: ModuleType) -> None:
    class Table(dict):
        def __len__(self) -> int:
            return 1

    graph, context, bound = reduction_below_a_rotation(evaluator)
    record = graph._collect_nodes_cache
    record["node_info"] = Table(record["node_info"])
    result = evaluator.evaluate(graph, context, bound_function_instances=bound)
    same_bits(result.weights, np.ones((3, 2)))


def test_the_order_of_the_tables(evaluator: ModuleType) -> None:
    assert list(recorded(evaluator, nested())) == [
        "node_info",
        "feature_ref_names",
        "float_values",
        "state_keys",
        "filtration_nodes",
        "reduction_nodes",
    ]
