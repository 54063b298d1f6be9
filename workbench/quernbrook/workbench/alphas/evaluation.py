"""Running formulas over a panel."""

from __future__ import annotations

import time
from collections.abc import Iterator, Mapping
from dataclasses import dataclass

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.panels.panel import Matrix, Panel


@dataclass(frozen=True)
class Evaluated:
    """The values of a formula, (dates, symbols), and the seconds that they took."""

    number: int
    values: Matrix
    seconds: float


def evaluate_formulas(
    graphs: Mapping[int, Node], panel: Panel, registry: FunctionRegistry
) -> Iterator[Evaluated]:
    """Evaluate one graph after the other, as they are asked for."""
    context = panel.context(registry)
    for number, graph in graphs.items():
        start = time.perf_counter()
        values = evaluate(graph, context).weights
        yield Evaluated(number, np.asarray(values), time.perf_counter() - start)
