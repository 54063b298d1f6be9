"""What the functions of random runs do with their rows."""

from __future__ import annotations

import weakref
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

import numpy as np


@dataclass
class Memory:
    """What an instance remembers from row to row, and what it can reach."""

    host: Any = None
    calls: int = 0
    kept: list[np.ndarray] = field(default_factory=list)
    watched: list[Any] = field(default_factory=list)
    rows: tuple[np.ndarray, ...] = ()
    """The arguments of the call under way."""
    block: np.ndarray | None = None
    """The signals in a call of a reduction."""


Rows = tuple[np.ndarray, ...]
Action = Callable[[Rows, Memory], Any]


def first(rows: Rows, _: Memory) -> Any:
    return rows[0] if rows else 0.25


def total(rows: Rows, _: Memory) -> Any:
    # In the order of the rows: another order would round differently.
    result = np.zeros_like(rows[0], dtype=np.float64, subok=False) if rows else 1.0
    with np.errstate(all="ignore"):
        for row in rows:
            result = result + row
    return result


def running_total(rows: Rows, memory: Memory) -> Any:
    if not rows:
        return float(memory.calls)
    with np.errstate(all="ignore"):
        memory.kept[:] = [rows[0] + memory.kept[0] if memory.kept else rows[0].copy()]
    return memory.kept[0]


def keep(rows: Rows, memory: Memory) -> Any:
    memory.kept.extend(rows)
    return memory.kept[0] if memory.kept else None


def keep_parts(rows: Rows, memory: Memory) -> Any:
    memory.kept.extend(row[:1] for row in rows)
    return total(rows, memory)


def keep_and_overwrite(rows: Rows, memory: Memory) -> Any:
    for row in memory.kept:
        row[:] = -memory.calls
    memory.kept.extend(rows)
    return total(rows, memory)


def watch(rows: Rows, memory: Memory) -> Any:
    alive = sum(reference() is not None for reference in memory.watched)
    memory.watched = [weakref.ref(row) for row in rows]
    return float(alive)


def overwrite(rows: Rows, _: Memory) -> Any:
    for position, row in enumerate(rows):
        row[:] = position + 0.5
    return first(rows, _)


def overwrite_all(rows: Rows, memory: Memory) -> Any:
    """Bound functions reach the registers of all nodes, reductions the whole extraction."""
    for row in rows[:1]:
        (row if row.base is None else row.base)[...] = memory.calls + 0.5
    return total(rows, memory)


def reshape(rows: Rows, memory: Memory) -> Any:
    result = total(rows, memory)
    for row in rows:
        row.shape = (1, row.size)
        row.flags.writeable = False
    return result


def resize(rows: Rows, memory: Memory) -> Any:
    for row in rows:
        if row.base is None:
            row.resize(row.size + 1 - 2 * (memory.calls % 2), refcheck=False)
    return float(memory.calls)


def reinterpret(rows: Rows, memory: Memory) -> Any:
    result = total(rows, memory)
    for row in rows:
        other = np.dtype(np.int64 if memory.calls % 2 else ">f8")
        row.dtype = other  # type: ignore[misc]
    return result


def mixture(rows: Rows, memory: Memory) -> Any:
    row = first(rows, memory)
    choices = [1, 2.5, None, True, np.float32(0.1), row, "1.5", np.int8(3)]
    return choices[memory.calls % len(choices)]


def as_list(rows: Rows, _: Memory) -> Any:
    return rows[0].tolist() if rows else [1.0]


def backwards(rows: Rows, _: Memory) -> Any:
    return rows[0][::-1] if rows else 0.0


def reform(rows: Rows, memory: Memory) -> Any:
    """Gives the extraction buffer behind a reduction's block another form."""
    result = total(rows, memory)
    buffer = None if memory.block is None else memory.block.base
    if buffer is not None and buffer.size:
        turn = memory.calls % 4
        if turn == 0:
            buffer.shape = buffer.shape[::-1]
        elif turn == 1:
            buffer.dtype = np.dtype(np.int64)  # type: ignore[misc]
        elif turn == 2:
            buffer.flags.writeable = False
    return result


def same_array(rows: Rows, memory: Memory) -> Any:
    """One array for all rows, with another content each time."""
    if not memory.kept:
        memory.kept.append(np.zeros(rows[0].size if rows else 1))
    memory.kept[0][:] = memory.calls
    return memory.kept[0]


#: Actions that serve every row.
STEADY: dict[str, Action] = {
    "sum": total,
    "first": first,
    "running total": running_total,
    "keep": keep,
    "keep parts": keep_parts,
    "keep and overwrite": keep_and_overwrite,
    "watch": watch,
    "overwrite": overwrite,
    "overwrite all": overwrite_all,
    "reshape": reshape,
    "resize": resize,
    "reinterpret": reinterpret,
    "reform": reform,
    "mixture": mixture,
    "list": as_list,
    "backwards": backwards,
    "same array": same_array,
}
