"""Reductions in the row loop: which are called, with what, and what becomes of their failures."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions.filtrations_evaluation import EmptyPoolError
from quernbrook.simulator_engine._types import (
    EvaluationError,
    EvaluationShapeError,
    FunctionExecutionError,
)
from support.functions import RecordingFunction, raising
from support.graphs import (
    boolean,
    feature,
    filtration,
    integer,
    number,
    reduction,
    rotation,
    string,
)
from support.pools import LABELS, block, make_pool, replace_filters
from support.reductions import Scripted, reduction_context, run_reductions, stateful, total
from support.runs import counting_matrix, fails, lets_through, same_bits

ROWS = 4
PLAIN = reduction("f")
FILTERED = reduction("f", filtration("first"))
BOTH_ROADS = pytest.mark.parametrize("bound", [True, False], ids=["bound", "registry"])
BOTH_KINDS = pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])


def run(evaluator, graph: Any, instance: Any, *, bound: bool = False, **options: Any) -> Any:
    context = reduction_context(evaluator, {"f": instance}, **options)
    bound_instances = {"root": instance} if bound else None
    return evaluator.evaluate(graph, context, bound_function_instances=bound_instances)


# --- stateful: called ----------------------------------------------------------------------------


@BOTH_ROADS
@pytest.mark.parametrize(("graph", "ids"), [(PLAIN, "abc"), (FILTERED, "cab")])
def test_called_once_a_row(evaluator, monkeypatch, graph, ids, bound):
    replace_filters(monkeypatch, evaluator, first=list(ids))
    pool = make_pool()
    instance = stateful()
    result = run(evaluator, graph, instance, bound=bound, pool=pool, column_labels=LABELS)
    assert len(instance.calls) == ROWS
    for t, call in enumerate(instance.calls):
        assert len(call.args) == 1
        assert list(call.kwargs) == ["signal_pnl"]
        same_bits(call.values[0], block(pool, ids, t))
        same_bits(call.kwargs["signal_pnl"], [pool[sid].pnl[t, 0] for sid in ids])
        same_bits(result.weights[t], total(block(pool, ids, t)))


@BOTH_ROADS
def test_children_are_no_arguments(evaluator, monkeypatch, bound):
    """Neither data nor literals nor an `arity` make a difference to a reduction's call."""
    replace_filters(monkeypatch, evaluator, first=["a"])
    children = [feature("a"), number(0.5), integer(3), boolean(True), filtration("first")]
    for attributes in ({}, {"arity": 2}):
        instance = stateful(**attributes)
        run(evaluator, reduction("f", *children), instance, bound=bound)
        assert [(len(call.args), list(call.kwargs)) for call in instance.calls] == [
            (1, ["signal_pnl"])
        ] * ROWS


@pytest.mark.parametrize("truth", [True, 1, "yes", np.True_, np.array([1.5]), [False]])
def test_what_counts_as_stateful(evaluator, truth):
    instance = RecordingFunction(total, stateful=truth)
    run(evaluator, PLAIN, instance)
    assert len(instance.calls) == ROWS
    assert list(instance.calls[0].kwargs) == ["signal_pnl"]


def test_one_instance_at_two_nodes(evaluator):
    instance = stateful()
    graph = rotation("g", PLAIN, reduction("f"))
    run_reductions(evaluator, graph, {"f": instance, "g": RecordingFunction()})
    assert len(instance.calls) == 2 * ROWS
    assert instance.state_reads == 2


def test_the_outer_one_comes_after_the_inner_one(evaluator):
    order: list[str] = []

    def recorder(name: str) -> Any:
        return stateful(lambda *_, **__: order.append(name) or 0.0)

    graph = reduction("f", reduction("g"), reduction("h"))
    run_reductions(evaluator, graph, {name: recorder(name) for name in "fgh"})
    assert order == list("ghf") * ROWS


# --- stateless: never called ---------------------------------------------------------------------


@BOTH_ROADS
@pytest.mark.parametrize("name", ["reduction_mean", "reduction_max", "", "weighted_by_vol"])
@pytest.mark.parametrize("falsy", [False, None, 0, "", np.False_])
def test_a_stateless_reduction_is_the_mean_whatever_its_name(evaluator, name, falsy, bound):
    instance = RecordingFunction(raising(AssertionError("called")), stateful=falsy)
    pool = make_pool()
    context = reduction_context(evaluator, {name: instance}, pool=pool)
    result = evaluator.evaluate(
        reduction(name), context, bound_function_instances={"root": instance} if bound else None
    )
    assert instance.calls == []
    assert instance.state_reads == 0
    for t in range(ROWS):
        same_bits(result.weights[t], np.mean(block(pool, "abc", t), axis=0))
    assert result.states == {}


def test_a_stateless_reduction_asks_for_no_pnl(evaluator):
    """Its PnL column is not looked for, known or not."""
    for graph in (PLAIN, reduction("f", string("nowhere")), reduction("f", integer(3))):
        run(evaluator, graph, RecordingFunction(stateful=False), column_labels=LABELS)


def test_the_mean_of_what_passes(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["c", "a", "c"])
    result = run(evaluator, FILTERED, RecordingFunction())
    same_bits(result.weights[0], np.mean(block(make_pool(), "cac", 0), axis=0))


def test_an_instance_without_a_call(evaluator):
    class Stateless:
        stateful = False

    result = run(evaluator, PLAIN, Stateless())
    assert result.weights[:, 0].tolist() == [200.0, 210.0, 220.0, 230.0]


# --- `stateful` is read anew ---------------------------------------------------------------------

PNL = reduction("f", string("net_returns"))


@pytest.mark.parametrize(
    ("graph", "reads", "keywords"),
    [
        (PLAIN, (True, True, True), [["signal_pnl"]]),
        (PLAIN, (True, False, True), [[]]),
        (PLAIN, (False, True, True), [[]]),
        (PLAIN, (False, False, True), [[]]),
        (PNL, (False, True, True), [["signal_pnl"]]),
        (PNL, (True, False, True), [[]]),
        (PLAIN, (True, True, False), []),
        (PLAIN, (False, False, False), []),
    ],
)
def test_reads_in_one_row(evaluator, graph, reads, keywords):
    instance = Scripted(*reads, False)
    result = run(evaluator, graph, instance, rows=1, column_labels=LABELS)
    assert instance.reads == [False]
    assert [list(call) for call in instance.calls] == keywords
    same_bits(result.weights, [[600.0, 603.0, 606.0] if keywords else [200.0, 201.0, 202.0]])


def test_reads_in_every_row(evaluator):
    instance = Scripted(*[True] * 3, *[False] * 3, *[True] * 3, *[False] * 3, False)
    result = run(evaluator, PLAIN, instance)
    assert len(instance.calls) == 2
    assert result.weights[:, 0].tolist() == [600.0, 210.0, 660.0, 230.0]


@BOTH_KINDS
@pytest.mark.parametrize("before", [(), (True,), (False,)])
def test_a_stateful_that_fails_before_the_call(evaluator, kind, before):
    fault = kind("stateful")
    instance = Scripted(*before, fault)
    with lets_through(fault):
        run(evaluator, PLAIN, instance, column_labels=LABELS)
    assert instance.calls == []


@pytest.mark.parametrize("before", [(True, True), (False, False), (True, False)])
def test_a_stateful_that_fails_at_the_call(evaluator, before):
    fault = ValueError("stateful")
    text = "Function 'f' failed at row 0: stateful"
    with fails(FunctionExecutionError, text, cause=fault):
        run(evaluator, PLAIN, Scripted(*before, fault))
    fault = KeyboardInterrupt("stateful")
    with lets_through(fault):
        run(evaluator, PLAIN, Scripted(*before, fault))


@pytest.mark.parametrize("before", [0, 1, 2])
def test_a_stateful_that_has_no_truth(evaluator, before):
    fault = ValueError("truth")

    class Unclear:
        __bool__ = raising(fault)

    instance = Scripted(*[True] * before, Unclear())
    text = "Function 'f' failed at row 0: truth"
    with fails(FunctionExecutionError, text, cause=fault) if before == 2 else lets_through(fault):
        run(evaluator, PLAIN, instance)


def test_an_instance_without_stateful(evaluator):
    with fails(AttributeError, "'function' object has no attribute 'stateful'"):
        run(evaluator, PLAIN, lambda *_, **__: 0.0)


# --- failures of the call ------------------------------------------------------------------------


def failing_at(row: int, fault: BaseException) -> Any:
    """A reduction that raises `fault` in that row."""
    calls: list[None] = []

    def reduce(signals: Any, **_: Any) -> float:
        calls.append(None)
        if len(calls) > row:
            raise fault
        return 0.0

    return stateful(reduce)


@BOTH_ROADS
@pytest.mark.parametrize("row", [0, 3])
@pytest.mark.parametrize(
    "fault_of",
    [
        lambda: ValueError("bad"),
        lambda: KeyError("k"),
        lambda: EvaluationError("mine"),
        lambda: FunctionExecutionError("mine"),
        lambda: EmptyPoolError("none"),
        lambda: MemoryError(),
    ],
)
def test_a_failure_names_function_and_row(evaluator, bound, row, fault_of):
    fault = fault_of()
    text = f"Function 'f' failed at row {row}: {fault}"
    context = reduction_context(evaluator, {"f": failing_at(row, fault)})
    bound_instances = {"root": failing_at(row, fault)} if bound else None
    with fails(FunctionExecutionError, text, cause=fault):
        evaluator.evaluate(PLAIN, context, bound_function_instances=bound_instances)
    assert context.current_day_index == row
    same_bits(context.registers, np.zeros((1, 3)))


@pytest.mark.parametrize("kind", [KeyboardInterrupt, SystemExit, GeneratorExit])
def test_an_interrupt_passes(evaluator, kind):
    fault = kind("now")
    with lets_through(fault):
        run(evaluator, PLAIN, failing_at(2, fault))


def test_a_failure_without_a_text(evaluator):
    mute = RuntimeError("mute")

    class MuteError(Exception):
        __str__ = raising(mute)

    fault = MuteError()
    with pytest.raises(RuntimeError) as caught:
        run(evaluator, PLAIN, failing_at(0, fault))
    assert caught.value is mute
    assert mute.__context__ is fault


def test_a_reduction_that_takes_no_pnl(evaluator):
    class NoKeywords:
        stateful = True

        def __call__(self, signals: Any) -> float:
            raise AssertionError("called")

    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, PLAIN, NoKeywords())
    assert str(caught.value).startswith("Function 'f' failed at row 0: ")
    assert str(caught.value).endswith("got an unexpected keyword argument 'signal_pnl'")
    assert type(caught.value.__cause__) is TypeError


def test_a_reduction_that_cannot_be_called(evaluator):
    class NoCall:
        stateful = True

    with pytest.raises(FunctionExecutionError) as caught:
        run(evaluator, PLAIN, NoCall())
    text = "Function 'f' failed at row 0: 'NoCall' object is not callable"
    assert str(caught.value) == text
    assert type(caught.value.__cause__) is TypeError


def test_a_replaced_execution_error(evaluator, monkeypatch):
    class Replacement(Exception):
        pass

    monkeypatch.setattr(evaluator, "FunctionExecutionError", Replacement)
    fault = ValueError("bad")
    with fails(Replacement, "Function 'f' failed at row 0: bad", cause=fault):
        run(evaluator, PLAIN, failing_at(0, fault))


# --- results -------------------------------------------------------------------------------------


@pytest.mark.parametrize("result", [2.5, np.float32(2.5), [2.5] * 3, (2.5, 2.5, 2.5), "2.5"])
def test_results_that_are_no_arrays(evaluator, result):
    same_bits(run(evaluator, PLAIN, stateful(result)).weights, np.full((ROWS, 3), 2.5))


@pytest.mark.parametrize(
    ("result", "text"),
    [
        (np.zeros(2), "shape (2,), expected (3,) at row 0"),
        (np.zeros((3, 3)), "shape (3, 3), expected (3,) at row 0"),
        (np.zeros(4, np.float32), "shape (4,), expected (3,) at row 0"),
        (np.zeros(3, np.float32), "dtype float32, expected float64 at row 0"),
        (np.zeros(3, np.int64), "dtype int64, expected float64 at row 0"),
    ],
)
def test_arrays_of_another_shape_or_dtype(evaluator, result, text):
    with fails(EvaluationShapeError, f"Function 'f' returned {text}"):
        run(evaluator, PLAIN, stateful(result))


def test_a_row_of_the_input_as_the_result(evaluator):
    """A view of the buffer is copied: the next row's contents do not show."""
    result = run(evaluator, PLAIN, stateful(lambda signals, **_: signals[1]))
    same_bits(result.weights, make_pool()["b"].weights)


def test_under_a_rotation(evaluator):
    outer = RecordingFunction()
    context, result = run_reductions(
        evaluator, rotation("g", PLAIN, feature("a")), {"f": stateful(), "g": outer}
    )
    same_bits(outer.calls[2].values[0], total(block(make_pool(), "abc", 2)))
    same_bits(outer.calls[2].values[1], counting_matrix(ROWS)[2])
    same_bits(context.registers[0], result.weights[-1])


def test_the_universe_is_not_applied(evaluator):
    universe = np.zeros((ROWS, 3))
    result = run(evaluator, PLAIN, stateful(), universe=universe)
    same_bits(result.weights[0], total(block(make_pool(), "abc", 0)))


def test_a_precomputed_reduction(evaluator, monkeypatch):
    """It is not called and looks for nothing; its filter is another node and runs."""
    filters = replace_filters(monkeypatch, evaluator, first=["a"])
    instance = stateful()
    graph = reduction("f", filtration("first"), string("nowhere"), canonical_id="id")
    context = reduction_context(evaluator, {"f": instance}, column_labels=LABELS)
    context._precomputed_node_outputs = {"id": [1.0, 2.0, 3.0]}
    result = evaluator.evaluate(graph, context)
    same_bits(result.weights, [[1.0, 2.0, 3.0]] * ROWS)
    assert instance.calls == []
    assert instance.state_reads == 1
    assert len(filters.calls) == 1
    assert context.extraction_buffer.shape == (1, 3)


# --- two faults at once --------------------------------------------------------------------------


def test_the_earlier_of_two_faults(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["x"])
    unread = Scripted(ValueError("stateful"))
    unknown = reduction("f", string("nowhere"))
    with fails(KeyError, "'x'"):
        run(evaluator, FILTERED, unread)
    with fails(TypeError, "'NoneType' object is not subscriptable"):
        run(evaluator, unknown, unread, pool={})
    text = "PnL column 'nowhere' not found in column_labels: ['gross_returns', 'net_returns']"
    with pytest.raises(EvaluationError) as caught:
        run(evaluator, unknown, failing_at(0, ValueError("call")), column_labels=LABELS)
    assert str(caught.value) == text


def test_nothing_goes_through_to_an_empty_stateful_reduction(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=[])
    instance = stateful(0.0)
    run(evaluator, FILTERED, instance, column_labels=LABELS)
    for call in instance.calls:
        assert call.values[0].shape == (0, 3)
        same_bits(call.kwargs["signal_pnl"], np.zeros(0))
