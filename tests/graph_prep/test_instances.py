"""The choice of a function node's instance: bound, restored or newly created."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError
from support.functions import RecordingFunction, raising
from support.graphs import feature, integer, reduction, rotation
from support.registries import RecordingRegistry, entry
from support.runs import fails, lets_through, make_context
from support.typed_registry import FunctionState as TypedState
from support.typed_registry import TypedStateRegistry

GRAPH_CONFIG = {"k": 1}


def run(evaluator, graph=None, *, registry=None, **arguments: Any):
    graph = rotation("f", feature("a"), config=GRAPH_CONFIG) if graph is None else graph
    context = make_context(evaluator, {"a": np.ones((1, 2))}, registry=registry)
    return evaluator.evaluate(graph, context, **arguments)


def stateful_registry(kind: type[RecordingRegistry] = RecordingRegistry, **attributes: Any) -> Any:
    return kind(
        entries={"f": entry(**attributes)},
        factories={"f": lambda **config: RecordingFunction(stateful=True, state={"count": 9})},
    )


def creations(registry: RecordingRegistry) -> list[tuple[str, str, Any, dict[str, Any]]]:
    return [call for call in registry.calls if call[0].startswith("create")]


# --- bound ---------------------------------------------------------------------------------------


def test_a_bound_instance_wins_over_registry_and_states(evaluator):
    registry, instance = stateful_registry(), RecordingFunction(stateful=True)
    run(
        evaluator,
        registry=registry,
        bound_function_instances={"root": instance, "root.c9": None},
        function_states={"root": {"count": 1}},
    )
    assert creations(registry) == []
    assert len(instance.calls) == 1


@pytest.mark.parametrize("make", [rotation, reduction])
@pytest.mark.parametrize("registry", [None, RecordingRegistry(entries={"f": entry()})])
def test_a_bound_none_is_refused(evaluator, make, registry):
    text = "Bound function instance is None for node 'root' (function 'f')"
    with fails(FunctionExecutionError, text):
        run(evaluator, make("f"), registry=registry, bound_function_instances={"root": None})


@pytest.mark.parametrize("bound", [{}, {"root.c0": RecordingFunction()}])
@pytest.mark.parametrize("registry", [None, RecordingRegistry(entries={"f": entry()})])
def test_who_binds_anything_binds_everything(evaluator, registry, bound):
    text = "Bound function instance missing for path 'root' (function 'f')"
    with fails(FunctionExecutionError, text):
        run(evaluator, registry=registry, bound_function_instances=bound)


def test_a_falsy_instance_is_an_instance(evaluator):
    class Falsy(RecordingFunction):
        def __bool__(self) -> bool:
            return False

    instance = Falsy()
    run(evaluator, bound_function_instances={"root": instance})
    assert len(instance.calls) == 1


def test_a_bound_mapping_is_asked_through_its_own_methods(evaluator):
    instance = RecordingFunction()

    class Answering(dict):
        def __contains__(self, path: object) -> bool:
            return path == "root"

        def __getitem__(self, path: str) -> Any:
            return {"root": instance}[path]

        def __bool__(self) -> bool:
            return True

    run(evaluator, bound_function_instances=Answering())
    assert instance.calls[0].kwargs == {}


# --- from the registry ---------------------------------------------------------------------------


@pytest.mark.parametrize("registry", [None, RecordingRegistry(entries={"g": entry()})])
@pytest.mark.parametrize("make", [rotation, reduction])
def test_a_function_that_nobody_can_make(evaluator, make, registry):
    text = (
        "Function 'f' at node 'root.c0' is not bound and cannot be instantiated from the "
        "evaluation registry"
    )
    with fails(FunctionExecutionError, text):
        run(evaluator, rotation("g", make("f")), registry=registry)


def test_the_factory_gets_the_name_and_the_configuration_as_keywords(evaluator):
    registry = RecordingRegistry(entries={"f": entry()})
    run(evaluator, registry=registry)
    assert creations(registry) == [("create_instance", "f", None, GRAPH_CONFIG)]


def test_a_key_that_is_no_string_is_no_keyword(evaluator):
    graph = rotation("f", feature("a"), config={1: 2})
    with fails(TypeError, "keywords must be strings"):
        run(evaluator, graph, registry=RecordingRegistry(entries={"f": entry()}))


def test_a_bound_function_may_have_any_keys(evaluator):
    instance = RecordingFunction()
    graph = rotation("f", feature("a"), config={1: 2, (): None})
    run(evaluator, graph, bound_function_instances={"root": instance})
    assert len(instance.calls) == 1


@pytest.mark.parametrize("state", [None, {"count": 1}])
def test_a_failing_factory_is_let_through(evaluator, state):
    fault = ValueError("broken factory")
    states = None if state is None else {"root": state}
    with lets_through(fault):
        run(
            evaluator,
            registry=RecordingRegistry(factories={"f": raising(fault)}),
            function_states=states,
        )


def test_a_factory_that_gives_none_is_found_out_by_the_call(evaluator):
    registry = RecordingRegistry(factories={"f": lambda **config: None})
    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, registry=registry)
    assert str(caught.value) == ("Function 'f' failed at row 0: 'NoneType' object is not callable")
    assert type(caught.value.__cause__) is TypeError


# --- restored ------------------------------------------------------------------------------------


@pytest.mark.parametrize("make_state", [dict, lambda **data: SimpleNamespace(state_data=data)])
def test_a_state_goes_to_the_registry_as_it_is(evaluator, make_state):
    registry, state = stateful_registry(), make_state(count=3)
    run(evaluator, registry=registry, function_states={"root": state})
    ((method, name, restored, config),) = creations(registry)
    assert (method, name, config) == ("create_instance_from_state", "f", GRAPH_CONFIG)
    assert restored is state


@pytest.mark.parametrize(
    "state", [None, {}, SimpleNamespace(state_data=None), SimpleNamespace(state_data={}), 0, ""]
)
def test_an_empty_state_gives_a_fresh_instance(evaluator, state):
    registry = stateful_registry()
    run(evaluator, registry=registry, function_states={"root": state})
    assert creations(registry) == [("create_instance", "f", None, GRAPH_CONFIG)]


def test_the_modules_own_state_class(evaluator):
    registry = stateful_registry()
    state = evaluator.FunctionState("another name", {"count": 1})
    run(evaluator, registry=registry, function_states={"root": state})
    assert creations(registry)[0][2] is state


@pytest.mark.parametrize(
    ("state", "version"),
    [
        (SimpleNamespace(state_data={"count": 2}), 5),
        (SimpleNamespace(state_data={"count": 2}, function_version=8), 8),
    ],
)
def test_a_typed_registry_gets_a_typed_state(evaluator, state, version):
    registry = stateful_registry(TypedStateRegistry, function_version=5)
    run(evaluator, registry=registry, function_states={"root": state})
    restored = creations(registry)[0][2]
    assert restored == TypedState("f", version, {"count": 2})
    assert restored.data is state.state_data


def test_the_raw_form_of_a_typed_state(evaluator):
    registry = stateful_registry(TypedStateRegistry)
    state = {"function_name": "old", "function_version": 2, "data": [1], "more": 0}
    run(evaluator, registry=registry, function_states={"root": state})
    assert creations(registry)[0][2] == TypedState("old", 2, [1])


def test_a_typed_state_is_handed_on(evaluator):
    registry, state = stateful_registry(TypedStateRegistry), TypedState("old", 2, {})
    run(evaluator, registry=registry, function_states={"root": state})
    assert creations(registry)[0][2] is state


def test_a_failing_version_lookup_is_let_through(evaluator):
    fault = LookupError("no version")
    registry = stateful_registry(TypedStateRegistry)
    registry.get_function_version = raising(fault)
    with lets_through(fault):
        run(evaluator, registry=registry, function_states={"root": {"count": 1}})
    assert creations(registry) == []


def test_states_are_asked_through_their_own_methods(evaluator):
    state = {"count": 1}

    class States(dict):
        def __contains__(self, key: object) -> bool:
            return key == "root"

        def __getitem__(self, key: str) -> Any:
            return state

        def keys(self) -> Any:
            return ["root"]

    registry = stateful_registry()
    run(evaluator, registry=registry, function_states=States())
    assert creations(registry)[0][2] is state


# --- the state's key -----------------------------------------------------------------------------


@pytest.mark.parametrize("key", ["bare.root", None, ("tuple",)])
def test_a_stamped_node_keys_its_state_by_the_stamp(evaluator, key):
    registry, state = stateful_registry(), {"count": 1}
    graph = rotation("f", feature("a"), _state_identity=key)
    result = run(evaluator, graph, registry=registry, function_states={key: state})
    assert creations(registry)[0][2] is state
    assert result.states == {key: {"count": 9}}


def test_an_unhashable_stamp(evaluator):
    graph = rotation("f", feature("a"), _state_identity=[])
    with pytest.raises(TypeError, match="unhashable type: 'list'"):
        run(evaluator, graph, registry=stateful_registry(), function_states={})


def test_two_nodes_may_share_a_state(evaluator):
    registry, state = stateful_registry(), {"count": 1}
    graph = rotation("f", rotation("f", feature("a"), _state_identity="s"), _state_identity="s")
    result = run(evaluator, graph, registry=registry, function_states={"s": state})
    assert [call[2] for call in creations(registry)] == [state, state]
    assert list(result.states) == ["s"]


# --- states against the graph --------------------------------------------------------------------

MISMATCH = "Function state keys do not match graph tree structure"


@pytest.mark.parametrize(
    "states", [{}, {"root": {}, "root.c0": {}}, {"root.c0": {}}, {None: {}}, {"root": {}, 7: {}}]
)
def test_states_must_match_the_stateful_functions(evaluator, states):
    with fails(EvaluationError, MISMATCH):
        run(evaluator, registry=stateful_registry(), function_states=states)


@pytest.mark.parametrize("states", [{}, {"root": {}}])
def test_a_stateless_function_may_have_a_state_but_needs_none(evaluator, states):
    registry = RecordingRegistry(entries={"f": entry()})
    assert run(evaluator, registry=registry, function_states=states).states == {}


@pytest.mark.parametrize("states", [{}, {"other": {}}])
def test_bound_instances_are_held_to_the_states_too(evaluator, states):
    bound = {"root": RecordingFunction(stateful=True)}
    with fails(EvaluationError, MISMATCH):
        run(evaluator, bound_function_instances=bound, function_states=states)


def test_surplus_states_are_found_before_instances_are_asked(evaluator):
    class Unreadable(RecordingFunction):
        def __getattribute__(self, name: str) -> Any:
            assert name != "stateful"
            return super().__getattribute__(name)

        def __setattr__(self, name: str, value: Any) -> None:
            if name != "stateful":
                super().__setattr__(name, value)

    with fails(EvaluationError, MISMATCH):
        run(
            evaluator,
            bound_function_instances={"root": Unreadable()},
            function_states={"other": {}},
        )


def test_the_states_are_checked_after_all_instances_are_made(evaluator):
    fault = ValueError("broken factory")
    registry = RecordingRegistry(factories={"f": raising(fault)})
    with lets_through(fault):
        run(evaluator, registry=registry, function_states={"nowhere": {}})


def test_instances_are_made_children_first(evaluator):
    registry = RecordingRegistry(entries={name: entry() for name in "fgh"})
    graph = rotation("f", rotation("g", integer(1)), rotation("h", rotation("g", integer(2))))
    context = make_context(evaluator, {"a": np.zeros((0, 2))}, registry=registry)
    evaluator.evaluate(graph, context)
    assert [(name, config) for _, name, _, config in creations(registry)] == [
        ("g", {"window": 1}),
        ("g", {"window": 2}),
        ("h", {}),
        ("f", {}),
    ]
