"""What an explanation holds: frozen records, from the run as a whole down to a setting."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Literal

from quernbrook.reference_host import Fault
from quernbrook.workbench.explanation.inputs import Inputs

Origin = Literal["own", "named child", "window", "text", "flag", "default"]
Step = Literal["road", "strip", "row"]


@dataclass(frozen=True)
class Refusal:
    """The first test that closed a fast road: what was found, and the value behind it."""

    test: str
    value: str

    def __str__(self) -> str:
        return f"{self.test}: {self.value}"


@dataclass(frozen=True)
class Road:
    """A fast road.

    is_open: what the evaluator's own test says.
    refusal: None for an open road.
    condition: what only the data can tell: where it holds, an open road gives way to the next.
    """

    name: str
    is_open: bool
    refusal: Refusal | None
    condition: str | None = None


@dataclass(frozen=True)
class Setting:
    """A parameter of a function.

    origin: "own" for the node's own configuration, "named child" for a literal child that the
        schema names, "window", "text" or "flag" for an int, string or bool child beyond those, and
        "default" for what the registry's entry fills in.
    path: the literal child's path, or None.
    """

    name: str
    value: Any
    origin: Origin
    path: str | None = None


@dataclass(frozen=True)
class NodeExplanation:
    """A node of the graph that runs, transforms included.

    label: its name or value, as text.
    children: paths.
    settings: a function's parameters, in the order in which they are filled.
    state_key: a function's; None for other nodes.
    is_stateful: as the registry's or the bound instance says; None where there is none.
    step: how it is computed: by a fast road, in strips of rows, or row by row.
    reason: why it goes row by row; None in strips.
    warmup_rows: those that this node would have as the root.
    calls: calls from the evaluator into Python for all rows; None for blocks in strips, which take
        one a strip.
    prefill_rows: rows that a cold start shows a reduction first.
    is_precomputed: an output of the host's stands for the node.
    """

    path: str
    kind: str
    label: str
    children: tuple[str, ...]
    settings: tuple[Setting, ...]
    state_key: str | None
    is_stateful: bool | None
    step: Step
    reason: str | None
    warmup_rows: int
    calls: int | None
    prefill_rows: int
    is_precomputed: bool


@dataclass(frozen=True)
class WarmupSource:
    """Rows that a function adds to the warm-up."""

    path: str
    function: str
    rows: int


@dataclass(frozen=True)
class Warmup:
    """Rows at the beginning that a run blanks.

    rows: `total` less `rows_seen`, or 0 on a fast road and in a run with bound instances, which
        blank nothing.
    total: what the evaluator counts from the graph.
    rows_seen: the most that any state has seen, pre-fill included.
    sources: the functions that add up to `total`, from the root on down one way.
    """

    rows: int
    total: int
    rows_seen: int
    sources: tuple[WarmupSource, ...]


@dataclass(frozen=True)
class FeatureUse:
    """A feature that the graph reads.

    place: among the context's features; stage data come behind them.
    node_count: how many nodes read it.
    is_marked: counts as missing data in this run.
    """

    name: str
    place: int
    dtype: str
    shape: tuple[int, ...]
    node_count: int
    is_stage_data: bool
    is_marked: bool


@dataclass(frozen=True)
class FilterStep:
    """One filter of a tree, and how many signals of the pool pass it."""

    description: str
    passing_count: int


@dataclass(frozen=True)
class SignalUse:
    """The signals that a reduction gets.

    filter_path: of its filtration; None where it gets the whole pool.
    passing: ids, in the order of the rows that the reduction gets.
    steps: the filters, outermost first.
    """

    path: str
    filter_path: str | None
    pool_size: int
    passing: tuple[str, ...]
    steps: tuple[FilterStep, ...]


@dataclass(frozen=True)
class Memory:
    """Bytes that the evaluator takes for a run; what functions hold and a few hundred kilobytes for
    strips are not among them."""

    weights: int
    universe_mask: int
    registers: int
    node_outputs: int
    extraction_buffer: int

    @property
    def total(self) -> int:
        return (
            self.weights
            + self.universe_mask
            + self.registers
            + self.node_outputs
            + self.extraction_buffer
        )


@dataclass(frozen=True)
class RowValue:
    """What a node gave for one row.

    values: float64, a number a column.
    nan_share: from 0 to 1.
    seconds: those of the function's call; None where none was made.
    """

    values: tuple[float, ...]
    nan_share: float
    seconds: float | None


@dataclass(frozen=True)
class ExplainedRun:
    """What a run of a graph over a context would do.

    rows, columns: of the matrices; 0 where the context has no features.
    road: the fast road that is taken, "rows" where none is, and None where the run would fail
        before it takes any.
    roads: in the order in which a run tries them.
    nodes: in the order in which they run, children first; none where the graph can't be read.
    calls: into Python, of all nodes and the pre-fill; blocks in strips count once each.
    faults: all of them. A sound run has none.
    """

    rows: int
    columns: int
    road: str | None
    roads: tuple[Road, ...]
    nodes: tuple[NodeExplanation, ...]
    warmup: Warmup
    features: tuple[FeatureUse, ...]
    signals: tuple[SignalUse, ...]
    memory: Memory
    calls: int
    faults: tuple[Fault, ...]
    inputs: Inputs | None = field(repr=False, compare=False)
