"""A live tick of all published formulas, and the share of each function in it.

The functions are called alone, from Python, with the rows that they get in a tick, and after all
others: their times hold a call each, about a microsecond, which a tick does without.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass
from functools import cache
from itertools import cycle
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import bind_instances, default_registry, nodes_by_path
from quernbrook.reference_host.binding import BoundGraph
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext

from bench.bench_alphas import GRAPHS, panel_of
from bench.evaluators import MODULE

COLUMNS = 500
# Enough to fill the longest chain of windows.
HISTORY = 320
DAYS = HISTORY + 8
WORKLOAD = f"tick of {len(GRAPHS)} formulas over {COLUMNS} columns"
FUNCTIONS = sorted(
    {
        node.node
        for graph in GRAPHS.values()
        for node in nodes_by_path(graph).values()
        if node.type == "rotation"
    }
)


def context(
    first: int, last: int, *, node_outputs: bool = False, registry: bool = False
) -> EvaluationContext:
    panel = panel_of(DAYS, COLUMNS)
    made: Any = EvaluationContext(
        tuple(values[first:last] for values in panel.fields.values()),
        {name: place for place, name in enumerate(panel.fields)},
        registry=default_registry() if registry else None,
    )
    made._collect_states, made._collect_node_outputs = False, node_outputs
    return made


def after_history() -> list[BoundGraph]:
    bound = [bind_instances(graph, default_registry()) for graph in GRAPHS.values()]
    for each in bound:
        each.evaluate(context(0, HISTORY))
    return bound


@pytest.mark.parametrize(
    ("contender", "options", "rows"),
    [
        (MODULE, {}, 1),
        ("with a registry", {"registry": True}, 1),
        ("with node outputs", {"node_outputs": True}, 1),
        ("without a row", {}, 0),
    ],
)
def test_tick(
    measure: Callable[..., None], contender: str, options: dict[str, bool], rows: int
) -> None:
    bound = after_history()
    days = cycle([context(day, day + rows, **options) for day in range(HISTORY, DAYS)])

    def tick() -> None:
        today = next(days)
        for each in bound:
            each.evaluate(today)

    measure(
        tick,
        workload=WORKLOAD,
        contender=contender,
        count=1,
        unit="ms a tick",
        rounds=25,
        floor=rows == 0,
    )


@dataclass
class Replay:
    """An instance and the rows that it gets day by day."""

    instance: Any
    days: Iterator[tuple[np.ndarray, ...]]


@cache
def replays() -> dict[str, list[Replay]]:
    """The instances of each function, as they stand after the history."""
    found: dict[str, list[Replay]] = {name: [] for name in FUNCTIONS}
    for watched, alone in zip(after_history(), after_history(), strict=True):
        outputs = [
            watched.evaluate(context(day, day + 1, node_outputs=True)).node_outputs
            for day in range(HISTORY, DAYS)
        ]
        nodes = nodes_by_path(alone.graph)
        for path, instance in alone.instances.items():
            node = nodes[path]
            children = node.children[: instance.arity]
            rows = [
                rows_of(child, [each.get(f"{path}.c{place}") for each in outputs])
                for place, child in enumerate(children)
            ]
            found[node.node].append(Replay(instance, cycle(zip(*rows, strict=True))))
    return found


def rows_of(node: FunctionGraphNode, outputs: list[Any]) -> list[np.ndarray]:
    if node.type == "rotation":
        return [each[0].copy() for each in outputs]
    if node.type == "feature":
        return list(panel_of(DAYS, COLUMNS).fields[node.node][HISTORY:])
    return [np.full(COLUMNS, float(node.node))] * len(outputs)


@pytest.mark.parametrize("name", FUNCTIONS)
def test_share(measure: Callable[..., None], name: str) -> None:
    others = [each for function in FUNCTIONS if function != name for each in replays()[function]]
    chosen = replays()[name]
    measure(
        lambda: call(chosen),
        # Leaves the windows of these where a tick finds them: far from the processor.
        setup=lambda: call(others),
        workload=f"{name}, {len(chosen)} nodes",
        contender="called alone",
        count=1,
        unit="µs a tick",
        rounds=15,
        floor=True,
    )


def call(functions: list[Replay]) -> None:
    for each in functions:
        each.instance(*next(each.days))
