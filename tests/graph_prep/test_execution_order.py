"""The order in which the nodes of a graph are executed."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import functions_by_path
from support.graphs import feature, filtration, integer, node, number, rotation, string
from support.runs import bind_all, fails, make_context


def deep() -> FunctionGraphNode:
    return rotation("d", rotation("c", rotation("b", rotation("a", feature("x")))))


def wide() -> FunctionGraphNode:
    return rotation(
        "root",
        rotation("left", rotation("left-left", number(1.0)), rotation("left-right", feature("x"))),
        integer(2),
        rotation("right", string("s"), rotation("right-right", feature("x"))),
    )


def shared() -> FunctionGraphNode:
    child = rotation("shared", feature("x"))
    return rotation("root", child, rotation("middle", child), child)


def lonely() -> FunctionGraphNode:
    return rotation("root")


def below_an_unknown_kind() -> FunctionGraphNode:
    return rotation("root", node("odd", None, [rotation("below", feature("x"))]))


def run_and_log(evaluator, graph, rows: int) -> tuple[list[str], Any, Any]:
    log: list[str] = []

    class Function:
        stateful = False

        def __init__(self, path: str) -> None:
            self.path = path

        def __call__(self, *args: Any) -> float:
            log.append(self.path)
            return 0.0

    bound = {path: Function(path) for path in functions_by_path(graph)}
    context = make_context(evaluator, {"x": np.zeros((rows, 2))})
    return (log, evaluator.evaluate(graph, context, bound_function_instances=bound), context)


@pytest.mark.parametrize("make", [deep, wide, shared, lonely, below_an_unknown_kind])
@pytest.mark.parametrize("rows", [0, 1, 3])
def test_children_run_before_their_parents_in_every_row(evaluator, make, rows):
    graph = make()
    log, _, _ = run_and_log(evaluator, graph, rows)
    assert log == list(functions_by_path(graph)) * rows


def test_order_of_a_small_tree(evaluator):
    log, result, _ = run_and_log(evaluator, wide(), 1)
    assert log == ["root.c0.c0", "root.c0.c1", "root.c0", "root.c2.c1", "root.c2", "root"]
    assert list(result.node_outputs) == [
        "root.c0.c0.c0",
        "root.c0.c0",
        "root.c0.c1.c0",
        "root.c0.c1",
        "root.c0",
        "root.c1",
        "root.c2.c0",
        "root.c2.c1.c0",
        "root.c2.c1",
        "root.c2",
        "root",
    ]


def test_the_order_is_the_same_when_the_tables_come_from_the_graph(evaluator):
    graph = rotation("f", rotation("g", feature("x")), rotation("h", feature("x")))
    first, _, _ = run_and_log(evaluator, graph, 2)
    assert graph._collect_nodes_cache is not None
    second, _, _ = run_and_log(evaluator, graph, 2)
    assert first == second == ["root.c0", "root.c1", "root"] * 2


@pytest.mark.parametrize(("make", "nodes"), [(deep, 5), (wide, 11), (shared, 8), (lonely, 1)])
def test_every_node_has_a_register(evaluator, make, nodes):
    _, _, context = run_and_log(evaluator, make(), 1)
    assert context.registers.shape == (nodes, 2)


def test_literals_and_what_lies_below_a_filtration_have_registers_too(evaluator):
    graph = rotation("f", integer(1), filtration("top", node("pool", "all"), node("x", 0)))
    _, result, context = run_and_log(evaluator, graph, 0)
    assert context.registers.shape == (5, 2)
    assert list(result.node_outputs) == ["root.c0", "root.c1.c0", "root.c1.c1", "root.c1", "root"]


def test_a_path_without_a_record(evaluator):
    graph = rotation("f", number(1.0))
    run_and_log(evaluator, graph, 1)
    del graph._collect_nodes_cache["node_info"]["root.c0"]
    context = make_context(evaluator, {"x": np.zeros((1, 2))})
    with fails(KeyError, "'root.c0'"):
        evaluator.evaluate(graph, context, bound_function_instances=bind_all(graph))
