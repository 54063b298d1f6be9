"""What goes to workers and comes back: plain data, without pandas, which workers never import."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Literal, TypeAlias

import numpy as np
from numpy.typing import NDArray

Matrix: TypeAlias = NDArray[np.float64]
Results: TypeAlias = Literal["weights", "summary"]


@dataclass(frozen=True)
class Slice:
    """The part of the panel that a run sees.

    rows: from and to, the latter not included.
    columns: None where all symbols are in it.
    universe: a field that is taken as the universe, in place of the panel's own.
    """

    rows: tuple[int, int]
    columns: tuple[int, ...] | None
    universe: str | None

    def cells(self, column_count: int) -> int:
        width = column_count if self.columns is None else len(self.columns)
        return (self.rows[1] - self.rows[0]) * width


@dataclass(frozen=True)
class Task:
    """A run as a worker gets it.

    text: a formula, or the JSON document of a graph.
    key: the hash of all that its result depends on, which names its file.
    """

    name: str
    key: str
    text: str
    is_formula: bool
    options: Mapping[str, Any] = field(hash=False)


@dataclass(frozen=True)
class Group:
    """Runs over one slice and with the same options, for one call in one worker.

    tries: how often the only run of the group was tried before.
    """

    tasks: tuple[Task, ...]
    slice: Slice
    tries: int = 0


@dataclass(frozen=True)
class Setup:
    """What workers need beside the features.

    registry: the import path "module:function" of what makes the registry.
    staging: where files go until they are whole; None hands weights back to the driver.
    shells: of the files, by slice (see `shells`).
    """

    registry: str
    results: Results
    staging: Path | None
    shells: Mapping[Slice, Sequence[bytes]]


@dataclass
class Outcome:
    """What became of a run.

    weights: where there is no staging folder. file: in the staging folder.
    seconds: the run's share of its call. together: runs of that call.
    peak_memory: of the worker's resident set while the call went on, in bytes.
    error: the name of the exception's class.
    error_path, error_row: of the node and the row of the slice, where the error tells them.
    """

    task: Task
    seconds: float = 0.0
    together: int = 1
    peak_memory: int | None = None
    rows: int = 0
    file: Path | None = None
    weights: Matrix | None = None
    summary: dict[str, float] | None = None
    warnings: list[str] = field(default_factory=list)
    error: str | None = None
    message: str | None = None
    error_path: str | None = None
    error_row: int | None = None
    tries: int = 1


class StorageError(OSError):
    """A result can't be written; no fault of the run."""
