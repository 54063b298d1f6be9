"""What a graph costs before its first row: runs over no rows at all."""

from __future__ import annotations

import sys
import threading
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode

from bench import evaluators, memory
from bench.functions import Registry, bush, chain
from bench.workloads import context_of

SIZES = [1000, 10_000, 100_000]
# Of the reference: a path tells the way from the root, so the paths of a deep graph grow with the
# square of its depth, and it makes them all.
LARGEST_REFERENCE = {"wide": 100_000, "deep": 10_000}
LARGEST_DEPTH = 100_000
# The resident set is counted in pages.
SMALLEST_FOR_MEMORY = 10_000
STACK_BYTES = 1 << 30
COLUMNS = 10
HOST_CALLS = "the host's own calls"
UNIT = "µs a node"


def wide(nodes: int) -> FunctionGraphNode:
    """One function over all others, each with a leaf: one node fewer if `nodes` is even."""
    return bush((nodes + 1) // 2)


def deep(nodes: int) -> FunctionGraphNode:
    return chain(nodes - 1)


SHAPES = {"wide": wide, "deep": deep}


def workload(shape: str, nodes: int) -> str:
    return f"{shape} graph of {nodes:,} nodes"


def prepared(shape: str, contender: str, nodes: int) -> tuple[FunctionGraphNode, Any]:
    return SHAPES[shape](nodes), context_of(
        evaluators.load(contender), 0, COLUMNS, registry=Registry()
    )


def with_deep_stack(call: Callable[[], Any], depth: int) -> Any:
    """`call` in a thread that can recurse `depth` levels of a graph."""
    recursion, stack = sys.getrecursionlimit(), threading.stack_size(STACK_BYTES)
    # Plain Python takes a few frames a level.
    sys.setrecursionlimit(max(recursion, 10 * depth))
    try:
        with ThreadPoolExecutor(1) as thread:
            return thread.submit(call).result()
    finally:
        sys.setrecursionlimit(recursion)
        threading.stack_size(stack)


def run_with_deep_stack(contender: str, graph_and_context: tuple[FunctionGraphNode, Any]) -> Any:
    call = partial(evaluators.load(contender).evaluate, *graph_and_context)
    return with_deep_stack(call, LARGEST_DEPTH)


@pytest.mark.parametrize("contender", evaluators.NAMES)
@pytest.mark.parametrize("nodes", SIZES)
@pytest.mark.parametrize("shape", SHAPES)
def test_large_graph(measure: Callable[..., None], contender: str, shape: str, nodes: int) -> None:
    if contender != evaluators.MODULE and nodes > LARGEST_REFERENCE[shape]:
        pytest.skip("the paths would take gigabytes")
    graph, context = prepared(shape, contender, nodes)
    time = partial(
        measure,
        partial(evaluators.load(contender).evaluate, graph, context),
        workload=workload(shape, nodes),
        contender=contender,
        count=nodes,
        unit=UNIT,
        rounds=5,
        memory=bytes_a_node(contender, shape, nodes),
    )
    with_deep_stack(time, nodes)


def bytes_a_node(contender: str, shape: str, nodes: int) -> str:
    if not memory.CAN_BE_READ or nodes < SMALLEST_FOR_MEMORY:
        return ""
    growth = memory.peak_growth(
        partial(prepared, shape, contender), nodes, partial(run_with_deep_stack, contender)
    )
    return f"{growth / nodes:,.0f} bytes a node"


class Listing:
    """A registry that lists what a run asks of another one."""

    def __init__(self, registry: Registry) -> None:
        self.registry = registry
        self.calls: list[Callable[[], Any]] = []

    def __getattr__(self, method: str) -> Callable[..., Any]:
        def call(name: str, **config: Any) -> Any:
            self.calls.append(partial(getattr(self.registry, method), name, **config))
            return self.calls[-1]()

        return call


@pytest.mark.parametrize("nodes", SIZES)
@pytest.mark.parametrize("shape", SHAPES)
def test_host_calls(measure: Callable[..., None], shape: str, nodes: int) -> None:
    """What a run asks of the registry, asked outside of it: the answers decide what it does."""
    listing = Listing(Registry())
    evaluator = evaluators.load(evaluators.MODULE)
    context = context_of(evaluator, 0, COLUMNS, registry=listing)
    with_deep_stack(partial(evaluator.evaluate, SHAPES[shape](nodes), context), nodes)
    calls = listing.calls

    def ask() -> list[Any]:
        return [call() for call in calls]

    assert len(ask()) >= nodes // 2
    measure(
        ask,
        workload=workload(shape, nodes),
        contender=HOST_CALLS,
        floor=True,
        count=nodes,
        unit=UNIT,
        rounds=5,
    )


@pytest.mark.parametrize("nodes", SIZES)
@pytest.mark.parametrize("shape", SHAPES)
def test_walk(measure: Callable[..., None], shape: str, nodes: int) -> None:
    """All nodes looked at once, which no evaluator can do without."""
    graph = SHAPES[shape](nodes)

    def walk() -> int:
        waiting, seen = [graph], 0
        while waiting:
            seen += 1
            waiting.extend(waiting.pop().children or ())
        return seen

    assert walk() in (nodes, nodes - 1)
    measure(
        walk,
        workload=workload(shape, nodes),
        contender="walk in plain Python",
        floor=True,
        count=nodes,
        unit=UNIT,
        rounds=5,
    )
