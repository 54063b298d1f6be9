"""The tables of a graph, kept at its root for later runs with bound functions."""

from __future__ import annotations

import copy
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.simulator_engine._types import (
    EvaluationError,
    EvaluationShapeError,
    FunctionExecutionError,
)
from support.bound_runs import NOT_FAST, bound_run, nested, recorded
from support.functions import RecordingFunction, raising
from support.graphs import (
    aggregation,
    feature,
    filtration,
    integer,
    number,
    reduction,
    rotation,
    string,
)
from support.pools import make_pool, replace_filters
from support.reductions import stateful
from support.refusing_nodes import SlottedNode, failing_slot, refusing
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, counting_matrix, fails, lets_through, make_context, same_bits

TABLES = ["node_info", "float_values", "state_keys", "filtration_nodes", "reduction_nodes"]
KEYS = {*TABLES, "feature_ref_names"}
MISSING = "Bound function instance missing for path '{}' (function '{}')"
IS_NONE = "Bound function instance is None for node '{}' (function '{}')"


# --- what is kept --------------------------------------------------------------------------------


def test_the_record(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    replace_filters(monkeypatch, evaluator, top=["a"])
    filters = filtration("top")
    graph = rotation(
        "f",
        feature("b"),
        number("1.5"),
        reduction("mean", filters, string("pnl"), _state_identity="kept"),
        aggregation("a", canonical_id="id"),
    )
    bound = bind_all(graph, lambda: stateful(1.0, state={}))
    record = recorded(evaluator, graph, bound, useful_signals=make_pool(rows=2))
    assert type(record) is dict
    assert set(record) == KEYS
    assert all(type(record[key]) is dict for key in KEYS)
    paths = ["root.c0", "root.c1", "root.c2.c0", "root.c2.c1", "root.c2", "root.c3", "root"]
    assert list(record["node_info"]) == paths
    assert list(record["feature_ref_names"].items()) == [("root.c0", "b"), ("root.c3", "a")]
    assert record["float_values"] == {"root.c1": 1.5}
    assert list(record["state_keys"].items()) == [("root.c2", "kept"), ("root", "root")]
    assert record["filtration_nodes"]["root.c2.c0"] is filters
    config = {"pnl_column": "pnl"}
    assert record["reduction_nodes"] == {
        "root.c2": {"filtration_path": "root.c2.c0", "config": config}
    }
    info = record["node_info"]
    assert info["root.c2"]["config"] is record["reduction_nodes"]["root.c2"]["config"]
    assert info["root"]["children"] is graph.children
    assert info["root.c3"]["canonical_id"] == "id"


def test_later_runs_leave_the_record_as_it_is(evaluator: ModuleType) -> None:
    graph = nested()
    record = recorded(evaluator, graph)
    tables = dict(record)
    before = copy.deepcopy(record)
    same_bits(bound_run(evaluator, graph).weights, bound_run(evaluator, nested()).weights)
    assert graph._collect_nodes_cache is record
    assert all(record[key] is tables[key] for key in KEYS)
    assert repr(record) == repr(before)
    assert not any(hasattr(child, "_collect_nodes_cache") for child in graph.children)


@pytest.mark.parametrize("states", [None, {}])
def test_only_bound_runs_keep_and_use_it(evaluator: ModuleType, states: Any) -> None:
    registry = RecordingRegistry(factories={"f": RecordingFunction(), "g": RecordingFunction()})
    graph = nested()
    bound_run(evaluator, graph, None, registry=registry, states=states)
    assert not hasattr(graph, "_collect_nodes_cache")
    graph._collect_nodes_cache = kept = "no record at all"
    bound_run(evaluator, graph, None, registry=registry, states=states)
    assert graph._collect_nodes_cache is kept


@pytest.mark.parametrize("graph", [feature("a"), rotation("latitudinal_rank", feature("a"))])
def test_a_fast_road_keeps_nothing(evaluator: ModuleType, graph: Any) -> None:
    context = make_context(evaluator, {"a": counting_matrix(2)})
    evaluator.evaluate(graph, context, bound_function_instances={})
    assert not hasattr(graph, "_collect_nodes_cache")


def test_a_slot_of_none_is_filled_again(evaluator: ModuleType) -> None:
    graph = nested()
    first = recorded(evaluator, graph)
    evaluator.invalidate_graph_evaluation_caches(graph)
    second = recorded(evaluator, graph)
    assert second is not first
    assert repr(second) == repr(first)


def test_failing_walks_keep_nothing(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    for bound in ({}, {"root": None}):
        with pytest.raises(FunctionExecutionError):
            bound_run(evaluator, graph, bound)
        assert not hasattr(graph, "_collect_nodes_cache")


def test_what_fails_after_the_walk_leaves_the_record(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("b"))
    features = {"a": counting_matrix(2), "b": counting_matrix(1)}
    with pytest.raises(EvaluationShapeError):
        bound_run(evaluator, graph, features=features, validate_inputs=False)
    assert graph._collect_nodes_cache["feature_ref_names"] == {"root.c0": "b"}


# --- when it serves ------------------------------------------------------------------------------


class Stubborn(SimpleNamespace):
    """A context whose pipeline stays, whatever is written to it; its reads are counted."""

    pipeline: Any = ()
    reads = 0

    @property
    def transform_pipeline(self) -> Any:
        self.reads += 1
        return self.pipeline

    @transform_pipeline.setter
    def transform_pipeline(self, _: Any) -> None:
        pass


def stubborn(evaluator: ModuleType, **attributes: Any) -> Stubborn:
    given = vars(make_context(evaluator, {"a": counting_matrix(2)})).copy()
    del given["transform_pipeline"], given["transforms_already_combined"]
    return Stubborn(**{**given, "_evaluation_lock": None, **attributes})


@pytest.mark.parametrize(
    ("bound", "combined", "reads"), [(None, False, 1), ({}, False, 2), ({}, True, 2)]
)
def test_the_pipeline_is_asked_for_bound_runs_only(
    evaluator: ModuleType, bound: Any, combined: bool, reads: int
) -> None:
    context, graph = stubborn(evaluator), number(1.0)
    if combined:
        context.pipeline, context.transforms_already_combined = ["stage"], True
    evaluator.evaluate(graph, context, bound_function_instances=bound, data_nan_features=NOT_FAST)
    assert context.reads == reads
    assert hasattr(graph, "_collect_nodes_cache") is (bound is not None)


@pytest.mark.parametrize("combined", [False, None])
def test_a_pipeline_that_is_still_there_keeps_it_away(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, combined: Any
) -> None:
    merged = number(1.0, _collect_nodes_cache=None)
    monkeypatch.setattr(evaluator, "combine_signal_and_transforms", lambda *_: merged)
    context = stubborn(evaluator, pipeline=["stage"])
    if combined is not None:
        context.transforms_already_combined = combined
    evaluator.evaluate(
        number(2.0), context, bound_function_instances={}, data_nan_features=NOT_FAST
    )
    assert merged._collect_nodes_cache is None


def test_a_merged_graph_keeps_its_own(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    graph, merged = nested(), []
    record = recorded(evaluator, graph)

    def combine(signal: Any, *_: Any) -> Any:
        assert signal is not graph
        assert signal._collect_nodes_cache is None
        merged.append(rotation("top", signal))
        return merged[0]

    monkeypatch.setattr(evaluator, "combine_signal_and_transforms", combine)
    bound = {path: RecordingFunction() for path in ("root", "root.c0", "root.c0.c0")}
    bound_run(evaluator, graph, bound, transform_pipeline=["stage"])
    assert graph._collect_nodes_cache is record
    kept = merged[0]._collect_nodes_cache
    # The stamps of the signal's functions are their paths without the transform.
    assert kept["state_keys"] == {"root.c0.c0": "root.c0", "root.c0": "root", "root": "root"}


@pytest.mark.parametrize("fault", [AttributeError("x"), TypeError("x")], ids=repr)
def test_a_graph_that_keeps_nothing(evaluator: ModuleType, fault: BaseException) -> None:
    graph = refusing(fault)("rotation", "f", [feature("a")])
    for _ in range(2):
        same_bits(bound_run(evaluator, graph).weights, counting_matrix(2))


@pytest.mark.parametrize("fault", [ValueError("x"), KeyboardInterrupt()], ids=repr)
def test_other_faults_of_the_slot_pass(evaluator: ModuleType, fault: BaseException) -> None:
    for make in (refusing, failing_slot):
        instance = RecordingFunction()
        with lets_through(fault):
            bound_run(evaluator, make(fault)("rotation", "f", [feature("a")]), {"root": instance})
        assert instance.calls == []


def test_a_class_without_room(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "FunctionGraphNode", SlottedNode)
    graph = SlottedNode("rotation", "f", [SlottedNode("feature", "b")])
    for _ in range(2):
        same_bits(bound_run(evaluator, graph).weights, counting_matrix(2, start=50))
    graph.children.clear()
    bound = {"root": RecordingFunction(4.0)}
    same_bits(bound_run(evaluator, graph, bound).weights, np.full((2, 3), 4.0))


# --- what belongs to the run ---------------------------------------------------------------------


def test_another_context_has_other_columns(evaluator: ModuleType) -> None:
    graph = nested()
    recorded(evaluator, graph)
    features = {"b": counting_matrix(3, 1), "x": counting_matrix(3, 1), "a": -counting_matrix(3, 1)}
    bound = bind_all(graph)
    result = bound_run(evaluator, graph, bound, features=features)
    same_bits(result.weights, features["a"])
    assert [call.values[1].tolist() for call in bound["root"].calls] == features["b"].tolist()
    assert list(result.node_outputs) == list(graph._collect_nodes_cache["node_info"])


def test_a_stage_array_can_be_a_kept_leaf(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("b"))
    recorded(evaluator, graph)
    stage = np.array([[7, 8, 9], [4, 5, 6]])
    result = bound_run(
        evaluator, graph, features={"a": counting_matrix(2)}, stage_data=StageData({"b": stage})
    )
    same_bits(result.weights, stage.astype(np.float64))


def test_instances_belong_to_the_run(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    recorded(evaluator, graph)
    later = RecordingFunction(3.0, stateful=True, state={"count": 2})
    result = bound_run(evaluator, graph, {"root": later}, states={"root": {}})
    same_bits(result.weights, np.full((2, 3), 3.0))
    assert result.states == {"root": {"count": 2}}


def test_bound_paths_are_marked_again(evaluator: ModuleType) -> None:
    """Bound instances are called without the context, and get literals when they lack `arity`."""
    graph = rotation("f", feature("a"), integer(3))
    recorded(evaluator, graph)
    for attributes, values in (({}, 2), ({"arity": 1}, 1)):
        instance = RecordingFunction(**attributes)
        bound_run(evaluator, graph, {"root": instance})
        assert [len(call.args) for call in instance.calls] == [values] * 2
        assert [call.kwargs for call in instance.calls] == [{}, {}]


def test_a_cached_run_asks_the_registry_in_the_preflight_only(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    registry = RecordingRegistry({"f": entry()})
    calls = []
    for _ in range(2):
        bound_run(evaluator, graph, registry=registry)
        calls.append([method for method, *_ in registry.calls])
        registry.calls.clear()
    assert calls == [
        ["has", "get_entry", "has", "get_entry", "has", "get_entry"],
        ["has", "get_entry"],
    ]


def test_bound_instances_are_asked_in_the_order_of_the_walk(evaluator: ModuleType) -> None:
    graph, asked = nested(), []
    recorded(evaluator, graph)

    class Bound(dict):
        def __contains__(self, path: object) -> bool:
            asked.append(("in", path))
            return super().__contains__(path)

        def __getitem__(self, path: str) -> Any:
            asked.append(("item", path))
            return super().__getitem__(path)

    bound_run(evaluator, graph, Bound(bind_all(graph)))
    assert asked == [(how, path) for path in ("root.c0", "root") for how in ("in", "item")]


# --- faults of a cached run ----------------------------------------------------------------------


def faulty() -> FunctionGraphNode:
    return rotation("f", rotation("g", feature("a")), rotation("h", aggregation("b")))


@pytest.mark.parametrize(
    ("features", "bound", "error", "text"),
    [
        ("x", {}, EvaluationError, "Feature 'a' not in context"),
        ("a", {}, EvaluationError, "Feature 'b' not in context"),
        ("ab", {}, FunctionExecutionError, MISSING.format("root.c0", "g")),
        ("ab", {"root.c0": 1}, FunctionExecutionError, MISSING.format("root.c1", "h")),
        ("ab", {"root.c0": 1, "root.c1": 1}, FunctionExecutionError, MISSING.format("root", "f")),
        ("ab", {"root.c0": None}, FunctionExecutionError, IS_NONE.format("root.c0", "g")),
        (
            "ab",
            {"root.c0": 1, "root.c1": None},
            FunctionExecutionError,
            IS_NONE.format("root.c1", "h"),
        ),
    ],
)
def test_features_are_looked_at_before_instances(
    evaluator: ModuleType, features: str, bound: Any, error: Any, text: str
) -> None:
    graph = faulty()
    record = recorded(evaluator, graph)
    matrices = {name: counting_matrix(1) for name in features}
    with fails(error, text):
        bound_run(evaluator, graph, bound, features=matrices)
    assert graph._collect_nodes_cache is record


def test_the_walk_reports_the_fault_that_comes_first_in_the_graph(evaluator: ModuleType) -> None:
    graph = faulty()
    matrices = {"a": counting_matrix(1)}
    with fails(FunctionExecutionError, MISSING.format("root.c0", "g")):
        bound_run(evaluator, graph, {}, features=matrices)
    recorded(evaluator, graph)
    with fails(EvaluationError, "Feature 'b' not in context"):
        bound_run(evaluator, graph, {}, features=matrices)


def test_checks_behind_the_tables_still_run(evaluator: ModuleType) -> None:
    graph = faulty()
    recorded(evaluator, graph)
    features = {"a": counting_matrix(2), "b": counting_matrix(1)}
    text = "Function 'h' input feature 'b' has shape (1, 3), expected (2, 3)"
    with fails(EvaluationShapeError, text):
        bound_run(evaluator, graph, features=features, validate_inputs=False)
    with fails(EvaluationError, "Function state keys do not match graph tree structure"):
        bound_run(evaluator, graph, states={"other": {}})


def test_a_failing_mapping_passes(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    recorded(evaluator, graph)
    fault = LookupError("bound")
    for method in ("__contains__", "__getitem__"):
        bound = type("Bound", (dict,), {method: raising(fault)})({"root": RecordingFunction()})
        with lets_through(fault):
            bound_run(evaluator, graph, bound)
    index = type("Index", (dict,), {"__contains__": raising(fault)})({"a": 0})
    context = make_context(evaluator, {"a": counting_matrix(1)}, validate_inputs=False)
    context.feature_index = index
    with lets_through(fault):
        evaluator.evaluate(graph, context, bound_function_instances={}, data_nan_features=NOT_FAST)


# --- the empty mapping ---------------------------------------------------------------------------


class EmptyLooking(dict):
    """Has instances, and a truth value of False."""

    def __bool__(self) -> bool:
        return False

    def __len__(self) -> int:
        return 0


def test_an_empty_mapping_uses_the_record(evaluator: ModuleType) -> None:
    graph = number(2.0)
    record = recorded(evaluator, graph, {})
    record["float_values"]["root"] = 5.0
    same_bits(bound_run(evaluator, graph, {}).weights, np.full((2, 3), 5.0))


@pytest.mark.parametrize("kind", [dict, EmptyLooking])
def test_warm_up_rows_and_literals_go_by_the_truth_of_the_mapping(
    evaluator: ModuleType, kind: Any
) -> None:
    graph = rotation("f", feature("a"), integer(3))
    registry = RecordingRegistry({"f": entry(stateful=True)})
    features = {"a": counting_matrix(4)}
    for _ in range(2):
        instance = RecordingFunction(1.0)
        bound = kind({"root": instance})
        result = bound_run(evaluator, graph, bound, registry=registry, features=features)
        warm_up = 0 if kind is dict else 2
        assert np.isnan(result.weights).sum(axis=0).tolist() == [warm_up] * 3
        assert {len(call.args) for call in instance.calls} == {2 if kind is dict else 1}
        assert bool(result.node_outputs) is (kind is dict)
