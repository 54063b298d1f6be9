"""Runs for reports, and how a notebook shows them."""

from __future__ import annotations

import time

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry
from quernbrook.reference_host.warmup import warmup_rows
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.html_tables import html_text
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.panels.panel import Matrix
from quernbrook.workbench.report.evaluated_run import EvaluatedRun
from quernbrook.workbench.report.page import report_page
from quernbrook.workbench.seeing.causes import nan_causes
from quernbrook.workbench.seeing.measures import returns_of


class Run(EvaluatedRun):
    """A graph that ran over a panel, with its report as its view."""

    def _repr_html_(self) -> str | None:
        """The report in a frame of its own, where its styles and its code stay among themselves.

        None without days or symbols, for which there is no report.
        """
        if self.weights.empty:
            return None
        page = html_text(report_page(self))
        style = "width: 100%; height: 50em; border: 0"
        return f'<iframe sandbox="allow-scripts" style="{style}" srcdoc="{page}"></iframe>'


def run_graph(
    graph: Node, panel: Panel, registry: FunctionRegistry, *, universe: str | None = None
) -> Run:
    """Evaluate a graph over a panel.

    universe: a field of the panel; cells where it is 0 or NaN are outside.

    Returns are the panel's field "returns", or the relative changes of its field "close".

    Raises KeyError for a universe that the panel doesn't have, and what `evaluate` raises.
    """
    context = panel.context(registry)
    if universe is not None:
        context.universe = panel.fields[universe]
    start = time.perf_counter()
    weights = np.asarray(evaluate(graph, context).weights)
    seconds = time.perf_counter() - start
    returns = _returns(panel)
    return Run(
        graph,
        panel,
        panel.frame(weights),
        nan_causes(weights, graph, context),
        seconds,
        warmup_rows(graph, registry),
        universe,
        None if returns is None else panel.frame(returns),
    )


def _returns(panel: Panel) -> Matrix | None:
    if "returns" in panel.fields:
        return panel.fields["returns"]
    if "close" in panel.fields:
        return returns_of(panel.fields["close"])
    return None
