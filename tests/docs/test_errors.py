"""Every error on the page of errors is raised once and compared, its class and its text."""

from __future__ import annotations

import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine import expression_evaluator
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import (
    EvaluationContext,
    evaluate,
    extract_filtration_weights,
)
from support.functions import RecordingFunction, raising
from support.graphs import feature, filtration, integer, node, number, reduction, rotation, string
from support.logs import RecordingLogger
from support.registries import RecordingRegistry, entry

PAGE = Path(__file__).parents[2] / "docs" / "errors.md"
HEADINGS = re.findall(r"^### (.+)$", PAGE.read_text("utf-8"), re.MULTILINE)

MATRIX = np.arange(6.0).reshape(3, 2)
SIGNALS = {"a": UsefulSignal(MATRIX, MATRIX, {"sharpe": 1.0})}

Trigger = Callable[[], Any]
TRIGGERS: dict[str, tuple[Trigger, dict[str, Any]]] = {}


def heading(text: str, **values: Any) -> Callable[[Trigger], Trigger]:
    """Registers the function that raises the error of this heading, with these values in it."""

    def register(trigger: Trigger) -> Trigger:
        TRIGGERS[text] = (trigger, values)
        return trigger

    return register


def context(*features: np.ndarray, **arguments: Any) -> EvaluationContext:
    """A context of one feature "x" where no others are given."""
    return EvaluationContext(features or (MATRIX,), {"x": 0}, **arguments)


def run(graph: Any, *, bound: Any = None, states: Any = None, **arguments: Any) -> Any:
    arguments.setdefault("registry", default_registry())
    return evaluate(graph, context(**arguments), states, bound_function_instances=bound)


def run_function(result: Any, *, bound: bool = False) -> Any:
    """Run the function "f", which gives this result or calls it."""
    instance = RecordingFunction(result)
    registry = RecordingRegistry(factories={"f": instance})
    return run(
        rotation("f", feature("x")), bound={"root": instance} if bound else None, registry=registry
    )


def run_reduction(*children: FunctionGraphNode, **arguments: Any) -> Any:
    arguments.setdefault("useful_signals", SIGNALS)
    return run(reduction("weighted_by_pnl", *children, integer(2)), **arguments)


def above(field: str, value: float) -> FunctionGraphNode:
    return filtration("filtration", node("gt", "gt", [string(field), number(value)]))


# --- making a context ----------------------------------------------------------------------------


@heading(
    "SchemaError: `EvaluationContext.stage_data must be StageData or None; got {type_name}`",
    type_name="dict",
)
def stage_data_of_another_type() -> Any:
    return context(stage_data={}, validate_inputs=False)


@heading(
    "EvaluationError: `feature_index['{name}'] = {index} is out of bounds for {count} features`",
    name="x",
    index=-1,
    count=1,
)
def index_outside_the_features() -> Any:
    return EvaluationContext((MATRIX,), {"x": -1})


@heading(
    "EvaluationError: `Feature dimension mismatch: 'feature_0' shape {first_shape} vs 'feature_{i}' shape {shape}`",
    first_shape=(3, 2),
    i=2,
    shape=(3, 1),
)
def features_of_two_shapes() -> Any:
    return context(MATRIX, MATRIX, MATRIX[:, :1])


@heading(
    "EvaluationError: `Feature dimension mismatch: features shape {feature_shape} vs universe shape {universe_shape}`",
    feature_shape=(3, 2),
    universe_shape=(2, 2),
)
def universe_of_another_shape() -> Any:
    changed = context()
    changed.universe = MATRIX[1:]
    return evaluate(feature("x"), changed)


@heading(
    "EvaluationError: `useful signal '{signal_id}' weights shape {shape} does not match feature shape {feature_shape}`",
    signal_id="a",
    shape=(2, 2),
    feature_shape=(3, 2),
)
def weights_of_another_shape() -> Any:
    return context(useful_signals={"a": UsefulSignal(MATRIX[1:])})


@heading(
    "EvaluationError: `useful signal '{signal_id}' pnl shape {shape} does not match feature shape {feature_shape}`",
    signal_id="a",
    shape=(2, 7),
    feature_shape=(3, 2),
)
def pnl_of_another_length() -> Any:
    return context(useful_signals={"a": UsefulSignal(MATRIX, np.zeros((2, 7)))})


# --- starting a run and reading the graph --------------------------------------------------------


@heading(
    "SchemaError: `evaluate graph must be FunctionGraphNode; got {type_name}`", type_name="dict"
)
def graph_of_another_type() -> Any:
    return evaluate({}, context())


@heading("EvaluationError: `No features provided`")
def no_features() -> Any:
    return evaluate(number(1.0), EvaluationContext((), {}))


@heading("IndexError: `tuple index out of range`")
def the_forgotten_comma() -> Any:
    return evaluate(feature("x"), EvaluationContext(MATRIX, {"x": 0}))


@heading(
    "SchemaError: `Graph node '{path}' must be FunctionGraphNode; got {type_name}`",
    path="root.c1",
    type_name="int",
)
def child_of_another_type() -> Any:
    return run(rotation("numerical_add", feature("x"), 1))


@heading(
    "EvaluationError: `Graph node '{path}' missing required key: {key}`", path="root", key="node"
)
def node_without_a_value() -> Any:
    bare = feature("x")
    del bare.node
    return run(bare)


@heading("EvaluationError: `Feature '{name}' not in context`", name="y")
def unknown_feature() -> Any:
    return run(feature("y"))


@heading(
    "EvaluationShapeError: `Function '{function}' input feature '{name}' has shape {shape}, expected ({rows}, {columns})`",
    function="numerical_negate",
    name="risk",
    shape=(1, 2),
    rows=3,
    columns=2,
)
def stage_array_of_another_shape() -> Any:
    graph = rotation("numerical_negate", feature("risk"))
    return run(graph, stage_data=StageData({"risk": MATRIX[:1]}))


@heading(
    "EvaluationShapeError: `Feature '{name}' has shape {shape}, expected ({rows}, {columns})`",
    name="risk",
    shape=(1, 2),
    rows=3,
    columns=2,
)
def stage_array_as_the_whole_graph() -> Any:
    staged = context(stage_data=StageData({"risk": MATRIX[:1]}))
    return evaluate(feature("risk"), staged, data_nan_features=["x"])


# --- configuration and instances -----------------------------------------------------------------


@heading(
    "FunctionExecutionError: `Function '{function}' at node '{path}' config contains engine-only parameter(s): {names}`",
    function="f",
    path="root",
    names="A, N_alloc",
)
def engine_only_parameters() -> Any:
    return run(rotation("f", config={"N_alloc": 2, "A": 1}))


@heading(
    "FunctionExecutionError: `Function '{function}' at node '{path}' config contains unknown parameter(s): {names}`",
    function="f",
    path="root.c0",
    names="window",
)
def unknown_parameter() -> Any:
    registry = RecordingRegistry({"f": entry(family="virtualization", param_schema={})})
    graph = rotation("numerical_negate", rotation("f", feature("x"), integer(3)))
    return run(graph, registry=registry)


@heading(
    "FunctionExecutionError: `Function '{function}' at node '{path}' is not bound and cannot be instantiated from the evaluation registry`",
    function="f",
    path="root",
)
def unknown_function() -> Any:
    return run(rotation("f", feature("x")))


@heading(
    "FunctionExecutionError: `Bound function instance missing for path '{path}' (function '{function}')`",
    path="root.c0",
    function="f",
)
def function_that_is_not_bound() -> Any:
    return run(rotation("g", rotation("f", feature("x"))), bound={"root": RecordingFunction()})


@heading(
    "FunctionExecutionError: `Bound function instance is None for node '{path}' (function '{function}')`",
    path="root",
    function="f",
)
def function_bound_to_none() -> Any:
    return run(rotation("f", feature("x")), bound={"root": None})


@heading("EvaluationError: `Function state keys do not match graph tree structure`")
def state_that_is_missing() -> Any:
    return run(rotation("longitudinal_mean", feature("x"), integer(2)), states={})


# --- evaluating rows -----------------------------------------------------------------------------


@heading(
    "FunctionExecutionError: `Function '{function}' failed at row {row}: {error}`",
    function="f",
    row=0,
    error="no quotes",
)
def function_that_fails() -> Any:
    return run_function(raising(ValueError("no quotes")))


@heading(
    "EvaluationShapeError: `Function '{function}' returned shape {shape}, expected ({columns},) at row {row}`",
    function="f",
    shape=(1, 2),
    columns=2,
    row=0,
)
def result_of_another_shape() -> Any:
    return run_function(np.zeros((1, 2)))


@heading(
    "EvaluationShapeError: `Function '{function}' returned dtype {dtype}, expected float64 at row {row}`",
    function="f",
    dtype="bool",
    row=0,
)
def result_of_another_dtype() -> Any:
    return run_function(np.zeros(2, dtype=bool))


@heading(
    "EvaluationShapeError: `Precomputed node '{canonical_id}' returned shape {shape}, expected ({columns},) at row {row}`",
    canonical_id="shared",
    shape=(3,),
    columns=2,
    row=0,
)
def precomputed_output_of_another_width() -> Any:
    graph = rotation("numerical_negate", feature("x", canonical_id="shared"))
    precomputed = context(registry=default_registry())
    precomputed._precomputed_node_outputs = {"shared": [1.0, 2.0, 3.0]}
    return evaluate(graph, precomputed)


@heading(
    "EvaluationError: `PnL column '{column}' not found in column_labels: {labels}`",
    column="gross_returns",
    labels=["net_returns"],
)
def unknown_pnl_column() -> Any:
    return run_reduction(column_labels=["net_returns"])


@heading("TypeError: `'NoneType' object is not subscriptable`")
def reduction_of_nothing() -> Any:
    return run_reduction(useful_signals={})


@heading("ValueError: `assignment destination is read-only`")
def registers_made_read_only() -> Any:
    return run_function(lambda row: row.base.setflags(write=False), bound=True)


@heading(
    "RuntimeError: `a function changed the form of the run's registers while it ran; functions may read and write the rows that they are given, but not reshape the array behind them`"
)
def registers_reshaped() -> Any:
    def reshape(row: np.ndarray) -> float:
        row.base.shape = (4, 1)
        return 0.0

    return run_function(reshape, bound=True)


# --- filters and extract_filtration_weights ------------------------------------------------------


@heading(
    "EvaluationError: `Filtration returned 0 signals for filters: {filters}`",
    filters="filtration(gt(sharpe, 2.0))",
)
def filter_that_nothing_passes() -> Any:
    return run_reduction(above("sharpe", 2.0))


@heading(
    "FiltrationResolutionError: `Filtration resolution failed for filters: {filters}: {cause}: {error}`",
    filters="filtration(top_n)",
    cause="InvalidFilterError",
    error="filter 'top_n' lacks n",
)
def faulty_filter() -> Any:
    top = node("top_n", "top_n", [string("sharpe"), number(1.0)])
    return run_reduction(filtration("filtration", top))


@heading(
    "IndexError: `t={row} out of bounds for weights array with valid range [0, {rows})`",
    row=-1,
    rows=3,
)
def row_out_of_bounds() -> Any:
    return extract_filtration_weights(SIGNALS, ["a"], -1)


@heading("KeyError: `'{signal_id}'`", signal_id="b")
def unknown_signal() -> Any:
    return extract_filtration_weights(SIGNALS, ["a", "b"], 0)


@heading("TypeError: `Expected str, got {type_name}`", type_name="int")
def id_of_another_type() -> Any:
    return extract_filtration_weights({**SIGNALS, 1: SIGNALS["a"]}, ["a", 1], 0)


@heading("OverflowError: `value too large to convert to int`")
def row_number_of_many_bits() -> Any:
    return extract_filtration_weights(SIGNALS, ["a"], 2**31)


def test_every_error_of_the_page_is_triggered() -> None:
    assert sorted(HEADINGS) == sorted(TRIGGERS)


@pytest.mark.parametrize("listed", HEADINGS)
def test_error(listed: str) -> None:
    trigger, values = TRIGGERS[listed]
    kind, text = re.fullmatch(r"(\w+): `(.+)`", listed).groups()
    with pytest.raises(Exception) as caught:
        trigger()
    assert (type(caught.value).__name__, str(caught.value)) == (kind, text.format(**values))


def test_logged_event(monkeypatch: pytest.MonkeyPatch) -> None:
    page = PAGE.read_text("utf-8")
    assert "expression_evaluator.get_state_failed" in page
    logger = RecordingLogger()
    monkeypatch.setattr(expression_evaluator, "_logger", logger)
    instance = RecordingFunction(stateful=True, state=raising(RuntimeError("gone")))
    with pytest.raises(RuntimeError, match="gone"):
        run(rotation("f", feature("x")), bound={"root": instance})
    fields = {"instance_id": id(instance), "node_id": "root", "function_name": "f"}
    assert logger.events == [("error", ("expression_evaluator.get_state_failed",), fields)]
    assert re.findall(r"^\| `(\w+)` \| .*\|$", page.split("## The log")[1], re.MULTILINE) == [
        *fields
    ]
