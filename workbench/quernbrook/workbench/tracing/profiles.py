"""Where the time of a run goes."""

from __future__ import annotations

import os
import time
from collections import Counter
from pathlib import Path
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.trees import functions_by_path
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.tracing import flame, profile_text
from quernbrook.workbench.tracing.measured_run import MeasuredRun, NodeTime
from quernbrook.workbench.tracing.registries import in_front_of
from quernbrook.workbench.tracing.subject import Data, Subject
from quernbrook.workbench.tracing.timed_functions import TimedFunction, TimingRegistry
from quernbrook.workbench.tracing.timed_kernels import machine_code
from quernbrook.workbench.tracing.twins import twin_seconds_a_row


class Profile(MeasuredRun):
    """A measured run as text, a table, and as pictures."""

    def __str__(self) -> str:
        return profile_text.text(self)

    def _repr_html_(self) -> str:
        return profile_text.html(self)

    def svg(self) -> str:
        """A picture of the graph, root above, as wide as the time of each node and its inputs."""
        return flame.svg(self)

    def write_svg(self, path: str | os.PathLike[str]) -> None:
        """Write `svg()` to a file. Raises OSError."""
        Path(path).write_text(self.svg(), encoding="utf-8")


def profile(graph: Node, data: Data, *, universe: str | None = None) -> Profile:
    """Evaluate a graph once and measure each function.

    data: a panel or a context. universe: a field of the panel. Outside it, where it is 0 or NaN,
    fields are NaN.

    The run takes the same roads as without measuring, and its result has the same bits. Of a
    function in Python that is called row by row, the first 50 calls are timed and then one in 7,
    which stand for the others. Calls of kernels and of blocks are all timed: those of kernels by
    machine code where llvmlite is installed, and else by a callback into Python.

    Raises what `evaluate` raises.
    """
    subject = Subject.of(graph, data, universe)
    context = subject.context
    registry = None
    if context.registry is not None:
        context.registry = registry = in_front_of(context.registry, TimingRegistry)
    machine_code()  # compiled once a process, which is no part of the run
    begin = time.perf_counter()
    try:
        result = evaluate(subject.graph, context)
    except Exception:
        _raise_interruption([] if registry is None else registry.made)
        raise
    seconds = time.perf_counter() - begin
    made = [] if registry is None else registry.made
    return Profile(subject.graph, result, seconds, _node_times(subject, made))


def _raise_interruption(made: list[TimedFunction]) -> None:
    for timed in made:
        if timed.kernel is not None and timed.kernel.interruption is not None:
            raise timed.kernel.interruption


def _node_times(subject: Subject, made: list[TimedFunction]) -> tuple[NodeTime, ...]:
    columns = subject.context.features[0].shape[1]
    functions = functions_by_path(subject.graph)
    if not made:
        # The road of a leaf or one of whole matrices, for which none is made.
        return tuple(
            NodeTime(path, node.node, "none", 0, 0, 0.0, 1, None)
            for path, node in functions.items()
        )
    sharing = Counter(map(id, made))
    twins: dict[Any, float | None] = {}
    times = []
    # Instances are made in the order in which the nodes run.
    for (path, node), timed in zip(functions.items(), made, strict=True):
        count = sharing[id(timed)]
        seconds = timed.nanoseconds / 1e9 / count
        rows = timed.rows // count
        gain = None
        if timed.way in ("calls", "blocks"):
            key = (node.type, node.node, repr(timed.config))
            if key not in twins:
                twins[key] = twin_seconds_a_row(node, timed.config, columns)
            twin = twins[key]
            gain = None if twin is None else max(seconds - twin * rows, 0.0)
        times.append(
            NodeTime(
                path, node.node, timed.way, timed.all_calls // count, rows, seconds, count, gain
            )
        )
    return tuple(times)
