"""Contexts, mappings and registries that are not what they seem."""

from __future__ import annotations

from typing import Any, ClassVar

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import StageData
from support.functions import RecordingFunction, raising
from support.graphs import feature, integer, number, rotation
from support.registries import RecordingRegistry, entry
from support.runs import counting_matrix, lets_through, make_context, same_bits

REQUIRED = (
    "features",
    "feature_index",
    "useful_signals",
    "registry",
    "universe",
    "universe_mask",
    "transform_pipeline",
    "metaparameters",
    "stage_data",
)


def required_attributes(**replaced: Any) -> dict[str, Any]:
    attributes: dict[str, Any] = {
        "features": (counting_matrix(2),),
        "feature_index": {"a": 0},
        "useful_signals": {},
        "registry": None,
        "universe": None,
        "universe_mask": None,
        "transform_pipeline": [],
        "metaparameters": {},
        "stage_data": StageData(),
    }
    return {**attributes, **replaced}


class Bare:
    """A context with nothing but the attributes that a run can't do without."""

    def __init__(self, **attributes: Any) -> None:
        self.__dict__.update(attributes)


def run(evaluator, context: Any, instance: Any = None, **arguments: Any) -> Any:
    instance = RecordingFunction(lambda row: row + 1.0) if instance is None else instance
    return evaluator.evaluate(
        rotation("f", feature("a")),
        context,
        bound_function_instances={"root": instance},
        **arguments,
    )


# --- look-alike contexts -------------------------------------------------------------------------


def test_a_context_without_lock_and_without_options(evaluator):
    context = Bare(**required_attributes())
    result = run(evaluator, context)
    same_bits(result.weights, counting_matrix(2) + 1.0)
    assert set(vars(context)) == {*REQUIRED, "current_day_index", "registers"}
    assert context.current_day_index == 1
    assert context.universe_mask.tolist() == [[1, 1, 1]] * 2
    same_bits(context.registers, np.stack([counting_matrix(2)[1], counting_matrix(2)[1] + 1.0]))


@pytest.mark.parametrize("missing", REQUIRED)
def test_a_context_without_a_needed_attribute(evaluator, missing):
    attributes = required_attributes()
    del attributes[missing]
    with pytest.raises(AttributeError, match=f"'Bare' object has no attribute '{missing}'"):
        run(evaluator, Bare(**attributes))


def test_a_context_that_answers_through_getattr(evaluator):
    asked: list[str] = []

    class Answering:
        def __getattr__(self, name: str) -> Any:
            asked.append(name)
            try:
                return attributes[name]
            except KeyError:
                raise AttributeError(name) from None

    attributes = required_attributes()
    context = Answering()
    same_bits(run(evaluator, context).weights, counting_matrix(2) + 1.0)
    assert set(REQUIRED) <= set(asked)
    assert {"_evaluation_lock", "_collect_states", "_precomputed_node_outputs"} <= set(asked)
    assert set(vars(context)) == {"universe_mask", "current_day_index", "registers"}


def test_the_order_in_which_a_context_is_written(evaluator):
    writes: list[tuple[str, Any]] = []

    class Written(Bare):
        def __setattr__(self, name: str, value: Any) -> None:
            writes.append((name, value))
            super().__setattr__(name, value)

    run(evaluator, Written(**required_attributes()))
    assert [name for name, _ in writes] == [
        "universe_mask",
        "registers",
        "current_day_index",
        "current_day_index",
        "registers",
    ]
    assert [value for name, value in writes if name == "current_day_index"] == [0, 1]
    assert all(type(value) is int for name, value in writes if name == "current_day_index")


@pytest.mark.parametrize("refused", ["universe_mask", "registers", "current_day_index"])
def test_a_context_that_refuses_a_write(evaluator, refused):
    fault = AttributeError("read-only")

    class Refusing(Bare):
        def __setattr__(self, name: str, value: Any) -> None:
            if name == refused:
                raise fault
            super().__setattr__(name, value)

    instance = RecordingFunction()
    with lets_through(fault):
        run(evaluator, Refusing(**required_attributes()), instance)
    assert instance.calls == []


OPTIONAL = (
    "_evaluation_lock",
    "_skip_evaluation_shape_validation",
    "_precomputed_node_outputs",
    "_precomputed_node_nan_source",
    "_collect_node_outputs",
    "_collect_states",
)


@pytest.mark.parametrize("name", [*REQUIRED, *OPTIONAL])
@pytest.mark.parametrize("kind", [RuntimeError, KeyError, KeyboardInterrupt])
def test_a_property_that_raises(evaluator, name, kind):
    fault = kind("hidden")

    def hide(_: Any) -> Any:
        raise fault

    attributes = required_attributes()
    attributes.pop(name, None)
    context = type("Hiding", (Bare,), {name: property(hide)})(**attributes)
    with lets_through(fault):
        run(evaluator, context)


@pytest.mark.parametrize("name", OPTIONAL)
def test_an_option_that_says_it_is_missing_has_its_default(evaluator, name):
    def hide(_: Any) -> Any:
        raise AttributeError("not here")

    context = type("Hiding", (Bare,), {name: property(hide)})(**required_attributes())
    result = run(evaluator, context, RecordingFunction(stateful=True, state="kept"))
    assert result.states == {"root": "kept"}
    assert list(result.node_outputs) == ["root.c0", "root"]


def test_a_subclass_with_properties_of_its_own(evaluator):
    class Moving(evaluator.EvaluationContext):
        days: ClassVar[list[int]] = []

        @property
        def current_day_index(self) -> int:
            return -1

        @current_day_index.setter
        def current_day_index(self, day: int) -> None:
            self.days.append(day)

    context = make_context(evaluator, {"a": counting_matrix(3)})
    context.__class__ = Moving
    run(evaluator, context)
    assert Moving.days == [0, 1, 2]


def test_attributes_deleted_from_a_context(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    for name in ("_evaluation_lock", "_skip_evaluation_shape_validation", "registers"):
        delattr(context, name)
    run(evaluator, context)
    assert context._evaluation_lock is not None
    del context.universe
    with pytest.raises(AttributeError, match="object has no attribute 'universe'"):
        run(evaluator, context)


# --- sequences and mappings of other kinds -------------------------------------------------------


class Sequence:
    """As little of a sequence as features need."""

    def __init__(self, items: list[Any]) -> None:
        self.items = items
        self.asked: list[Any] = []

    def __len__(self) -> int:
        return len(self.items)

    def __getitem__(self, position: Any) -> Any:
        self.asked.append(position)
        return self.items[position]


def test_features_in_a_sequence_of_another_kind(evaluator):
    features = Sequence([counting_matrix(3)])
    context = Bare(**required_attributes(features=features))
    context._skip_evaluation_shape_validation = True
    same_bits(run(evaluator, context).weights, counting_matrix(3) + 1.0)
    assert features.asked == [0, 0, 0, 0, 0, 0]


class ListOfItsOwn(list):
    def __getitem__(self, position: Any) -> Any:
        return super().__getitem__(0)

    def __len__(self) -> int:
        return 1


def test_a_list_that_answers_in_its_own_way(evaluator):
    features = ListOfItsOwn([counting_matrix(2), np.zeros((2, 3))])
    context = Bare(**required_attributes(features=features, feature_index={"a": 1}))
    same_bits(run(evaluator, context).weights, counting_matrix(2) + 1.0)


class Empty(list):
    def __len__(self) -> int:
        return 0


def test_a_full_list_that_says_it_is_empty(evaluator):
    context = Bare(**required_attributes(features=Empty([counting_matrix(2)])))
    with pytest.raises(Exception, match=r"^No features provided$"):
        run(evaluator, context)


class Index(dict):
    """A feature index whose own methods answer."""

    def __contains__(self, name: object) -> bool:
        return name == "a"

    def __getitem__(self, name: str) -> int:
        return 0


def test_a_feature_index_that_answers_in_its_own_way(evaluator):
    context = Bare(**required_attributes(feature_index=Index(zz=5)))
    same_bits(run(evaluator, context).weights, counting_matrix(2) + 1.0)


@pytest.mark.parametrize("method", ["__contains__", "__getitem__"])
def test_a_feature_index_that_fails(evaluator, method):
    fault = RuntimeError("index")
    index = type("Failing", (Index,), {method: raising(fault)})()
    with lets_through(fault):
        run(evaluator, Bare(**required_attributes(feature_index=index)))


def test_an_index_without_the_name_that_it_claims(evaluator):
    class Claiming(dict):
        def __contains__(self, name: object) -> bool:
            return True

    with pytest.raises(KeyError, match=r"^'a'$"):
        run(evaluator, Bare(**required_attributes(feature_index=Claiming())))


class Text(str):
    """A text that shows itself in another way."""

    def __str__(self) -> str:
        return "shown"

    def __format__(self, format_spec: str) -> str:
        return "formatted"


def test_messages_show_values_in_their_own_format(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with pytest.raises(Exception, match=r"^Feature 'formatted' not in context$"):
        evaluator.evaluate(rotation("f", feature(Text("zz"))), context)
    with pytest.raises(Exception, match=r"^Function 'formatted' at node 'root' is not bound"):
        evaluator.evaluate(rotation(Text("f")), context)


def test_a_name_that_cannot_be_shown(evaluator):
    fault = RuntimeError("format")
    name = type("Mute", (str,), {"__format__": raising(fault)})("zz")
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with lets_through(fault):
        evaluator.evaluate(rotation("f", feature(name)), context)


class States(dict):
    def __init__(self, fault: BaseException, method: str) -> None:
        super().__init__()
        self.plan = (method, fault)

    def _fail(self, method: str) -> None:
        if self.plan[0] == method:
            raise self.plan[1]

    def __contains__(self, key: object) -> bool:
        self._fail("contains")
        return True

    def __getitem__(self, key: Any) -> Any:
        self._fail("getitem")
        return {"count": 1}

    def keys(self) -> Any:
        self._fail("keys")
        return ["root"]


@pytest.mark.parametrize("method", ["contains", "getitem", "keys"])
def test_states_that_fail(evaluator, method):
    fault = RuntimeError(method)
    registry = RecordingRegistry(entries={"f": entry()})
    context = make_context(evaluator, {"a": counting_matrix(2)}, registry=registry)
    states = States(fault, method)
    with lets_through(fault):
        evaluator._evaluate_unlocked(rotation("f", feature("a")), context, states or states)


def test_a_state_without_a_truth_value(evaluator):
    class State:
        state_data = np.zeros(2)

    context = make_context(
        evaluator, {"a": counting_matrix(2)}, registry=RecordingRegistry(entries={"f": entry()})
    )
    with pytest.raises(ValueError, match="truth value of an array"):
        evaluator.evaluate(rotation("f", feature("a")), context, {"root": State()})


@pytest.mark.parametrize("method", ["__contains__", "__getitem__", "__bool__"])
def test_a_bound_mapping_that_fails(evaluator, method):
    fault = RuntimeError(method)

    class Bound(dict):
        def __bool__(self) -> bool:
            return True

    bound = type("Failing", (Bound,), {method: raising(fault)})(root=RecordingFunction())
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with lets_through(fault):
        evaluator.evaluate(rotation("f", feature("a")), context, bound_function_instances=bound)


def test_marked_features_that_fail(evaluator):
    fault = RuntimeError("names")

    class Names:
        def __bool__(self) -> bool:
            return True

        def __iter__(self) -> Any:
            raise fault

    context = make_context(evaluator, {"a": counting_matrix(2)})
    with lets_through(fault):
        evaluator.evaluate(number(1.0), context, data_nan_features=Names())
    same_bits(context.registers, np.zeros((1, 3)))


# --- instances -----------------------------------------------------------------------------------


@pytest.mark.parametrize("states", [None, {"root": {}}])
def test_an_instance_whose_statefulness_cannot_be_read(evaluator, states):
    fault = RuntimeError("stateful")
    kind = type("Hiding", (), {"stateful": property(raising(fault)), "__call__": lambda *_: 1.0})
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with pytest.raises(RuntimeError) as caught:
        run(evaluator, context, kind(), function_states=states)
    assert caught.value is fault
    assert context.current_day_index == (1 if states is None else 0)


def test_an_instance_whose_statefulness_has_no_truth_value(evaluator):
    with pytest.raises(ValueError, match="truth value of an array"):
        run(
            evaluator,
            make_context(evaluator, {"a": counting_matrix(2)}),
            RecordingFunction(stateful=np.zeros(2)),
        )


def test_statefulness_is_read_when_it_is_needed(evaluator):
    class Turning(RecordingFunction):
        @property
        def stateful(self) -> bool:
            return len(self.calls) == 2

        @stateful.setter
        def stateful(self, _: Any) -> None:
            pass

    context = make_context(evaluator, {"a": counting_matrix(2)})
    result = run(evaluator, context, Turning(state="late"), function_states={})
    assert result.states == {"root": "late"}


@pytest.mark.parametrize("fault", [RuntimeError("state"), KeyboardInterrupt()])
def test_a_state_that_cannot_be_had(evaluator, fault):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with pytest.raises(type(fault)) as caught:
        run(evaluator, context, RecordingFunction(stateful=True, state=raising(fault)))
    assert caught.value is fault


def test_instances_that_hash_and_compare_oddly(evaluator):
    class Odd(RecordingFunction):
        __hash__ = None

        def __eq__(self, other: object) -> Any:
            raise AssertionError("instances are not compared")

    instance = Odd(stateful=True, state="odd")
    graph = rotation("f", rotation("f", feature("a"), integer(1)))
    context = make_context(evaluator, {"a": counting_matrix(2)})
    result = evaluator.evaluate(
        graph, context, bound_function_instances={"root": instance, "root.c0": instance}
    )
    assert result.states == {"root.c0": "odd", "root": "odd"}
