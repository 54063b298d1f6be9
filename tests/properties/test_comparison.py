"""The comparison sees what it is meant to see, and its report is a program."""

from __future__ import annotations

import sys
from types import ModuleType
from typing import Any

import numpy as np
import pytest
import reference_evaluator
from properties.build import build_matrix
from properties.cases import CallCase, FunctionCase, MatrixCase, NodeCase, RunCase
from properties.compare import program, require_agreement

FEATURES = (("a", MatrixCase(((1.0, -0.0), (3.0, float("nan"))))),)
CASE = RunCase(
    graph=NodeCase("rotation", "f", (NodeCase("feature", "a"),)),
    shape=(2, 2),
    features=FEATURES,
    functions=(("f", FunctionCase(stateful=True)),),
    calls=(CallCase(bound="all"),),
)


def altered(change: Any) -> ModuleType:
    """The plain evaluator with `change` applied to its results, the context or the graph."""

    def evaluate(graph: Any, context: Any, *arguments: Any, **keywords: Any) -> Any:
        result = reference_evaluator.evaluate(graph, context, *arguments, **keywords)
        change(result, context, graph)
        return result

    module = ModuleType("altered")
    vars(module).update(
        evaluate=evaluate,
        EvaluationContext=reference_evaluator.EvaluationContext,
        FunctionState=reference_evaluator.FunctionState,
    )
    return module


def flip_sign_of_zero(result: Any, _: Any, __: Any) -> None:
    result.weights[result.weights == 0.0] *= -1.0


def other_nan(result: Any, _: Any, __: Any) -> None:
    words = result.weights.view(np.uint64)
    words[np.isnan(result.weights)] += 1


def other_dtype(result: Any, _: Any, __: Any) -> None:
    result.weights = result.weights.astype(np.float32)


def other_layout(result: Any, _: Any, __: Any) -> None:
    result.weights = np.asfortranarray(result.weights)


def shared_memory(result: Any, context: Any, _: Any) -> None:
    context.registers = np.repeat(context.registers, 1, axis=0)
    result.weights = context.registers


def forgotten_state(result: Any, _: Any, __: Any) -> None:
    result.states.clear()


def other_order(result: Any, _: Any, __: Any) -> None:
    result.node_outputs = dict(reversed(list(result.node_outputs.items())))


def other_day(_: Any, context: Any, __: Any) -> None:
    context.current_day_index += 1


def stale_registers(_: Any, context: Any, __: Any) -> None:
    context.registers = np.zeros_like(context.registers)


def further_call(_: Any, context: Any, __: Any) -> None:
    context.registry.has("f")


def stamped_node(_: Any, __: Any, graph: Any) -> None:
    graph.children[0]._state_identity = "root.c0"


def other_record(_: Any, __: Any, graph: Any) -> None:
    record = graph._collect_nodes_cache
    record["node_info"] = dict(reversed(record["node_info"].items()))


def failure(_: Any, __: Any, ___: Any) -> None:
    raise ValueError


CHANGES = [
    flip_sign_of_zero,
    other_nan,
    other_dtype,
    other_layout,
    shared_memory,
    forgotten_state,
    other_order,
    other_day,
    stale_registers,
    further_call,
    stamped_node,
    other_record,
    failure,
]


@pytest.mark.parametrize("change", CHANGES)
def test_differences_are_seen_and_reported_with_the_case(change):
    evaluator = altered(change)
    with pytest.raises(AssertionError) as caught:
        require_agreement(reference_evaluator, evaluator, CASE)
    assert program(reference_evaluator, evaluator, CASE) in str(caught.value)


def test_the_report_runs_by_itself(monkeypatch):
    code = program(reference_evaluator, altered(other_nan), CASE)
    monkeypatch.setitem(sys.modules, "altered", altered(other_nan))
    with pytest.raises(AssertionError, match="disagree on"):
        exec(code, {})
    monkeypatch.setitem(sys.modules, "altered", altered(lambda *_: None))
    exec(code, {})


def test_cells_keep_their_bits():
    words = [0x8000000000000000, 0x7FF800000000BEEF, 0x7FF0000000000001, 1]
    matrix = build_matrix(MatrixCase((tuple(f"{word:016x}" for word in words),)), 4)
    assert matrix.view(np.uint64).tolist() == [words]
