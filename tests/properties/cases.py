"""One run as plain data: its `repr` is all that is needed to build it again."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

Rows = tuple[tuple[float, ...], ...]
Pairs = tuple[tuple[str, Any], ...]


@dataclass(frozen=True)
class NodeCase:
    kind: str
    value: Any
    children: tuple[NodeCase, ...] = ()
    config: Pairs | None = None
    canonical_id: str | None = None
    state_identity: str | None = None
    children_as: str = "list"

    def paths_of(self, kinds: tuple[str, ...], path: str = "root") -> list[tuple[str, NodeCase]]:
        """The nodes of these kinds with their paths, children first."""
        below = [
            found
            for index, child in enumerate(self.children)
            for found in child.paths_of(kinds, f"{path}.c{index}")
        ]
        return [*below, (path, self)] if self.kind in kinds else below


@dataclass(frozen=True)
class MatrixCase:
    rows: Rows
    dtype: str = "float64"
    layout: str = "C"


@dataclass(frozen=True)
class SignalCase:
    weights: MatrixCase
    pnl: MatrixCase | None
    sharpe: float


@dataclass(frozen=True)
class FunctionCase:
    """What a function's instances do, and what its registry entry says."""

    action: str = "sum"
    faulty_row: int = 0
    stateful: bool = False
    arity: bool = False
    parameters: tuple[tuple[str, str], ...] | None = None
    family: str | None = None
    known: bool = True


@dataclass(frozen=True)
class RunCase:
    graph: NodeCase
    shape: tuple[int, int]
    features: tuple[tuple[str, MatrixCase], ...]
    functions: tuple[tuple[str, FunctionCase], ...] = ()
    universe: MatrixCase | None = None
    pool: tuple[tuple[str, SignalCase], ...] = ()
    pnl_vectors: tuple[tuple[str, Pairs], ...] | None = None
    cold: bool = False
    bound: str = "no"
    """"no", "all", "none" (an empty mapping), "without <path>" or "None at <path>"."""
    states: Pairs | None = None
    precomputed: tuple[tuple[str | None, Any], ...] | None = None
    collect: bool | None = None
    collect_states: bool | None = None
    nan_features: tuple[str, ...] | None = None
    registry: bool = True
    validate: bool = True
    runs: int = 1
