"""What the module shows to those who import it."""

from __future__ import annotations

import importlib
import importlib.machinery
import importlib.util
import inspect
import pickle
import sys
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
import structlog
from quernbrook.functions._typed_shapes import StageData
from support.graphs import aggregation, feature, filtration, integer, number, rotation, string

PUBLIC = {
    "evaluate",
    "generate_node_identities",
    "invalidate_graph_evaluation_caches",
    "extract_filtration_weights",
    "EvaluationContext",
    "EvaluationResult",
    "FunctionState",
    "FILTRATION_NODE_TYPES",
}

IMPORTED = {
    "copy": ["deepcopy"],
    "dataclasses": ["dataclass", "field"],
    "typing": ["Any", "Dict", "List", "Optional", "Tuple"],
    "quernbrook.functions.filtrations_evaluation": [
        "EmptyFiltrationError",
        "EmptyPoolError",
        "FilterNode",
        "FiltrationResult",
    ],
    "quernbrook.functions.filtrations": ["FiltrationInstance"],
    "quernbrook.simulator_engine._types": [
        "UsefulSignal",
        "TransformStage",
        "EvaluationError",
        "EvaluationShapeError",
        "FunctionExecutionError",
        "FiltrationResolutionError",
    ],
    "quernbrook.simulator_engine._combine": ["combine_signal_and_transforms"],
    "quernbrook.simulator_engine._graph_helpers": ["extract_feature_leaf_names"],
    "quernbrook.simulator_engine._registry_protocols": ["RegistryProtocol"],
    "quernbrook.functions._typed_shapes": ["FunctionGraphNode", "SchemaError", "StageData"],
}
IMPORTED_MODULES = {
    "importlib": "importlib",
    "json": "json",
    "threading": "threading",
    "np": "numpy",
    "structlog": "structlog",
}

CLASSES = ["EvaluationContext", "EvaluationResult", "FunctionState"]

# the signature of each function, written as a function that has it
SIGNATURES: dict[str, Callable[..., Any]] = {
    "evaluate": lambda graph, context, function_states=None, is_cold_start=False, *, bound_function_instances=None, data_nan_features=None: (
        None
    ),
    "_evaluate_unlocked": lambda graph, context, function_states=None, is_cold_start=False, *, bound_function_instances=None, data_nan_features=None: (
        None
    ),
    "generate_node_identities": lambda graph: None,
    "invalidate_graph_evaluation_caches": lambda graph: None,
    "extract_filtration_weights": lambda useful_signals, passing_ids, t: None,
    "_apply_universe_mask": lambda data, universe: None,
    "_can_use_leaf_fast_path": lambda graph, context, function_states, *, data_nan_features=None: (
        None
    ),
    "_evaluate_leaf_fast": lambda graph, context: None,
    "_can_use_simple_rank_fast_path": lambda graph, context, function_states, *, data_nan_features=None: (
        None
    ),
    "_can_use_rank_multiply_fast_path": lambda graph, context, function_states, *, bound_function_instances=None, data_nan_features=None: (
        None
    ),
    "_can_use_longitudinal_fast_path": lambda graph, context, function_states, T, *, data_nan_features=None: (
        None
    ),
    "_get_int_window_child": lambda children: None,
    "_evaluate_simple_rank_fast": lambda graph, context: None,
    "_evaluate_rank_multiply_fast": lambda graph, context: None,
    "_feature_matrix_for_fast_path": lambda node, context: None,
    "_rolling_longitudinal_fast": lambda data, window, name: None,
    "_evaluate_longitudinal_fast_node": lambda node, context: None,
    "_evaluate_longitudinal_fast": lambda graph, context: None,
    "_compute_graph_warmup_rows": lambda graph_node, registry, path="root": None,
    "_get_warmup_count_for_instance": lambda instance: None,
    "_validate_evaluation_shapes": lambda features, universe, useful_signals: None,
    "_iter_schema_items": lambda schema: None,
    "_schema_param_name_and_type": lambda item, fallback_name=None: None,
    "_config_param_names": lambda entry: None,
    "_function_state_data": lambda state: None,
    "_function_state_version": lambda registry, function_name, state: None,
    "_registry_function_state_class": lambda registry: None,
    "_state_for_registry_restore": lambda registry, function_name, state: None,
    "_require_graph_node_instance": lambda node, path: None,
    "_graph_has_field": lambda node, key: None,
    "_require_graph_field": lambda node, key, path: None,
    "_require_graph_type_value": lambda node, path: None,
    "_require_graph_node_value": lambda node, path: None,
    "_graph_children": lambda node: None,
    "_graph_config_dict": lambda node: None,
    "_graph_cache_get": lambda graph, key: None,
    "_graph_cache_set": lambda graph, key, value: None,
    "_dict_to_filter_node": lambda graph_node, path="filtration": None,
    "_describe_dict_filter": lambda node, path="filtration": None,
    "_attach_stage_data_feature_leaves": lambda graph, context: None,
    "_annotate_state_identities": lambda node, path="root": None,
    "_resolve_stage_option": lambda context, stage: None,
    "EvaluationContext": lambda features, feature_index, useful_signals=None, registry=None, universe=None, metaparameters=None, transform_pipeline=None, stage_data=None, column_labels=None, signal_pnl_vectors=None, function_states=None, universe_mask=None, current_day_index=0, pool_id=None, universe_tag=None, transforms_already_combined=False, validate_inputs=True: (
        None
    ),
    "EvaluationResult": lambda weights, states, nan_source=None, node_outputs=None: None,
}

DOCUMENTATION = {
    "EvaluationContext": (
        "EvaluationContext — stores inputs, validates dimensions, allocates extraction buffer."
    ),
    "EvaluationResult": "Array-like evaluate() result that still unpacks as (weights, states).",
    "FunctionState": "Serializable function state for checkpointing.",
    "_validate_evaluation_shapes": (
        "Validate shape consistency across features, universe, and useful signals."
    ),
    "_function_state_data": (
        "Return the serializable state payload from FunctionState or raw dict."
    ),
    "_function_state_version": (
        "Resolve the version metadata needed by strict FunctionStore restores."
    ),
    "_registry_function_state_class": (
        "Return registry module FunctionState class when the registry declares one."
    ),
    "_state_for_registry_restore": (
        "Adapt evaluator raw state payloads to registries with typed state contracts."
    ),
    "_require_graph_field": (
        "Return a required graph-node field or fail before evaluation proceeds."
    ),
    "_graph_cache_get": "Read a per-graph evaluator cache slot.",
    "_graph_cache_set": "Write a per-graph evaluator cache slot.",
    "generate_node_identities": (
        "Generate tree node identity strings for all nodes in the graph.",
        "Returns Dict[str, Any] mapping tree node identity strings to node names/values.",
    ),
    "invalidate_graph_evaluation_caches": (
        "Clear graph-local evaluator caches after structural graph mutation."
    ),
    "extract_filtration_weights": (
        "Extract weight rows for all passing signals at timestep t.",
        "Returns ndarray of shape (A, N_alloc) with rows ordered by passing_ids.",
    ),
    "_compute_graph_warmup_rows": (
        "Return the number of leading output rows that must remain warmup NaNs."
    ),
    "_get_warmup_count_for_instance": (
        "Return the number of rows a stateful instance has already consumed."
    ),
    "_attach_stage_data_feature_leaves": (
        "Expose 2D stage_data arrays as normal feature leaves for DAG evaluation."
    ),
    "_annotate_state_identities": (
        "Preserve clear-graph state keys after transforms wrap the graph."
    ),
    "_resolve_stage_option": (
        "Resolve the option for a transform stage from context.metaparameters."
    ),
    "_describe_dict_filter": ("Build a human-readable description of a dict-format filter tree."),
}


@pytest.fixture
def native(evaluator: ModuleType) -> ModuleType:
    if not str(evaluator.__file__).endswith(tuple(importlib.machinery.EXTENSION_SUFFIXES)):
        pytest.skip("concerns the extension module alone")
    return evaluator


def valid_arguments(evaluator: ModuleType, function: str) -> dict[str, Any]:
    """Arguments by keyword with which the call succeeds."""
    data = np.arange(6.0).reshape(3, 2)
    leaf = feature("x")
    context = evaluator.EvaluationContext((data,), {"x": 0})
    run = {
        "graph": leaf,
        "context": context,
        "function_states": None,
        "is_cold_start": True,
        "bound_function_instances": None,
        "data_nan_features": None,
    }
    rank = rotation("latitudinal_rank", leaf)
    mean = rotation("longitudinal_mean", leaf, integer(2))
    product = rotation("numerical_multiply", rank, rotation("latitudinal_rank", aggregation("x")))
    special: dict[str, dict[str, Any]] = {
        "evaluate": run,
        "_evaluate_unlocked": run,
        "extract_filtration_weights": {
            "useful_signals": {"s": SimpleNamespace(weights=data)},
            "passing_ids": ["s"],
            "t": 1,
        },
        "_evaluate_simple_rank_fast": {"graph": rank},
        "_evaluate_rank_multiply_fast": {"graph": product},
        "_evaluate_longitudinal_fast": {"graph": mean},
        "_evaluate_longitudinal_fast_node": {"node": mean},
        "_rolling_longitudinal_fast": {"data": data, "window": 2, "name": "longitudinal_mean"},
        "_get_warmup_count_for_instance": {
            "instance": SimpleNamespace(get_state=lambda: {"count": 1}, stateful=True)
        },
        "_dict_to_filter_node": {
            "graph_node": filtration("gt", string("momentum"), number(0.5)),
        },
        "_describe_dict_filter": {"node": filtration("gt", string("momentum"))},
        "EvaluationContext": {
            "features": (data,),
            "feature_index": {"x": 0},
            "stage_data": StageData(),
            "universe": data,
            "useful_signals": {},
        },
    }
    common: dict[str, Any] = {
        "graph": leaf,
        "graph_node": leaf,
        "node": leaf,
        "context": context,
        "data": data,
        "features": (data,),
        "children": [leaf, integer(2)],
        "universe": data,
        "useful_signals": {},
        "path": "root",
        "key": "node",
        "T": 3,
        "stage": SimpleNamespace(name="stage", default=None),
    }
    arguments = {
        name: common.get(name) for name in inspect.signature(SIGNATURES[function]).parameters
    }
    arguments.update(special.get(function, {}))
    return arguments


def test_documentation_of_the_module(native: ModuleType) -> None:
    assert native.__doc__ is not None
    assert "Expression evaluator implementation (MVP)." in native.__doc__


@pytest.mark.parametrize("name", DOCUMENTATION)
def test_documentation(evaluator: ModuleType, name: str) -> None:
    text = inspect.getdoc(getattr(evaluator, name))
    assert text is not None
    sentences = DOCUMENTATION[name]
    for sentence in (sentences,) if isinstance(sentences, str) else sentences:
        assert sentence in " ".join(text.split())


def test_public_names(evaluator: ModuleType) -> None:
    imported = {*IMPORTED_MODULES, *(name for names in IMPORTED.values() for name in names)}
    rooms = {
        name
        for name, value in vars(evaluator).items()
        if isinstance(value, ModuleType) and value.__name__.startswith(evaluator.__name__ + ".")
    }
    public = {name for name in vars(evaluator) if not name.startswith("_")}
    assert public - imported - rooms == PUBLIC
    assert not hasattr(evaluator, "__all__")


@pytest.mark.parametrize("source", IMPORTED)
def test_imported_names(evaluator: ModuleType, source: str) -> None:
    for name in IMPORTED[source]:
        assert getattr(evaluator, name) is getattr(importlib.import_module(source), name)


def test_imported_modules(evaluator: ModuleType) -> None:
    for name, source in IMPORTED_MODULES.items():
        assert getattr(evaluator, name) is importlib.import_module(source)


def test_logger_is_structured(evaluator: ModuleType) -> None:
    with structlog.testing.capture_logs() as lines:
        evaluator._logger.error("an.event", path="root")
    assert lines == [{"event": "an.event", "path": "root", "log_level": "error"}]


# --- functions -------------------------------------------------------------------------------


def shape(function: Any) -> list[tuple[str, Any, Any]]:
    parameters = inspect.signature(function).parameters.values()
    return [(parameter.name, parameter.kind, parameter.default) for parameter in parameters]


@pytest.mark.parametrize("name", SIGNATURES)
def test_signatures(evaluator: ModuleType, name: str) -> None:
    expected = shape(SIGNATURES[name])
    found = shape(getattr(evaluator, name))
    assert found == expected
    for (_, _, default), (_, _, wanted) in zip(found, expected, strict=True):
        assert type(default) is type(wanted)  # False is not 0


@pytest.mark.parametrize("name", SIGNATURES)
def test_every_parameter_may_be_a_keyword(evaluator: ModuleType, name: str) -> None:
    arguments = valid_arguments(evaluator, name)
    assert set(arguments) <= set(inspect.signature(SIGNATURES[name]).parameters)
    getattr(evaluator, name)(**arguments)
    reverse = dict(reversed(valid_arguments(evaluator, name).items()))
    getattr(evaluator, name)(**reverse)


@pytest.mark.parametrize("name", SIGNATURES)
def test_wrong_arguments(evaluator: ModuleType, name: str) -> None:
    function = getattr(evaluator, name)
    arguments = valid_arguments(evaluator, name)
    parameters = inspect.signature(SIGNATURES[name]).parameters.values()
    positional = [p.name for p in parameters if p.kind is not p.KEYWORD_ONLY]
    required = [p.name for p in parameters if p.default is p.empty]
    values = [arguments.get(parameter) for parameter in positional]
    with pytest.raises(TypeError):
        function(*values, None)
    with pytest.raises(TypeError):
        function(**arguments, no_such_parameter=None)
    with pytest.raises(TypeError):
        function(values[0], **arguments)
    for missing in required:
        with pytest.raises(TypeError):
            function(**{key: value for key, value in arguments.items() if key != missing})


def test_keywords_of_any_spelling(evaluator: ModuleType) -> None:
    class Text(str):
        pass

    arguments = valid_arguments(evaluator, "evaluate")
    evaluator.evaluate(**{Text(name): value for name, value in arguments.items()})
    for name in ("gräph", "Graph", "", "グラフ"):
        with pytest.raises(TypeError, match=f"unexpected keyword argument '{name}'"):
            evaluator.evaluate(**arguments, **{name: None})


def test_all_missing_arguments_are_named(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError) as two:
        evaluator.evaluate()
    assert str(two.value).endswith(
        "evaluate() missing 2 required positional arguments: 'graph' and 'context'"
    )
    with pytest.raises(TypeError) as three:
        evaluator.extract_filtration_weights()
    assert str(three.value).endswith(
        "missing 3 required positional arguments: 'useful_signals', 'passing_ids', and 't'"
    )


def test_a_name_that_is_gone_from_the_module(
    native: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    context = native.EvaluationContext((np.ones((1, 1)),), {"x": 0})
    monkeypatch.delattr(native, "_evaluate_unlocked")
    with pytest.raises(NameError, match="name '_evaluate_unlocked' is not defined"):
        native.evaluate(feature("x"), context)


@pytest.mark.parametrize("name", ["_param_schema_names", "_preflight_param_schema_names"])
def test_names_of_a_schema(evaluator: ModuleType, name: str) -> None:
    entry = SimpleNamespace(param_schema={"window": "int", "total": "float"})
    assert set(getattr(evaluator, name)(entry)) == {"window", "total"}


@pytest.mark.parametrize("name", [name for name in SIGNATURES if name not in CLASSES])
def test_functions_know_where_they_live(evaluator: ModuleType, name: str) -> None:
    function = getattr(evaluator, name)
    assert inspect.isroutine(function)
    assert function.__name__ == function.__qualname__ == name
    assert (function.__module__ + ".").startswith(evaluator.__name__ + ".")
    assert pickle.loads(pickle.dumps(function)) is function


# --- classes ---------------------------------------------------------------------------------


@pytest.mark.parametrize("name", CLASSES)
def test_classes_are_plain(evaluator: ModuleType, name: str) -> None:
    kind = getattr(evaluator, name)
    assert type(kind) is type
    assert kind.__bases__ == (object,)
    assert kind.__name__ == kind.__qualname__ == name
    assert (kind.__module__ + ".").startswith(evaluator.__name__ + ".")
    assert pickle.loads(pickle.dumps(kind)) is kind
    assert type(type("Derived", (kind,), {})) is type


@pytest.mark.parametrize("name", CLASSES)
def test_classes_take_further_attributes(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, name: str
) -> None:
    kind = getattr(evaluator, name)
    monkeypatch.setattr(kind, "note", "of the class", raising=False)
    instance = kind.__new__(kind)
    assert instance.note == "of the class"
    instance.note = "of the instance"
    assert (instance.note, kind.note) == ("of the instance", "of the class")


def test_signature_of_a_state(evaluator: ModuleType) -> None:
    kind = evaluator.FunctionState
    parameters = list(inspect.signature(kind).parameters.values())
    assert [parameter.name for parameter in parameters] == ["name", "state_data"]
    assert {parameter.kind for parameter in parameters} == {parameters[0].POSITIONAL_OR_KEYWORD}
    assert parameters[0].default is inspect.Parameter.empty
    assert repr(parameters[1].default) == "<factory>"


def test_signatures_of_methods(evaluator: ModuleType) -> None:
    def names(method: Any) -> list[str]:
        return list(inspect.signature(method).parameters)

    context = evaluator.EvaluationContext
    assert names(context.__getstate__) == ["self"]
    assert names(context.__setstate__) == ["self", "state"]
    assert shape(evaluator.EvaluationResult.__array__)[1][0::2] == ("dtype", None)
    assert names(evaluator.FunctionState.to_bytes) == ["self"]
    assert names(evaluator.FunctionState.from_bytes) == ["data"]
    instance = context((), {})
    assert instance.__setstate__(state={"features": 1}) is None
    assert instance.features == 1


def test_constants(evaluator: ModuleType) -> None:
    assert type(evaluator.FILTRATION_NODE_TYPES) is frozenset
    assert len(evaluator.FILTRATION_NODE_TYPES) == 16
    assert evaluator._LONGITUDINAL_FAST_MIN_ROWS == 100000
    assert {
        "longitudinal_mean",
        "longitudinal_std",
        "longitudinal_zscore",
    } == evaluator._LONGITUDINAL_FAST_NAMES


# --- loading ---------------------------------------------------------------------------------


def load(name: str, file: str) -> ModuleType:
    spec = importlib.util.spec_from_file_location(name, file)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def test_second_name(native: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    name = "elsewhere.expression_evaluator"
    second = load(name, str(native.__file__))
    assert second is not native
    assert second.__name__ == name
    for kind in CLASSES:
        assert getattr(second, kind) is not getattr(native, kind)
        assert getattr(second, kind).__module__ == name
    assert second.evaluate.__module__ == name

    # the two have separate namespaces
    monkeypatch.setattr(native, "_evaluate_unlocked", lambda *_, **__: "patched")
    context = second.EvaluationContext((np.ones((2, 2)),), {"x": 0})
    assert native.evaluate(feature("x"), context) == "patched"
    result = second.evaluate(feature("x"), context)
    assert type(result) is second.EvaluationResult

    # and a context pickles under the name that its class has
    monkeypatch.setitem(sys.modules, "elsewhere", ModuleType("elsewhere"))
    monkeypatch.setitem(sys.modules, name, second)
    restored = pickle.loads(pickle.dumps(context))
    assert type(restored) is second.EvaluationContext


def test_second_loading_under_the_same_name(
    native: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.delitem(sys.modules, native.__name__)
    second = importlib.import_module(native.__name__)
    assert second is not native
    assert second.EvaluationContext is not native.EvaluationContext
    for module in (native, second):
        context = module.EvaluationContext((np.ones((2, 2)),), {"x": 0})
        assert type(module.evaluate(feature("x"), context)) is module.EvaluationResult


@pytest.mark.parametrize("sibling", sorted(s for s in IMPORTED if s.startswith("quernbrook")))
def test_siblings_are_imported_while_loading(
    native: ModuleType, monkeypatch: pytest.MonkeyPatch, sibling: str
) -> None:
    monkeypatch.setitem(sys.modules, sibling, None)  # importing it fails
    with pytest.raises(ImportError, match=sibling):
        load("elsewhere.expression_evaluator", str(native.__file__))
    empty = ModuleType(sibling)
    monkeypatch.setitem(sys.modules, sibling, empty)
    with pytest.raises(ImportError):
        load("elsewhere.expression_evaluator", str(native.__file__))
