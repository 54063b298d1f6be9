"""Rotations in the row loop: their arguments, their calls and their failures."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationShapeError, FunctionExecutionError
from support.functions import RecordingFunction, raising
from support.graphs import boolean, feature, integer, node, number, rotation, string
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, counting_matrix, fails, lets_through, make_context, same_bits

ROWS = 4


def run(evaluator, graph, instance: Any, *, bound: bool, rows: int = ROWS, **options: Any):
    """The context and the result of a run in which every function node has `instance`."""
    registry = RecordingRegistry(entries={"f": entry()}, factories={"f": lambda **_: instance})
    context = make_context(evaluator, {"a": counting_matrix(rows)}, registry=registry, **options)
    instances = bind_all(graph, lambda: instance) if bound else None
    return context, evaluator.evaluate(graph, context, bound_function_instances=instances)


def one(*children: Any) -> Any:
    return rotation("f", *(children or (feature("a"),)))


# --- which children are arguments ----------------------------------------------------------------

LITERALS = (number(0.5), integer(3), string("s"), boolean(True), node("odd", None), feature("a"))


@pytest.mark.parametrize(
    ("bound", "arity", "schema", "expected"),
    [
        (False, False, None, [0.5, 0.0, 1.0]),
        (True, False, None, [0.5, 3.0, 0.0, 1.0]),
        (True, True, None, [0.5, 0.0, 1.0]),
        (False, False, [{"name": "k", "type": "float"}], [0.0, 1.0]),
        (True, False, [{"name": "k", "type": "float"}], [0.5, 3.0, 0.0, 1.0]),
        (True, True, [{"name": "k", "type": "float"}], [0.0, 1.0]),
    ],
)
def test_which_literals_are_arguments(evaluator, bound, arity, schema, expected):
    attributes = {"arity": None} if arity else {}
    instance = RecordingFunction(0.0, **attributes)
    registry = RecordingRegistry(
        entries={"f": entry(param_schema=schema)}, factories={"f": lambda **_: instance}
    )
    context = make_context(evaluator, {"a": counting_matrix(2)}, registry=registry)
    evaluator.evaluate(
        rotation("f", *LITERALS),
        context,
        bound_function_instances={"root": instance} if bound else None,
    )
    assert [[row[0] for row in call.values] for call in instance.calls] == [
        expected,
        [*expected[:-1], 4.0],
    ]


def test_bound_and_registry_calls_differ_in_the_keyword(evaluator):
    for bound in (True, False):
        instance = RecordingFunction()
        context, _ = run(evaluator, one(), instance, bound=bound)
        assert len(instance.calls) == ROWS
        for call in instance.calls:
            assert list(call.kwargs) == ([] if bound else ["context"])
            assert bound or call.kwargs["context"] is context


def test_arity_is_looked_for_in_every_row_of_a_bound_run_only(evaluator):
    class Wavering(RecordingFunction):
        looks = 0

        @property
        def arity(self) -> int:
            self.looks += 1
            if self.looks % 2:
                raise AttributeError("arity")
            return 1

    instance = Wavering(0.0)
    run(evaluator, one(feature("a"), integer(3)), instance, bound=True)
    assert instance.looks == ROWS
    assert [len(call.args) for call in instance.calls] == [2, 1, 2, 1]
    instance = Wavering(0.0)
    run(evaluator, one(feature("a"), integer(3)), instance, bound=False)
    assert instance.looks == 0


def test_an_arity_that_cannot_be_read_is_no_failure_of_the_function(evaluator):
    fault = RuntimeError("arity")

    class Unreadable(RecordingFunction):
        @property
        def arity(self) -> int:
            raise fault

    instance = Unreadable(0.0)
    with lets_through(fault):
        run(evaluator, one(), instance, bound=True)
    assert instance.calls == []
    run(evaluator, one(), instance, bound=False)
    assert len(instance.calls) == ROWS


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("count", [0, 1, 2, 9, 300])
def test_any_number_of_arguments(evaluator, bound, count):
    instance = RecordingFunction(lambda *rows, **_: float(sum(row[0] for row in rows)))
    children = [number(float(i)) for i in range(count)]
    _, result = run(evaluator, rotation("f", *children), instance, bound=bound, rows=2)
    assert [value[0] for value in instance.calls[1].values] == [float(i) for i in range(count)]
    assert result.weights[1, 0] == sum(range(count))


# --- what an argument is -------------------------------------------------------------------------


def test_bound_arguments_are_views_of_the_registers(evaluator):
    instance = RecordingFunction()
    context, _ = run(evaluator, one(feature("a"), number(2.0)), instance, bound=True)
    for call in instance.calls:
        for number_of_register, argument in enumerate(call.args):
            assert type(argument) is np.ndarray
            assert argument.base is context.registers
            assert np.shares_memory(argument, context.registers[number_of_register])
            assert argument.shape == (3,)
            assert argument.flags.writeable
            assert argument.flags.c_contiguous
            assert not argument.flags.owndata
    same_bits(instance.calls[0].args[0], counting_matrix(ROWS)[-1])
    assert [call.values[0][0] for call in instance.calls] == [1.0, 4.0, 7.0, 10.0]


def test_registry_arguments_are_vectors_of_their_own(evaluator):
    instance = RecordingFunction()
    shared = feature("a")
    context, _ = run(evaluator, one(shared, shared), instance, bound=False)
    arguments = [argument for call in instance.calls for argument in call.args]
    for argument in arguments:
        assert type(argument) is np.ndarray
        assert argument.dtype == np.float64
        assert argument.flags.owndata
        assert argument.flags.writeable
        assert argument.base is None
        assert not np.shares_memory(argument, context.registers)
    assert len({id(argument) for argument in arguments}) == 2 * ROWS
    for t, call in enumerate(instance.calls):
        for argument in call.args:
            same_bits(argument, counting_matrix(ROWS)[t])


def test_one_bound_instance_makes_every_run_argument_a_view(evaluator):
    instance = RecordingFunction()
    graph = rotation("f", rotation("f", feature("a")))
    run(evaluator, graph, instance, bound=True)
    assert all(view for call in instance.calls for view in call.views)


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("bits", [0x7FF8000000000123, 0xFFF0000000000000, 1 << 63, 1])
def test_arguments_and_results_keep_their_bits(evaluator, bound, bits):
    matrix = np.full((2, 2), bits, np.uint64).view(np.float64)
    instance = RecordingFunction()
    registry = RecordingRegistry(factories={"f": instance})
    context = make_context(evaluator, {"a": matrix}, registry=registry)
    bound_instances = {"root": instance} if bound else None
    result = evaluator.evaluate(one(), context, bound_function_instances=bound_instances)
    same_bits(result.weights, matrix)
    for call in instance.calls:
        same_bits(call.values[0], matrix[0])


def test_writing_into_a_registry_argument_changes_nothing_else(evaluator):
    def spoil(row: np.ndarray, *, context: Any) -> np.ndarray:
        result = row.copy()
        row[:] = -1.0
        return result

    child = feature("a")
    context, result = run(
        evaluator, one(child, rotation("f", child)), RecordingFunction(first_of(spoil)), bound=False
    )
    same_bits(result.weights, counting_matrix(ROWS))
    same_bits(context.registers[0], counting_matrix(ROWS)[-1])


def first_of(function: Any) -> Any:
    return lambda *rows, **keywords: function(rows[0], **keywords)


def test_writing_into_a_bound_argument_reaches_later_functions(evaluator):
    def double_in_place(row: np.ndarray) -> float:
        row *= 2.0
        return 0.0

    shared = rotation("f", feature("a"))
    context = make_context(evaluator, {"a": counting_matrix(1)})
    reader = RecordingFunction()
    graph = rotation("g", feature("a"), shared)
    result = evaluator.evaluate(
        graph,
        context,
        bound_function_instances={"root.c1": RecordingFunction(double_in_place), "root": reader},
    )
    same_bits(result.node_outputs["root.c1.c0"], counting_matrix(1) * 2.0)
    same_bits(result.node_outputs["root.c0"], counting_matrix(1))


# --- calls ---------------------------------------------------------------------------------------


def test_an_instance_that_serves_two_nodes_is_called_for_both(evaluator):
    instance = RecordingFunction(lambda row: row + 1.0)
    graph = rotation("f", rotation("f", feature("a")))
    _, result = run(evaluator, graph, instance, bound=True)
    assert len(instance.calls) == 2 * ROWS
    same_bits(result.weights, counting_matrix(ROWS) + 2.0)


@pytest.mark.parametrize("bound", [True, False])
def test_other_kinds_of_callables(evaluator, bound):
    class Functions:
        def method(self, row: np.ndarray, context: Any = None) -> np.ndarray:
            return row + 1.0

        @staticmethod
        def static(row: np.ndarray, **_: Any) -> np.ndarray:
            return row + 1.0

    class ByConstruction(np.ndarray):
        stateful = False

        def __new__(cls, row: np.ndarray, context: Any = None) -> Any:
            return row + 1.0

    class StaticCall:
        stateful = False
        __call__ = staticmethod(Functions.static)

    class CallThroughAnInstance:
        stateful = False
        __call__ = RecordingFunction(lambda row, **_: row + 1.0)

    functions = [
        Functions().method,
        Functions.static,
        lambda row, context=None: row + 1.0,
        ByConstruction,
        StaticCall(),
        CallThroughAnInstance(),
    ]
    for function in functions:
        context = make_context(
            evaluator,
            {"a": counting_matrix(2)},
            registry=RecordingRegistry(factories={"f": lambda made=function, **_: made}),
        )
        context._collect_states = False
        bound_instances = {"root": function} if bound else None
        result = evaluator.evaluate(one(), context, bound_function_instances=bound_instances)
        same_bits(result.weights, counting_matrix(2) + 1.0)


@pytest.mark.parametrize("bound", [True, False])
def test_a_call_on_the_instance_alone_is_no_call(evaluator, bound):
    class Instance:
        stateful = False

    instance = Instance()
    instance.__call__ = lambda *_, **__: 1.0
    text = "Function 'f' failed at row 0: 'Instance' object is not callable"
    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, one(), instance, bound=bound)
    assert str(caught.value) == text
    assert type(caught.value.__cause__) is TypeError


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("replacement", [lambda self, *_, **__: 5.0, None])
def test_a_call_that_is_replaced_between_rows(evaluator, bound, replacement):
    class Changing:
        stateful = False

        def __call__(self, row: np.ndarray, context: Any = None) -> float:
            if row[0] == 4.0:
                if replacement is None:
                    del Changing.__call__
                else:
                    Changing.__call__ = replacement
            return row[0]

    if replacement is not None:
        _, result = run(evaluator, one(), Changing(), bound=bound)
        assert result.weights[:, 0].tolist() == [1.0, 4.0, 5.0, 5.0]
        return
    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, one(), Changing(), bound=bound)
    text = "Function 'f' failed at row 2: 'Changing' object is not callable"
    assert str(caught.value) == text


@pytest.mark.parametrize("bound", [True, False])
def test_an_instance_that_changes_its_class_between_rows(evaluator, bound):
    class Second:
        stateful = True

        def __call__(self, *_: Any, **__: Any) -> float:
            return -1.0

        def get_state(self) -> str:
            return "second"

    class First:
        stateful = False

        def __call__(self, *_: Any, **__: Any) -> float:
            self.__class__ = Second
            return 1.0

    _, result = run(evaluator, one(), First(), bound=bound)
    assert result.weights[:, 0].tolist() == [1.0, -1.0, -1.0, -1.0]
    assert result.states == {"root": "second"}


# --- failures ------------------------------------------------------------------------------------


def failing_at(row: int, fault: BaseException) -> RecordingFunction:
    def fail(*rows: np.ndarray, **_: Any) -> Any:
        if rows[0][0] == 1.0 + 3.0 * row:
            raise fault
        return rows[0]

    return RecordingFunction(fail)


class Shown(Exception):
    def __str__(self) -> str:
        return "shown"

    def __format__(self, format_spec: str) -> str:
        return f"formatted{format_spec}"


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("row", [0, 5])
@pytest.mark.parametrize(
    ("fault", "shown"),
    [
        (ValueError("broken"), "broken"),
        (ValueError(), ""),
        (ValueError("a", 1), "('a', 1)"),
        (KeyError("key"), "'key'"),
        (StopIteration(3), "3"),
        (AttributeError("stateful"), "stateful"),
        (RecursionError("deep"), "deep"),
        (MemoryError(), ""),
        (UnicodeDecodeError("utf-8", b"x", 0, 1, "why"), "'utf-8' codec can't decode byte 0x78 in"),
        (Shown(), "formatted"),
        (EvaluationShapeError("inner"), "inner"),
        (FunctionExecutionError("Function 'g' failed"), "Function 'g' failed"),
    ],
    ids=repr,
)
def test_a_failing_function(evaluator, bound, row, fault, shown):
    instance = failing_at(row, fault)
    fault.__traceback__ = None
    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, one(), instance, bound=bound, rows=8)
    error = caught.value
    assert type(error) is FunctionExecutionError
    text = f"Function 'f' failed at row {row}: {shown}"
    assert str(error) == text or str(error).startswith(text + " position")
    assert error.args == (str(error),)
    assert error.__cause__ is fault
    assert error.__context__ is fault
    assert error.__suppress_context__
    assert fault.__traceback__ is not None
    assert len(instance.calls) == row + 1


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize(
    "fault", [KeyboardInterrupt(), SystemExit(2), GeneratorExit(), BaseException("base")]
)
def test_what_is_no_ordinary_exception_is_let_through(evaluator, bound, fault):
    with lets_through(fault):
        run(evaluator, one(), failing_at(1, fault), bound=bound)


@pytest.mark.parametrize("name", [7, None, "", ("t",), "unüblich {row}"])
def test_the_message_shows_the_functions_name(evaluator, name):
    fault = ValueError("broken")
    context = make_context(evaluator, {"a": counting_matrix(1)})
    with fails(FunctionExecutionError, f"Function '{name}' failed at row 0: broken", cause=fault):
        evaluator.evaluate(
            rotation(name, feature("a")),
            context,
            bound_function_instances={"root": RecordingFunction(raising(fault))},
        )


@pytest.mark.parametrize("bound", [True, False])
def test_an_exception_that_cannot_be_shown(evaluator, bound):
    showing = RuntimeError("can't be shown")

    class Mute(Exception):
        def __str__(self) -> str:
            raise showing

    fault = Mute()
    with pytest.raises(RuntimeError) as caught:
        run(evaluator, one(), RecordingFunction(raising(fault)), bound=bound)
    assert caught.value is showing
    assert showing.__cause__ is None
    assert showing.__context__ is fault


@pytest.mark.parametrize("bound", [True, False])
def test_a_function_that_refuses_its_arguments(evaluator, bound):
    class Strict:
        stateful = False

        def __call__(self) -> float:
            return 1.0

    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, one(), Strict(), bound=bound)
    assert str(caught.value).startswith("Function 'f' failed at row 0: ")
    assert "__call__() " in str(caught.value)
    assert type(caught.value.__cause__) is TypeError


def test_instances_before_the_failing_one_keep_what_they_took(evaluator):
    first, failing, last = (RecordingFunction(), failing_at(2, ValueError()), RecordingFunction())
    context = make_context(evaluator, {"a": counting_matrix(ROWS)})
    graph = rotation("f", rotation("g", feature("a")), rotation("h", feature("a")))
    instances = {"root.c0": first, "root.c1": failing, "root": last}
    with pytest.raises(FunctionExecutionError):
        evaluator.evaluate(graph, context, bound_function_instances=instances)
    assert [len(instance.calls) for instance in instances.values()] == [3, 3, 2]
    assert context.current_day_index == 2


# --- evaluating inside an evaluation -------------------------------------------------------------


@pytest.mark.parametrize("bound", [True, False])
def test_a_function_may_evaluate_on_the_same_context(evaluator, bound):
    seen: list[tuple[int, int, Any]] = []
    inner_graph = number(5.0)

    def nested(row: np.ndarray, context: Any = None) -> np.ndarray:
        before = contexts[0].current_day_index
        inner = evaluator.evaluate(inner_graph, contexts[0])
        seen.append((before, contexts[0].current_day_index, contexts[0].registers))
        return row + inner.weights[0]

    contexts: list[Any] = []
    instance = RecordingFunction(nested)
    registry = RecordingRegistry(factories={"f": instance})
    contexts.append(make_context(evaluator, {"a": counting_matrix(ROWS)}, registry=registry))
    instances = {"root": instance} if bound else None
    result = evaluator.evaluate(one(), contexts[0], bound_function_instances=instances)
    same_bits(result.weights, counting_matrix(ROWS) + 5.0)
    assert [(before, after) for before, after, _ in seen] == [(t, ROWS - 1) for t in range(ROWS)]
    for _, _, registers in seen:
        same_bits(registers, np.full((1, 3), 5.0))
    same_bits(
        contexts[0].registers, np.stack([counting_matrix(ROWS)[-1] + shift for shift in (0, 5)])
    )


def test_a_function_may_evaluate_the_same_graph_with_the_same_instances(evaluator):
    graph, instances, depth = one(), {}, []
    context = make_context(evaluator, {"a": counting_matrix(2)})

    def nested(row: np.ndarray) -> np.ndarray:
        if depth:
            return row * 10.0
        depth.append(1)
        inner = evaluator.evaluate(graph, context, bound_function_instances=instances)
        depth.pop()
        return row + inner.weights[1]

    instances["root"] = RecordingFunction(nested)
    result = evaluator.evaluate(graph, context, bound_function_instances=instances)
    same_bits(result.weights, counting_matrix(2) + 10.0 * counting_matrix(2)[1])
    assert len(instances["root"].calls) == 6
    same_bits(context.registers[0], counting_matrix(2)[1])


def test_the_day_is_told_once_a_row_and_not_restored_within(evaluator):
    days: list[int] = []
    context = make_context(evaluator, {"a": counting_matrix(3)})

    def spoil(row: np.ndarray) -> np.ndarray:
        days.append(context.current_day_index)
        context.current_day_index = -5
        return row

    graph = rotation("f", rotation("g", feature("a")))
    instances = bind_all(graph, lambda: RecordingFunction(spoil))
    evaluator.evaluate(graph, context, bound_function_instances=instances)
    assert days == [0, -5, 1, -5, 2, -5]
    assert context.current_day_index == -5
