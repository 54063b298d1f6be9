"""What no evaluator can do without, by itself: the calls of the functions and copies of rows."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode

from bench.functions import Registry, function_nodes, instance_for_binding, native
from bench.report import ARGUMENTS, CALLS, COPY
from bench.workloads import COLUMNS, random_matrix

REGISTRY, BOUND = "registry", "bound"
KINDS = [REGISTRY, BOUND]
BARE = "bare calls"
ROW_COPY = "copy of one row"
ARGUMENT_COPIES = "copies of arguments"
# What is measured as a part of what, in the report.
PARTS = {BARE: CALLS, ROW_COPY: COPY, ARGUMENT_COPIES: ARGUMENTS}


def bare_calls(
    graph: FunctionGraphNode, kind: str, rows: int, columns: int = COLUMNS
) -> Callable[[], None]:
    """Calls of the graph's functions with a vector that is already there, back to back."""
    vector = random_matrix(1, columns)[0]
    create = Registry().create_instance if kind == REGISTRY else instance_for_binding
    names = ("context",) if kind == REGISTRY else ()
    calls: list[tuple[Any, tuple[Any, ...]]] = []
    for _, node in function_nodes(graph):
        arguments = (vector,) * (len(node.children) + len(names))
        calls.append((entry_of(create(node.node)), arguments))
    call_repeatedly = native().call_repeatedly

    def run() -> None:
        for function, arguments in calls:
            call_repeatedly(function, arguments, names, rows)

    return run


def entry_of(instance: Any) -> Any:
    """What is called in the end; a class's bound method spares the look-up of `__call__`."""
    return instance.__call__ if hasattr(type(instance).__call__, "__code__") else instance


def row_copies(rows: int, times: int, columns: int = COLUMNS) -> Callable[[], None]:
    """So many copies of a row that has just been written, each to a place of its own."""
    matrix = random_matrix(rows + 1, columns)
    copy_along = native().copy_along
    return lambda: copy_along(matrix.ctypes.data, len(matrix), matrix.strides[0], times)
