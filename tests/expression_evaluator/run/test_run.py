"""The general road of a run: checks before the first row, what stays on the context, the result."""

from __future__ import annotations

from typing import Any, ClassVar

import numpy as np
import pytest
from quernbrook.simulator_engine._types import (
    EvaluationError,
    EvaluationShapeError,
    FunctionExecutionError,
    UsefulSignal,
)
from support.functions import RecordingFunction, raising
from support.graphs import aggregation, feature, integer, node, number, rotation
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, counting_matrix, fails, make_context, same_bits

OFF_THE_LEAF_ROAD = {"data_nan_features": ["unused"]}

# --- feature shapes ------------------------------------------------------------------------------


def misshapen(evaluator, *shapes: tuple[int, ...], **options: Any):
    matrices = {name: np.zeros(shape) for name, shape in zip("abc", shapes, strict=False)}
    return make_context(evaluator, matrices, validate_inputs=False, **options)


@pytest.mark.parametrize("make", [feature, aggregation])
@pytest.mark.parametrize("shape", [(3, 3), (2, 4), (2,), (2, 3, 1), ()])
def test_a_misshapen_feature_as_root(evaluator, make, shape):
    context = misshapen(evaluator, (2, 3), shape)
    with fails(EvaluationShapeError, f"Feature 'b' has shape {shape}, expected (2, 3)"):
        evaluator.evaluate(make("b"), context, **OFF_THE_LEAF_ROAD)
    assert context.registers is None


@pytest.mark.parametrize(
    ("parent", "named"), [("f", True), (7, True), ("", False), (0, False), (None, False)]
)
@pytest.mark.parametrize("kind", ["rotation", "odd"])
def test_a_misshapen_feature_below_a_node(evaluator, parent, named, kind):
    graph = node("odd", "top", [node(kind, parent, [feature("a"), feature("b")])])
    context = misshapen(evaluator, (2, 3), (3, 3))
    where = f"Function '{parent}' input feature" if named else "Feature"
    with fails(EvaluationShapeError, f"{where} 'b' has shape (3, 3), expected (2, 3)"):
        evaluator.evaluate(graph, context, bound_function_instances=bind_all(graph))


def test_the_first_misshapen_feature_of_the_graph_is_reported(evaluator):
    graph = rotation("f", rotation("g", feature("c")), feature("b"))
    context = misshapen(evaluator, (2, 3), (3, 3), (4, 4))
    text = "Function 'g' input feature 'c' has shape (4, 4), expected (2, 3)"
    with fails(EvaluationShapeError, text):
        evaluator.evaluate(graph, context, bound_function_instances=bind_all(graph))


def test_features_that_the_graph_does_not_read_may_have_any_shape(evaluator):
    context = misshapen(evaluator, (2, 3), (9,))
    evaluator.evaluate(
        rotation("f", feature("a")), context, bound_function_instances={"root": RecordingFunction()}
    )


def test_a_shape_must_be_a_tuple(evaluator):
    class Matrix:
        shape: ClassVar[list[int]] = [2, 3]

    context = make_context(evaluator, {"a": np.zeros((2, 3)), "b": Matrix()}, validate_inputs=False)
    with fails(EvaluationShapeError, "Feature 'b' has shape [2, 3], expected (2, 3)"):
        evaluator.evaluate(feature("b"), context, **OFF_THE_LEAF_ROAD)


# --- order of the checks -------------------------------------------------------------------------


def test_feature_shapes_come_before_states(evaluator):
    graph = rotation("f", feature("b"))
    context = misshapen(evaluator, (2, 3), (3, 3))
    text = "Function 'f' input feature 'b' has shape (3, 3), expected (2, 3)"
    with fails(EvaluationShapeError, text):
        evaluator.evaluate(
            graph, context, {"nowhere": {}}, bound_function_instances=bind_all(graph)
        )


def test_a_missing_feature_comes_before_a_misshapen_one(evaluator):
    graph = rotation("f", feature("b"), feature("zz"))
    context = misshapen(evaluator, (2, 3), (3, 3))
    with fails(EvaluationError, "Feature 'zz' not in context"):
        evaluator.evaluate(graph, context, bound_function_instances=bind_all(graph))


def test_states_come_before_the_registers(evaluator):
    context = make_context(evaluator, {"a": np.zeros((2, 3))})
    with fails(EvaluationError, "Function state keys do not match graph tree structure"):
        evaluator.evaluate(number(1.0), context, {"root": {}})
    assert context.registers is None
    assert context.current_day_index == 0


def test_warm_up_rows_come_after_the_registers(evaluator):
    fault = RuntimeError("asked too often")

    class Registry(RecordingRegistry):
        def has(self, name: str) -> bool:
            if len(self.names("has")) == 4:
                raise fault
            return super().has(name)

    context = make_context(
        evaluator, {"a": np.zeros((2, 3))}, registry=Registry(entries={"f": entry()})
    )
    with pytest.raises(RuntimeError) as caught:
        evaluator.evaluate(rotation("f", feature("a"), integer(2)), context)
    assert caught.value is fault
    same_bits(context.registers, np.zeros((3, 3)))


# --- what stands on the context ------------------------------------------------------------------


def test_the_context_during_the_calls_and_afterwards(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(3)}, current_day_index=77)
    seen: list[tuple[int, Any]] = []

    def look(*args: Any) -> Any:
        seen.append((context.current_day_index, context.registers))
        return args[0] + 1.0

    graph = rotation("f", rotation("g", feature("a")))
    result = evaluator.evaluate(
        graph, context, bound_function_instances=bind_all(graph, lambda: RecordingFunction(look))
    )
    assert [day for day, _ in seen] == [0, 0, 1, 1, 2, 2]
    zeros = seen[0][1]
    assert all(registers is zeros for _, registers in seen)
    same_bits(zeros, np.zeros((3, 3)))
    assert context.registers is not zeros
    assert not np.shares_memory(context.registers, zeros)
    last = counting_matrix(3)[2]
    same_bits(context.registers, np.stack([last, last + 1.0, last + 2.0]))
    assert context.current_day_index == 2
    same_bits(result.weights, counting_matrix(3) + 2.0)
    assert not np.shares_memory(result.weights, context.registers)


def test_a_failure_leaves_zeros_and_the_failing_row(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(4)})

    def fail_at_two(*args: Any, context: Any) -> Any:
        if context.current_day_index == 2:
            raise ValueError("two")
        return args[0]

    context.registry = RecordingRegistry(factories={"f": RecordingFunction(fail_at_two)})
    context.extraction_buffer = marker = object()
    with pytest.raises(FunctionExecutionError):
        evaluator.evaluate(rotation("f", feature("a")), context)
    same_bits(context.registers, np.zeros((2, 3)))
    assert context.current_day_index == 2
    assert context.extraction_buffer is marker
    assert context.universe_mask.tolist() == [[1, 1, 1]] * 4


def test_the_extraction_buffer_stays_without_signals(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    context.extraction_buffer = marker = object()
    evaluator.evaluate(number(1.0), context)
    assert context.extraction_buffer is marker


def test_the_extraction_buffer_is_new_with_signals(evaluator):
    signals = {name: UsefulSignal(weights=np.ones((2, 3))) for name in "xyz"}
    context = make_context(evaluator, {"a": counting_matrix(2)}, useful_signals=signals)
    before = context.extraction_buffer
    before[:] = 5.0
    evaluator.evaluate(number(1.0), context)
    assert context.extraction_buffer is not before
    same_bits(context.extraction_buffer, np.zeros((3, 3)))


@pytest.mark.parametrize("bound", [True, False])
def test_without_rows_nothing_is_called(evaluator, bound):
    instance = RecordingFunction(stateful=True, state={"count": 4})
    registry = RecordingRegistry(entries={"f": entry(stateful=True)}, factories={"f": instance})
    context = make_context(
        evaluator, {"a": np.zeros((0, 2))}, registry=registry, current_day_index=5
    )
    result = evaluator.evaluate(
        rotation("f", feature("a"), integer(10)),
        context,
        bound_function_instances={"root": instance} if bound else None,
    )
    assert instance.calls == []
    same_bits(result.weights, np.zeros((0, 2)))
    same_bits(context.registers, np.zeros((3, 2)))
    assert context.current_day_index == 5
    assert result.states == {"root": {"count": 4}}


@pytest.mark.parametrize("columns", [0, 1])
def test_few_columns(evaluator, columns):
    instance = RecordingFunction()
    context = make_context(evaluator, {"a": counting_matrix(2, columns)})
    result = evaluator.evaluate(
        rotation("f", feature("a")), context, bound_function_instances={"root": instance}
    )
    same_bits(result.weights, counting_matrix(2, columns))
    assert [value.shape for call in instance.calls for value in call.values] == [(columns,)] * 2


# --- the result ----------------------------------------------------------------------------------


def test_the_result_is_the_callers(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    weights = evaluator.evaluate(number(3.0), context).weights
    assert type(weights) is np.ndarray
    assert weights.flags.c_contiguous
    assert weights.flags.owndata
    assert weights.flags.writeable
    same_bits(weights, np.full((2, 3), 3.0))


@pytest.mark.parametrize(
    ("collect", "states"),
    [(None, {"root.c0": "s"}), (1, {"root.c0": "s"}), (False, {}), (0, {}), ("", {})],
)
def test_states_of_stateful_instances_only(evaluator, collect, states):
    graph = rotation("f", rotation("g", feature("a")))
    stateful, stateless = (RecordingFunction(stateful=1, state="s"), RecordingFunction(stateful=""))
    context = make_context(evaluator, {"a": counting_matrix(2)})
    if collect is not None:
        context._collect_states = collect
    result = evaluator.evaluate(
        graph, context, bound_function_instances={"root": stateless, "root.c0": stateful}
    )
    assert result.states == states
    assert (stateful.state_reads, stateless.state_reads) == (len(states), 0)


def test_an_instance_without_stateful_fails_when_the_states_are_collected(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    calls: list[int] = []

    class Bare:
        def __call__(self, *args: Any) -> float:
            calls.append(context.current_day_index)
            return 1.0

    def run() -> Any:
        return evaluator.evaluate(
            rotation("f", feature("a")), context, bound_function_instances={"root": Bare()}
        )

    with fails(AttributeError, "'Bare' object has no attribute 'stateful'"):
        run()
    assert calls == [0, 1]
    same_bits(context.registers, np.stack([counting_matrix(2)[1], np.ones(3)]))
    context._collect_states = False
    same_bits(run().weights, np.ones((2, 3)))


def test_a_failing_state_reaches_the_caller_as_it_is(evaluator):
    fault = RuntimeError("no state")
    instance = RecordingFunction(stateful=True, state=raising(fault))
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with pytest.raises(RuntimeError) as caught:
        evaluator.evaluate(
            rotation("f", feature("a")), context, bound_function_instances={"root": instance}
        )
    assert caught.value is fault
    assert caught.value.__cause__ is None


@pytest.mark.parametrize(
    ("window", "rows", "blank"), [(3, 5, 2), (9, 5, 5), (1, 5, 0), (-4, 5, 0), (6, 5, 5)]
)
def test_only_the_weights_lose_their_warm_up_rows(evaluator, window, rows, blank):
    registry = RecordingRegistry(entries={"f": entry(stateful=True)})
    registry.factories["f"] = lambda **config: RecordingFunction(stateful=True, state={})
    context = make_context(evaluator, {"a": counting_matrix(rows)}, registry=registry)
    context._collect_node_outputs = True
    result = evaluator.evaluate(rotation("f", feature("a"), integer(window)), context)
    expected = counting_matrix(rows)
    same_bits(result.node_outputs["root"], expected)
    expected[:blank] = np.nan
    same_bits(result.weights, expected)


def test_bound_instances_have_no_warm_up_rows(evaluator):
    registry = RecordingRegistry(entries={"f": entry(stateful=True)})
    context = make_context(evaluator, {"a": counting_matrix(3)}, registry=registry)
    instance = RecordingFunction(arity=1)
    graph = rotation("f", feature("a"), integer(3))
    result = evaluator.evaluate(graph, context, bound_function_instances={"root": instance})
    same_bits(result.weights, counting_matrix(3))


def test_a_second_run_starts_from_zero(evaluator):
    graph = rotation("f", node("odd", None))
    context = make_context(evaluator, {"a": counting_matrix(2)})
    results = []
    for _ in range(2):

        def add_in_place(row: np.ndarray) -> np.ndarray:
            row += 1.0
            return row

        instance = RecordingFunction(add_in_place)
        results.append(
            evaluator.evaluate(graph, context, bound_function_instances={"root": instance})
        )
    for result in results:
        same_bits(result.weights, np.array([[1.0] * 3, [2.0] * 3]))
