"""A history of runs as plain data: its `repr` is all that is needed to build it again."""

from __future__ import annotations

from dataclasses import MISSING, dataclass, fields
from typing import Any, Literal

#: A number, or the bits of one as hexadecimal text: a NaN may have a payload.
Cell = float | str
Rows = tuple[tuple[Cell, ...], ...]
Pairs = tuple[tuple[str, Any], ...]
#: What the host does before a run: a name out of `deeds.DEEDS` and its arguments.
Deed = tuple[Any, ...]


class Case:
    """Data whose `repr` leaves out what is as it would be anyway."""

    def __repr__(self) -> str:
        shown = []
        for field in fields(self):  # type: ignore[arg-type]
            value = getattr(self, field.name)
            if field.default is MISSING:
                shown.append(repr(value))
            elif value != field.default:
                shown.append(f"{field.name}={value!r}")
        return f"{type(self).__name__}({', '.join(shown)})"

    def _repr_pretty_(self, printer: Any, _: bool) -> None:
        """How Hypothesis shows it."""
        printer.text(repr(self))


@dataclass(frozen=True, repr=False)
class NodeCase(Case):
    kind: str
    value: Any
    children: tuple[NodeCase, ...] = ()
    config: Pairs | None = None
    canonical_id: str | None = None
    state_identity: str | None = None
    children_as: str = "list"
    attributes: Pairs = ()
    """Further ones, and odd values for those above."""
    refuses: bool = False
    """Whether the node takes no writes to its cache slots."""

    def paths_of(self, kinds: tuple[str, ...], path: str = "root") -> list[tuple[str, NodeCase]]:
        """The nodes of these kinds with their paths, children first; all without any kinds."""
        below = [
            found
            for index, child in enumerate(self.children)
            for found in child.paths_of(kinds, f"{path}.c{index}")
        ]
        return [*below, (path, self)] if not kinds or self.kind in kinds else below


@dataclass(frozen=True, repr=False)
class MatrixCase(Case):
    rows: Rows
    dtype: str = "float64"
    layout: str = "C"
    columns: int | None = None
    """Of a matrix without rows."""
    tiles: tuple[int, int] = (1, 1)
    """How often the rows stand below each other, and side by side."""
    drift: float = 0.0
    """What is added from tile to tile."""


@dataclass(frozen=True, repr=False)
class ValueCase(Case):
    """What a host may hold where an array belongs."""

    matrix: MatrixCase
    form: str = "matrix"


@dataclass(frozen=True, repr=False)
class SignalCase(Case):
    weights: MatrixCase
    pnl: MatrixCase | None
    sharpe: float


@dataclass(frozen=True, repr=False)
class FunctionCase(Case):
    """What a function's instances do, and what its registry entry says."""

    action: str = "sum"
    faulty_row: int = 0
    stateful: bool = False
    arity: bool = False
    parameters: tuple[tuple[str, str], ...] | None = None
    family: str | None = None
    known: bool = True
    factory: bool = True
    entry: Pairs = ()
    """Further attributes of the entry."""
    state: str = "count"
    window: int | None = 3
    guise: str | None = None
    """One of `support.opted_in` instead of a function that logs; the action is its step then."""


@dataclass(frozen=True, repr=False)
class StageCase(Case):
    """A stage of the transform pipeline."""

    name: str
    default: str | None = None
    options: tuple[tuple[str, NodeCase | None], ...] = ()


@dataclass(frozen=True, repr=False)
class FaultCase(Case):
    """The host fails when it is asked this question for this time."""

    question: str
    time: int = 1
    error: str = "value"


@dataclass(frozen=True, repr=False)
class MeddlingCase(Case):
    """The host changes the run from a spot where the evaluator meets it, in this row."""

    spot: str
    deed: str
    row: int = 0


@dataclass(frozen=True, repr=False)
class CallCase(Case):
    """One call of `evaluate`, and what the host does before it."""

    before: tuple[Deed, ...] = ()
    states: Pairs | str | None = None
    """State by key; "last" for what the run before gave."""
    cold: bool = False
    bound: str = "no"
    """"no", "all", "none" (an empty mapping), "without <path>" or "None at <path>"."""
    nan_features: tuple[str, ...] | str | None = None


@dataclass(frozen=True, repr=False)
class RunCase(Case):
    graph: NodeCase
    shape: tuple[int, int]
    features: tuple[tuple[str, MatrixCase], ...]
    functions: tuple[tuple[str, FunctionCase], ...] = ()
    universe: MatrixCase | None = None
    pool: tuple[tuple[str, SignalCase], ...] = ()
    pnl_vectors: tuple[tuple[str, Pairs], ...] | None = None
    stages: tuple[StageCase, ...] = ()
    metaparameters: Pairs = ()
    pool_id: str | None = None
    combined: bool = False
    stage_data: tuple[tuple[str, ValueCase], ...] = ()
    precomputed: tuple[tuple[str | None, ValueCase], ...] | None = None
    precomputed_nan: tuple[tuple[str | None, Any], ...] | None = None
    collect: bool | None = None
    collect_states: bool | None = None
    registry: str = "plain"
    """Or "typed", with a state class of its own, or "none"."""
    validate: bool = True
    shared: bool = False
    """Whether equal subtrees are one object."""
    feature_list: bool = False
    least_rows: int | None = None
    """From how many rows on the longitudinal road is open."""
    passing: tuple[str | None, ...] | None = None
    """What passes every filter: a kind of container and ids; None for the host's own filters."""
    arithmetic: Literal["ignore", "warn", "raise"] = "warn"
    """NumPy's way with floating-point errors."""
    strict: bool = False
    """Whether warnings are errors."""
    fault: FaultCase | None = None
    meddling: MeddlingCase | None = None
    reads_ahead: bool = False
    """Whether the host promises that nothing changes during a run."""
    calls: tuple[CallCase, ...] = (CallCase(),)
