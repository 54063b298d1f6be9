"""Construction of a context."""

from __future__ import annotations

import gc
import threading
import weakref
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import SchemaError, StageData
from quernbrook.simulator_engine._types import EvaluationError, UsefulSignal
from support.functions import raising
from support.runs import fails

ATTRIBUTES = [
    "feature_index",
    "useful_signals",
    "registry",
    "universe",
    "metaparameters",
    "transform_pipeline",
    "stage_data",
    "column_labels",
    "signal_pnl_vectors",
    "function_states",
    "universe_mask",
    "current_day_index",
    "pool_id",
    "universe_tag",
    "liquidity_feature_hashes",
    "liquidity_features",
    "factor_epoch",
    "epoch",
    "factor_model",
    "factor_model_version_id",
    "transforms_already_combined",
    "_skip_evaluation_shape_validation",
    "_evaluation_lock",
    "registers",
    "extraction_buffer",
    "features",
]
PARAMETERS = [
    "features",
    "feature_index",
    "useful_signals",
    "registry",
    "universe",
    "metaparameters",
    "transform_pipeline",
    "stage_data",
    "column_labels",
    "signal_pnl_vectors",
    "function_states",
    "universe_mask",
    "current_day_index",
    "pool_id",
    "universe_tag",
    "transforms_already_combined",
]
MATRIX = np.zeros((3, 2))


def shaped(*shape: int) -> Any:
    """The validator looks at nothing but the shape."""
    return SimpleNamespace(shape=shape)


def signal(weights: Any = None, pnl: Any = None) -> UsefulSignal:
    return UsefulSignal(weights=weights, pnl=pnl)


# --- what is stored --------------------------------------------------------------------------


def test_attributes_in_their_order(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0})
    assert list(vars(context)) == ATTRIBUTES


def test_defaults(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0})
    fresh: dict[str, Any] = {
        "useful_signals": {},
        "metaparameters": {},
        "transform_pipeline": [],
        "column_labels": [],
        "liquidity_feature_hashes": [],
        "liquidity_features": [],
    }
    for name, empty in fresh.items():
        assert type(getattr(context, name)) is type(empty)
        assert getattr(context, name) == empty
    for name in (
        "registry",
        "universe",
        "signal_pnl_vectors",
        "function_states",
        "universe_mask",
        "pool_id",
        "universe_tag",
        "factor_epoch",
        "epoch",
        "factor_model",
        "factor_model_version_id",
        "registers",
        "extraction_buffer",
    ):
        assert getattr(context, name) is None
    assert type(context.stage_data) is StageData
    assert context.stage_data.is_empty()
    assert context.current_day_index == 0 and type(context.current_day_index) is int
    assert context.transforms_already_combined is False
    assert context._skip_evaluation_shape_validation is False
    assert isinstance(context._evaluation_lock, type(threading.RLock()))


def test_two_contexts_share_nothing_made_for_them(evaluator: ModuleType) -> None:
    one, two = (evaluator.EvaluationContext((MATRIX,), {"x": 0}) for _ in range(2))
    for name in ATTRIBUTES:
        value = getattr(one, name)
        if isinstance(value, (dict, list, StageData)) or name == "_evaluation_lock":
            assert value is not getattr(two, name)


@pytest.mark.parametrize("positional", [True, False])
def test_everything_is_held_by_reference(evaluator: ModuleType, positional: bool) -> None:
    given: dict[str, Any] = {name: object() for name in PARAMETERS}
    given["features"] = [MATRIX]
    given["feature_index"] = {"x": 0}
    given["universe"] = MATRIX
    given["useful_signals"] = {}
    given["stage_data"] = StageData()
    if positional:
        context = evaluator.EvaluationContext(*given.values(), True)
    else:
        context = evaluator.EvaluationContext(**given, validate_inputs=True)
    for name, value in given.items():
        assert getattr(context, name) is value
    assert list(vars(context)) == ATTRIBUTES


@pytest.mark.parametrize("name", ["useful_signals", "metaparameters"])
def test_empty_dict_of_the_caller_is_kept(evaluator: ModuleType, name: str) -> None:
    given: dict[str, Any] = {}
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0}, **{name: given})
    assert getattr(context, name) is given


@pytest.mark.parametrize("name", ["transform_pipeline", "column_labels"])
def test_empty_list_of_the_caller_is_kept(evaluator: ModuleType, name: str) -> None:
    given: list[Any] = []
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0}, **{name: given})
    assert getattr(context, name) is given


@pytest.mark.parametrize(
    ("validate", "skips"),
    [(True, False), (False, True), (0, True), ("no", False), (None, True), ([], True), (2, False)],
)
def test_validation_flag_is_a_real_bool(evaluator: ModuleType, validate: Any, skips: bool) -> None:
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0}, validate_inputs=validate)
    assert context._skip_evaluation_shape_validation is skips
    assert not hasattr(context, "validate_inputs")


def test_combined_flag_is_kept_as_given(evaluator: ModuleType) -> None:
    flag: list[Any] = []
    context = evaluator.EvaluationContext((), {}, transforms_already_combined=flag)
    assert context.transforms_already_combined is flag


def test_attributes_are_set_one_by_one_through_the_class(evaluator: ModuleType) -> None:
    order: list[str] = []

    class Watching(evaluator.EvaluationContext):  # type: ignore[name-defined]
        def __setattr__(self, name: str, value: Any) -> None:
            order.append(name)
            super().__setattr__(name, value)

    Watching((MATRIX,), {"x": 0}, {"s": signal()})
    assert order == [*ATTRIBUTES, "extraction_buffer"]


def test_any_attribute_may_be_changed_added_and_deleted(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0})
    for name in [*ATTRIBUTES, "of_the_host"]:
        setattr(context, name, name)
        assert getattr(context, name) == name
        delattr(context, name)
        assert not hasattr(context, name)
    assert vars(context) == {}


def test_second_construction_starts_anew(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0}, {"s": signal()})
    lock = context._evaluation_lock
    assert context.__init__((), {}) is None  # type: ignore[func-returns-value]
    assert context.features == () and context.extraction_buffer is None
    assert context._evaluation_lock is not lock


def test_weak_reference_and_cycle(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((MATRIX,), {"x": 0})
    context.self = context
    reference = weakref.ref(context)
    del context
    gc.collect()
    assert reference() is None


# --- stage data ------------------------------------------------------------------------------


class Derived(StageData):
    pass


def test_derived_stage_data_is_kept(evaluator: ModuleType) -> None:
    given = Derived()
    assert evaluator.EvaluationContext((), {}, stage_data=given).stage_data is given


@pytest.mark.parametrize("validate", [True, False])
@pytest.mark.parametrize(
    ("given", "type_name"), [({}, "dict"), (False, "bool"), (StageData, "type"), ("", "str")]
)
def test_other_stage_data_is_refused_first(
    evaluator: ModuleType, given: Any, type_name: str, validate: bool
) -> None:
    context = evaluator.EvaluationContext.__new__(evaluator.EvaluationContext)
    text = f"EvaluationContext.stage_data must be StageData or None; got {type_name}"
    with fails(SchemaError, text):
        context.__init__((MATRIX,), {"x": 9}, stage_data=given, validate_inputs=validate)
    assert list(vars(context)) == ATTRIBUTES[:6]


# --- the name index --------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("features", "index", "text"),
    [
        ((MATRIX,), {"x": 1}, "feature_index['x'] = 1 is out of bounds for 1 features"),
        ((MATRIX,), {"x": -1}, "feature_index['x'] = -1 is out of bounds for 1 features"),
        ((), {"x": 0}, "feature_index['x'] = 0 is out of bounds for 0 features"),
        (
            [MATRIX],
            {"a": 0, "b": 7, "c": -2},
            "feature_index['b'] = 7 is out of bounds for 1 features",
        ),
        ((MATRIX,), {5: np.int64(3)}, "feature_index['5'] = 3 is out of bounds for 1 features"),
        ((MATRIX,), {"x": 1.5}, "feature_index['x'] = 1.5 is out of bounds for 1 features"),
    ],
)
def test_position_out_of_bounds(
    evaluator: ModuleType, features: Any, index: dict[Any, Any], text: str
) -> None:
    context = evaluator.EvaluationContext.__new__(evaluator.EvaluationContext)
    with fails(EvaluationError, text):
        context.__init__(features, index)
    assert list(vars(context)) == ATTRIBUTES
    unchecked = evaluator.EvaluationContext(features, index, validate_inputs=False)
    assert unchecked.feature_index is index
    assert unchecked._skip_evaluation_shape_validation is True


@pytest.mark.parametrize("position", [0, True, 0.5, np.int32(1), float("nan"), -0.0])
def test_positions_are_only_compared(evaluator: ModuleType, position: Any) -> None:
    index = {"x": position}
    assert evaluator.EvaluationContext((MATRIX, MATRIX), index).feature_index is index


def test_position_that_cannot_be_compared(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError):
        evaluator.EvaluationContext((MATRIX,), {"x": "0"})


def test_index_must_have_items(evaluator: ModuleType) -> None:
    for index in (None, ["x"]):
        with pytest.raises(AttributeError, match="items"):
            evaluator.EvaluationContext((MATRIX,), index)
        context = evaluator.EvaluationContext((MATRIX,), index, validate_inputs=False)
        assert context.feature_index is index


def test_index_is_checked_before_shapes(evaluator: ModuleType) -> None:
    with pytest.raises(EvaluationError, match="out of bounds"):
        evaluator.EvaluationContext((MATRIX, np.zeros((1, 1))), {"x": 2})


def test_message_formats_the_name(evaluator: ModuleType) -> None:
    class Name(str):
        def __format__(self, spec: str) -> str:
            return f"<{spec}>"

        def __str__(self) -> str:
            raise AssertionError("str() is not format()")

    with fails(EvaluationError, "feature_index['<>'] = 4 is out of bounds for 1 features"):
        evaluator.EvaluationContext((MATRIX,), {Name("x"): 4})


# --- the extraction buffer -------------------------------------------------------------------


@pytest.mark.parametrize("validate", [True, False])
def test_buffer_has_a_row_for_each_signal(evaluator: ModuleType, validate: bool) -> None:
    signals = {name: signal() for name in "abcd"}
    context = evaluator.EvaluationContext((MATRIX,), {}, signals, validate_inputs=validate)
    assert context.extraction_buffer.shape == (4, 2)
    assert context.extraction_buffer.dtype == np.float64
    assert not context.extraction_buffer.any()


@pytest.mark.parametrize(
    ("features", "signals"), [((MATRIX,), {}), ((MATRIX,), None), ((), {"s": signal()}), ((), {})]
)
def test_no_buffer(evaluator: ModuleType, features: Any, signals: Any) -> None:
    assert evaluator.EvaluationContext(features, {}, signals).extraction_buffer is None


@pytest.mark.parametrize("validate", [True, False])
def test_feature_without_width_and_signals(evaluator: ModuleType, validate: bool) -> None:
    with pytest.raises(IndexError):
        evaluator.EvaluationContext((np.zeros(3),), {}, {"s": signal()}, validate_inputs=validate)
    assert evaluator.EvaluationContext((np.zeros(3),), {}).extraction_buffer is None


# --- hostile arguments -----------------------------------------------------------------------


def hostile(**methods: Any) -> Any:
    return type("Hostile", (), methods)()


@pytest.mark.parametrize(
    "arguments",
    [
        lambda fail: {"features": hostile(__len__=fail)},
        lambda fail: {"feature_index": hostile(items=fail)},
        lambda fail: {"feature_index": {"x": hostile(__lt__=fail)}},
        lambda fail: {"feature_index": {"x": hostile(__lt__=lambda *_: False, __ge__=fail)}},
        lambda fail: {"feature_index": {"x": hostile(__lt__=lambda *_: True, __format__=fail)}},
        lambda fail: {"useful_signals": hostile(__bool__=fail)},
        lambda fail: {"useful_signals": hostile(__len__=fail)},
        lambda fail: {"useful_signals": hostile(items=fail)},
        lambda fail: {"universe": hostile(shape=property(fail))},
        lambda fail: {"universe": SimpleNamespace(shape=hostile(__eq__=fail, __ne__=fail))},
        lambda fail: {"useful_signals": {"s": hostile(weights=property(fail))}},
        lambda fail: {"useful_signals": {"s": hostile(weights=None, pnl=property(fail))}},
        lambda fail: {"stage_data": hostile(__class__=property(fail))},
        lambda fail: {"validate_inputs": hostile(__bool__=fail)},
    ],
)
@pytest.mark.parametrize("error", [ValueError("no"), KeyboardInterrupt()], ids=["error", "stop"])
def test_what_arguments_raise_passes_through(
    evaluator: ModuleType, arguments: Any, error: BaseException
) -> None:
    keywords: dict[str, Any] = {"features": (MATRIX,), "feature_index": {"x": 0}}
    keywords.update(arguments(raising(error)))
    with pytest.raises(type(error)) as caught:
        evaluator.EvaluationContext(**keywords)
    assert caught.value is error


def test_signals_with_a_truth_of_their_own(evaluator: ModuleType) -> None:
    class Quiet(dict):  # type: ignore[type-arg]
        def __bool__(self) -> bool:
            return False

    given = Quiet(s=signal(shaped(1, 1)))
    context = evaluator.EvaluationContext((MATRIX,), {}, given)
    assert context.useful_signals is given
    assert context.extraction_buffer is None
