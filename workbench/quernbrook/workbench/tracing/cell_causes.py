"""What is behind a cell: frozen records, down to an odd value of a node."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass
from typing import Literal

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.tracing.subject import Label

Kind = Literal["nan", "infinity", "jump"]
KINDS: tuple[Kind, ...] = ("nan", "infinity", "jump")


@dataclass(frozen=True)
class Mark:
    """Something odd in a node's value, and where it came in.

    sources: the inputs that have it, each with the row in which it has it last; empty if it began
        at this node, of which `reason` then says more where more is known.
    """

    kind: Kind
    sources: tuple[tuple[str, Label], ...]
    reason: str = ""


@dataclass(frozen=True)
class Window:
    """The rows that a function along time holds: a value of each input for each row."""

    rows: tuple[Label, ...]
    values: dict[str, tuple[float, ...]]


@dataclass(frozen=True)
class Cause:
    """A node in the cell.

    value: its output there. inputs: its children, literals included.
    """

    path: str
    node: Node
    value: float
    marks: tuple[Mark, ...]
    window: Window | None
    inputs: tuple[Cause, ...]

    def walk(self) -> Iterator[Cause]:
        """This one and all below it, each before its inputs."""
        pending = [self]
        while pending:
            cause = pending.pop()
            yield cause
            pending += reversed(cause.inputs)


@dataclass(frozen=True)
class CellCauses:
    """What is behind one cell.

    weight: the cell's value in the run's weights. It is NaN in warm-up rows, whatever the root is.
    """

    row: Label
    column: Label
    weight: float
    is_warmup: bool
    jump_factor: float
    root: Cause
