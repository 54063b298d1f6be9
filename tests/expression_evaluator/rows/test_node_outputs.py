"""The capture of every node's rows."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.functions import RecordingFunction
from support.graphs import boolean, feature, integer, node, number, rotation, string
from support.runs import bind_all, counting_matrix, lets_through, make_context, same_bits

UNSET = object()


def run(evaluator, graph, *, collect: Any = UNSET, bound: Any = None, stored: Any = None):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    if collect is not UNSET:
        context._collect_node_outputs = collect
    context._precomputed_node_outputs = stored
    return evaluator.evaluate(
        graph, context, bound_function_instances=bound, data_nan_features=["unused"]
    )


@pytest.mark.parametrize(
    ("collect", "bound", "stored", "captured"),
    [
        (UNSET, None, None, False),
        (UNSET, {}, {}, False),
        (UNSET, {"anything": None}, None, True),
        (UNSET, None, {"anything": None}, True),
        (False, {"anything": None}, {"anything": None}, False),
        (None, {"anything": None}, {"anything": None}, False),
        (True, None, None, True),
        ("no", None, None, True),
        ([], {"anything": None}, None, False),
    ],
)
def test_when_outputs_are_captured(evaluator, collect, bound, stored, captured):
    result = run(evaluator, number(2.0), collect=collect, bound=bound, stored=stored)
    assert list(result.node_outputs) == (["root"] if captured else [])
    assert type(result.node_outputs) is dict


def test_every_node_has_its_rows(evaluator):
    graph = rotation(
        "f", feature("a"), integer(3), string("s"), boolean(True), node("odd", None), number(0.5)
    )
    bound = bind_all(graph, lambda: RecordingFunction(lambda *rows: rows[0] * 2.0))
    result = run(evaluator, graph, bound=bound)
    assert list(result.node_outputs) == [*(f"root.c{i}" for i in range(6)), "root"]
    for path, value in {"c1": 3.0, "c2": 0.0, "c3": 1.0, "c4": 0.0, "c5": 0.5}.items():
        same_bits(result.node_outputs[f"root.{path}"], np.full((2, 3), value))
    same_bits(result.node_outputs["root.c0"], counting_matrix(2))
    same_bits(result.node_outputs["root"], counting_matrix(2) * 2.0)
    same_bits(result.weights, counting_matrix(2) * 2.0)


def test_every_array_is_the_callers_own(evaluator):
    graph = rotation("f", number(0.5), number(0.5))
    result = run(evaluator, graph, bound=bind_all(graph))
    arrays = [*result.node_outputs.values(), result.weights]
    for index, array in enumerate(arrays):
        assert type(array) is np.ndarray
        assert array.flags.owndata
        assert array.flags.writeable
        assert array.flags.c_contiguous
        assert not any(np.shares_memory(array, other) for other in arrays[:index])


def test_rows_are_taken_at_the_end_of_the_row(evaluator):
    def overwrite(row: np.ndarray) -> float:
        row[:] = -row
        return 0.0

    graph = rotation("f", feature("a"))
    result = run(evaluator, graph, bound={"root": RecordingFunction(overwrite)})
    same_bits(result.node_outputs["root.c0"], -counting_matrix(2))


def test_without_rows(evaluator):
    context = make_context(evaluator, {"a": np.zeros((0, 2))})
    context._collect_node_outputs = True
    result = evaluator.evaluate(
        rotation("f", number(1.0)), context, bound_function_instances={"root": RecordingFunction()}
    )
    assert [array.shape for array in result.node_outputs.values()] == [(0, 2), (0, 2)]


def test_a_choice_without_a_truth_value(evaluator):
    fault = ValueError("neither")

    class Neither:
        def __bool__(self) -> bool:
            raise fault

    with lets_through(fault):
        run(evaluator, number(1.0), collect=Neither())


def test_the_choice_is_made_before_the_first_row(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})

    def switch_off(*_: Any) -> float:
        context._collect_node_outputs = False
        return 1.0

    result = evaluator.evaluate(
        rotation("f"), context, bound_function_instances={"root": RecordingFunction(switch_off)}
    )
    same_bits(result.node_outputs["root"], np.ones((2, 3)))
