"""A pending transform pipeline is laid around a copy of the graph, and state keys stay."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.reference_host.registry import default_registry
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FunctionExecutionError,
    TransformStage,
)
from support.functions import RecordingFunction, raising
from support.graphs import aggregation, feature, filtration, integer, node, reduction, rotation
from support.refusing_nodes import refusing
from support.registries import RecordingRegistry
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits
from support.stages import PIPELINE, lay_around, replace_merge
from support.traps import Said, Trap

STAMP = "_state_identity"


def stamps(graph: Any) -> list[Any]:
    """The stamps of all nodes, a node before its children; "-" where there is none."""
    return [
        getattr(graph, STAMP, "-"),
        *(found for child in graph.children or () for found in stamps(child)),
    ]


def context_of(evaluator: ModuleType, **options: Any) -> Any:
    options = {"transform_pipeline": list(PIPELINE), **options}
    return make_context(evaluator, {"a": counting_matrix(2)}, **options)


# --- stamping ------------------------------------------------------------------------------------


def test_functions_are_stamped_with_their_paths(evaluator: ModuleType) -> None:
    graph = rotation(
        "f",
        rotation("g", feature("a"), integer(3)),
        reduction("mean", filtration("top", rotation("inside", aggregation("b")))),
        node("odd", None, [rotation("h")]),
    )
    assert evaluator._annotate_state_identities(graph) is None
    assert stamps(graph) == [
        *("root", "root.c0", "-", "-"),
        *("root.c1", "-", "root.c1.c0.c0", "-"),
        *("-", "root.c2.c0"),
    ]


def test_another_start(evaluator: ModuleType) -> None:
    graph = rotation("f", rotation("g"), _state_identity="stale")
    evaluator._annotate_state_identities(graph, "elsewhere")
    assert stamps(graph) == ["elsewhere", "elsewhere.c0"]
    evaluator._annotate_state_identities(graph, path="x")
    assert stamps(graph) == ["x", "x.c0"]


def test_a_leaf_beside_a_function(evaluator: ModuleType) -> None:
    graph = node("odd", "f", [rotation("g"), feature("a")])
    evaluator._annotate_state_identities(graph)
    assert stamps(graph) == ["-", "root.c0", "-"]


def test_a_shared_node_keeps_its_last_path(evaluator: ModuleType) -> None:
    shared = rotation("g")
    evaluator._annotate_state_identities(rotation("f", shared, shared))
    assert getattr(shared, STAMP) == "root.c1"


@pytest.mark.parametrize("fault", [AttributeError("x"), TypeError("x")], ids=repr)
def test_a_node_that_takes_no_stamp(evaluator: ModuleType, fault: BaseException) -> None:
    graph = refusing(fault, STAMP)("rotation", "f", [rotation("g")])
    evaluator._annotate_state_identities(graph)
    assert stamps(graph) == ["-", "root.c0"]
    fault = OSError("x")
    with lets_through(fault):
        evaluator._annotate_state_identities(refusing(fault, STAMP)("rotation", "f"))


def test_faults_of_the_graph(evaluator: ModuleType) -> None:
    """Nodes before the fault are stamped by then."""
    annotate, first = evaluator._annotate_state_identities, rotation("g")
    untyped = feature("a")
    del untyped.type
    with fails(EvaluationError, "Graph node 'root.c1' missing required key: type"):
        annotate(rotation("f", first, untyped))
    assert getattr(first, STAMP) == "root.c0"
    for graph in ({}, rotation("f", {})):
        with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
            annotate(graph)
    nameless = rotation("f")
    del nameless.node
    annotate(nameless)
    assert getattr(nameless, STAMP) == "root"


# --- the merge -----------------------------------------------------------------------------------


def test_the_caller_s_graph_stays_as_it_is(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    merge = replace_merge(monkeypatch, evaluator, lambda signal: signal)
    graph = rotation("latitudinal_rank", feature("a"), config={"k": [1]})
    before = dict(vars(graph))
    context = context_of(evaluator)
    evaluator.evaluate(graph, context)
    assert vars(graph) == before
    assert not hasattr(graph.children[0], "_node_identities")
    (((copied, *rest), keywords),) = merge.calls
    assert copied is not graph and copied.config["k"] is not graph.config["k"]
    assert keywords == {} and len(rest) == 4


def test_what_the_merge_is_given(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    registry = RecordingRegistry()
    pipeline = ["stage"]
    metaparameters = {"stage": "option"}
    context = context_of(
        evaluator,
        registry=registry,
        transform_pipeline=pipeline,
        metaparameters=metaparameters,
    )
    graph = rotation("f", feature("a"), _collect_nodes_cache={"stale": 1}, _node_identities={})
    graph.children[0]._collect_nodes_cache = {"stale": 2}

    def merged(signal: Any) -> Any:
        assert stamps(signal) == ["root", "-"]
        for found in (signal, *signal.children):
            assert found._collect_nodes_cache is None and found._node_identities is None
        assert context.transform_pipeline is pipeline
        assert context.universe_mask is None
        return feature("a")

    merge = replace_merge(monkeypatch, evaluator, merged)
    evaluator.evaluate(graph, context)
    (((_, *rest), _),) = merge.calls
    for given, expected in zip(rest, (pipeline, metaparameters, registry, context), strict=True):
        assert given is expected
    assert graph._collect_nodes_cache == {"stale": 1}
    # The context has a new pipeline; the caller's list is not emptied.
    assert pipeline == ["stage"]
    assert context.transform_pipeline == [] and type(context.transform_pipeline) is list


def test_caches_that_the_merge_leaves_are_dropped(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    child = feature("a", _node_identities={"stale": 1})
    merged = rotation("f", child, _collect_nodes_cache="stale", _state_identity="kept")
    replace_merge(monkeypatch, evaluator, lambda _: merged)
    bound = {"root": RecordingFunction(stateful=True, state={})}
    result = evaluator.evaluate(feature("a"), context_of(evaluator), bound_function_instances=bound)
    assert list(result.states) == ["kept"]
    assert child._node_identities is None
    assert set(merged._collect_nodes_cache["state_keys"]) == {"root"}


@pytest.mark.parametrize("pipeline", [[], (), None, 0, Said(False)])
def test_without_a_pipeline_nothing_is_merged(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, pipeline: Any
) -> None:
    merge = replace_merge(monkeypatch, evaluator)
    context = context_of(evaluator, transform_pipeline=pipeline, transforms_already_combined=None)
    given = context.transform_pipeline
    evaluator.evaluate(feature("a"), context)
    assert merge.calls == []
    assert context.transform_pipeline is given


@pytest.mark.parametrize("combined", [True, 1, "yes", Said(True)])
def test_combined_transforms_are_not_merged_again(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, combined: Any
) -> None:
    merge, pipeline = replace_merge(monkeypatch, evaluator), list(PIPELINE)
    context = context_of(
        evaluator, transform_pipeline=pipeline, transforms_already_combined=combined
    )
    graph = feature("a")
    evaluator.evaluate(graph, context)
    assert merge.calls == []
    assert context.transform_pipeline is pipeline
    assert context.transforms_already_combined is combined


@pytest.mark.parametrize("combined", [False, None, 0, "", "missing"])
def test_transforms_that_are_not_combined(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, combined: Any
) -> None:
    merge, context = replace_merge(monkeypatch, evaluator, lambda signal: signal), None
    context = context_of(evaluator, transforms_already_combined=combined)
    if combined == "missing":
        del context.transforms_already_combined
    evaluator.evaluate(feature("a"), context)
    assert len(merge.calls) == 1
    assert getattr(context, "transforms_already_combined", "missing") is combined


def test_the_second_run_evaluates_the_bare_graph(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator)
    registry = RecordingRegistry(factories={"top": RecordingFunction(5.0)})
    context = context_of(evaluator, registry=registry)
    graph = feature("a")
    same_bits(evaluator.evaluate(graph, context).weights, np.full((2, 3), 5.0))
    same_bits(evaluator.evaluate(graph, context).weights, counting_matrix(2))


def test_the_fast_roads_are_open_after_the_merge(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator, lambda signal: rotation("latitudinal_rank", signal))
    weights, _ = evaluator.evaluate(feature("a"), context_of(evaluator))
    same_bits(weights, [[0.0, 0.5, 1.0]] * 2)


# --- state keys ----------------------------------------------------------------------------------


def counting_registry() -> RecordingRegistry:
    def make(**_: Any) -> RecordingFunction:
        made = RecordingFunction(stateful=True)
        made.state = lambda: {"count": len(made.calls), "object": id(made)}
        return made

    return RecordingRegistry(factories=dict.fromkeys(("f", "g", "top"), make))


def test_states_are_keyed_by_the_bare_graph(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A node that the transforms bring has its path for a key; the last one of a key stays."""
    replace_merge(monkeypatch, evaluator, lambda signal: node("odd", None, [signal]))
    graph = rotation("f", rotation("g", feature("a")))
    registry = counting_registry()
    assert list(evaluator.evaluate(graph, context_of(evaluator, registry=registry)).states) == [
        "root.c0",
        "root",
    ]
    replace_merge(monkeypatch, evaluator, lay_around)
    registry = counting_registry()
    states = evaluator.evaluate(graph, context_of(evaluator, registry=registry)).states
    # Here the path of "top" is the stamp of "f".
    assert list(states) == ["root.c0", "root"]
    created = {name: id(instance) for name, instance in registry.instances}
    assert states["root"]["object"] == created["top"]
    assert states["root.c0"]["object"] == created["g"]


def test_states_of_the_bare_graph_are_restored_below_the_transforms(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator, lambda signal: node("odd", None, [signal]))
    graph = rotation("f", rotation("g", feature("a")))
    registry = counting_registry()
    given = {"root": {"count": 1}, "root.c0": {"count": 2}}
    evaluator.evaluate(graph, context_of(evaluator, registry=registry), given)
    assert [call[:3] for call in registry.calls if call[0] == "create_instance_from_state"] == [
        ("create_instance_from_state", "g", {"count": 2}),
        ("create_instance_from_state", "f", {"count": 1}),
    ]
    with fails(EvaluationError, "Function state keys do not match graph tree structure"):
        evaluator.evaluate(
            graph, context_of(evaluator, registry=registry), {**given, "root.c0.c0": {}}
        )


def test_a_node_without_a_stamp_is_keyed_by_its_new_path(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator, lambda signal: node("odd", None, [signal]))
    registry = counting_registry()
    graph = refusing(TypeError("x"), STAMP)("rotation", "f", [rotation("g", feature("a"))])
    states = evaluator.evaluate(graph, context_of(evaluator, registry=registry)).states
    # The new path of "f" is the stamp of "g", and "f" comes later.
    created = {name: id(instance) for name, instance in registry.instances}
    assert [(key, state["object"]) for key, state in states.items()] == [("root.c0", created["f"])]


def test_a_stale_stamp_is_replaced(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    replace_merge(monkeypatch, evaluator, lambda signal: signal)
    graph = rotation("f", feature("a"), _state_identity="stale")
    states = []
    for _ in range(2):
        context = context_of(evaluator, registry=counting_registry())
        states += evaluator.evaluate(graph, context).states
        context.registry = counting_registry()
        states += evaluator.evaluate(graph, context).states
    assert states == ["root", "stale", "root", "stale"]


def test_a_shared_node_shares_its_key(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """The copy has one node where the graph has one, and that bears one stamp."""
    replace_merge(monkeypatch, evaluator, lambda signal: signal)
    shared = rotation("g", feature("a"))
    context = context_of(evaluator, registry=counting_registry())
    result = evaluator.evaluate(rotation("f", shared, shared), context)
    assert list(result.states) == ["root.c1", "root"]


# --- failures ------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    "name", ["deepcopy", "_annotate_state_identities", "combine_signal_and_transforms"]
)
def test_a_failing_merge_leaves_the_pipeline(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, name: str
) -> None:
    fault = LookupError(name)
    monkeypatch.setattr(evaluator, name, raising(fault))
    context = context_of(evaluator)
    with lets_through(fault):
        evaluator.evaluate(feature("a"), context)
    assert context.transform_pipeline == PIPELINE


def test_a_node_that_cannot_be_copied(evaluator: ModuleType) -> None:
    fault = ValueError("no copy")
    graph = type("Unique", (FunctionGraphNode,), {"__deepcopy__": raising(fault)})("feature", "a")
    with lets_through(fault):
        evaluator.evaluate(graph, context_of(evaluator))


@pytest.mark.parametrize("slot", ["_collect_nodes_cache", "_node_identities"])
def test_a_node_that_cannot_be_cleared(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, slot: str
) -> None:
    merge, fault = replace_merge(monkeypatch, evaluator), AttributeError(slot)
    context = context_of(evaluator)
    with lets_through(fault):
        evaluator.evaluate(refusing(fault, slot)("feature", "a"), context)
    assert merge.calls == []
    replace_merge(monkeypatch, evaluator, lambda _: refusing(fault, slot)("feature", "a"))
    with lets_through(fault):
        evaluator.evaluate(feature("a"), context)
    assert context.transform_pipeline == PIPELINE


def test_a_malformed_graph_fails_before_the_merge(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    merge, untyped = replace_merge(monkeypatch, evaluator), feature("a")
    del untyped.type
    with fails(EvaluationError, "Graph node 'root.c0' missing required key: type"):
        evaluator.evaluate(rotation("f", untyped), context_of(evaluator))
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
        evaluator.evaluate(rotation("f", {}), context_of(evaluator))
    assert merge.calls == []


@pytest.mark.parametrize("merged", [None, {}, "graph"])
def test_a_merge_that_gives_no_node(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, merged: Any
) -> None:
    replace_merge(monkeypatch, evaluator, lambda _: merged)
    context = context_of(evaluator)
    text = f"Graph node 'root' must be FunctionGraphNode; got {type(merged).__name__}"
    with fails(SchemaError, text):
        evaluator.evaluate(feature("a"), context)
    assert context.transform_pipeline == []


def test_the_pipeline_stays_empty_when_the_run_fails_later(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator)
    context = context_of(evaluator)
    with pytest.raises(FunctionExecutionError, match="'top' at node 'root' is not bound"):
        evaluator.evaluate(feature("a"), context)
    assert context.transform_pipeline == []


def test_failing_reads_and_writes_of_the_context_pass(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator)
    for name in ("transform_pipeline", "transforms_already_combined"):
        fault = LookupError(name)
        given: dict[str, Any] = {"_evaluation_lock": None, "transform_pipeline": [1], name: fault}
        with lets_through(fault):
            evaluator.evaluate(feature("a"), Trap(**given))

    class Fixed(SimpleNamespace):
        @property
        def transform_pipeline(self) -> Any:
            return PIPELINE

    context = Fixed(_evaluation_lock=None, metaparameters={}, registry=None)
    with pytest.raises(AttributeError, match="transform_pipeline"):
        evaluator.evaluate(feature("a"), context)


# --- with the host's own merge -------------------------------------------------------------------


def test_a_library_graph_goes_on_under_a_transform(evaluator: ModuleType) -> None:
    """States of a run without transforms serve a later run with them, and the other way round."""
    template = rotation("latitudinal_demean", node("signal", None))
    stage = TransformStage("neutral", "on", {"on": template, "off": None})
    graph = rotation("longitudinal_mean", feature("a"), integer(2))
    data = np.random.default_rng(4).standard_normal((9, 3))
    head, tail = {"a": data[:5]}, {"a": data[5:]}

    def tick(features: Any, states: Any, pipeline: Any) -> Any:
        context = make_context(
            evaluator, features, registry=default_registry(), transform_pipeline=pipeline
        )
        return evaluator.evaluate(graph, context, states)

    whole = tick({"a": data}, None, [stage])
    for pipeline in ([], [stage]):
        first = tick(head, None, pipeline)
        assert list(first.states) == ["root"]
        same_bits(tick(tail, first.states, [stage]).weights, whole.weights[5:])
