"""What a measured run holds."""

from __future__ import annotations

from dataclasses import dataclass

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.simulator_engine.expression_evaluator import EvaluationResult
from quernbrook.workbench.tracing.timed_functions import Way


@dataclass(frozen=True)
class NodeTime:
    """A function node's part of a run.

    way: "kernel" for calls of its row kernel or reduction kernel, "blocks" for calls with several
        rows in Python, "calls" for calls with one, "none" if it wasn't called: another node with an
        equal function stood for it, a fast road or a precomputed output did, or it is a stateless
        reduction, whose mean the evaluator takes itself.
    seconds: its own, without those of its inputs.
    sharing: how many nodes share its instance; calls, rows and seconds are then parts of the whole.
    gain: the seconds that a row kernel would save; None where that isn't known.
    """

    path: str
    name: str
    way: Way
    calls: int
    rows: int
    seconds: float
    sharing: int
    gain: float | None


@dataclass(frozen=True)
class MeasuredRun:
    """A run and what its parts cost.

    result: what `evaluate` returned. seconds: of the whole run. nodes: in the order of execution.
    """

    graph: Node
    result: EvaluationResult
    seconds: float
    nodes: tuple[NodeTime, ...]

    @property
    def evaluator_seconds(self) -> float:
        """What the evaluator itself took: all that no function did."""
        return max(self.seconds - sum(node.seconds for node in self.nodes), 0.0)
