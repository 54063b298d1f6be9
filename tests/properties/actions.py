"""What the functions of random runs do with their rows."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any

import numpy as np


@dataclass
class Memory:
    """What an instance remembers from row to row."""

    calls: int = 0
    kept: list[np.ndarray] = field(default_factory=list)


Rows = tuple[np.ndarray, ...]
Action = Callable[[Rows, Memory], Any]


def first(rows: Rows, _: Memory) -> Any:
    return rows[0] if rows else 0.25


def total(rows: Rows, _: Memory) -> Any:
    # In the order of the rows: another order would round differently.
    result = np.zeros_like(rows[0]) if rows else 1.0
    with np.errstate(all="ignore"):
        for row in rows:
            result = result + row
    return result


def running_total(rows: Rows, memory: Memory) -> Any:
    if not rows:
        return float(memory.calls)
    memory.kept[:] = [rows[0] + memory.kept[0] if memory.kept else rows[0].copy()]
    return memory.kept[0]


def keep(rows: Rows, memory: Memory) -> Any:
    memory.kept.extend(rows)
    return memory.kept[0] if memory.kept else None


def keep_and_overwrite(rows: Rows, memory: Memory) -> Any:
    for row in memory.kept:
        row[:] = -memory.calls
    memory.kept.extend(rows)
    return total(rows, memory)


def overwrite(rows: Rows, _: Memory) -> Any:
    for position, row in enumerate(rows):
        row[:] = position + 0.5
    return first(rows, _)


def reshape(rows: Rows, memory: Memory) -> Any:
    result = total(rows, memory)
    for row in rows:
        row.shape = (1, row.size)
        row.flags.writeable = False
    return result


def reinterpret(rows: Rows, memory: Memory) -> Any:
    result = total(rows, memory)
    for row in rows:
        row.dtype = np.int64 if memory.calls % 2 else np.dtype(">f8")
    return result


def mixture(rows: Rows, memory: Memory) -> Any:
    row = first(rows, memory)
    choices = [1, 2.5, None, True, np.float32(0.1), row, "1.5", np.int8(3)]
    return choices[memory.calls % len(choices)]


def as_list(rows: Rows, _: Memory) -> Any:
    return rows[0].tolist() if rows else [1.0]


def backwards(rows: Rows, _: Memory) -> Any:
    return rows[0][::-1] if rows else 0.0


#: Actions that serve every row.
STEADY: dict[str, Action] = {
    "first": first,
    "sum": total,
    "running total": running_total,
    "keep": keep,
    "keep and overwrite": keep_and_overwrite,
    "overwrite": overwrite,
    "reshape": reshape,
    "reinterpret": reinterpret,
    "mixture": mixture,
    "list": as_list,
    "backwards": backwards,
}


def raise_value_error(*_: Any) -> Any:
    raise ValueError("broken", 1)


def interrupt(*_: Any) -> Any:
    raise KeyboardInterrupt


#: Actions of one faulty row; in all others these functions sum up.
FAULTS: dict[str, Action] = {
    "raise": raise_value_error,
    "interrupt": interrupt,
    "stop": lambda *_: next(iter(())),
    "wrong shape": lambda rows, _: np.zeros((2, 5)),
    "scalar array": lambda rows, _: np.array(1.0),
    "wrong dtype": lambda rows, _: total(rows, _).astype(np.float32) if rows else 1.0,
    "byte order": lambda rows, _: total(rows, _).astype(">f8") if rows else 1.0,
    "wrong list": lambda *_: [1.0] * 7,
    "no number": lambda *_: {},
    "text": lambda *_: "abc",
}

ACTIONS = {**STEADY, **FAULTS}


def act(action: str, faulty_row: int, rows: Rows, memory: Memory) -> Any:
    if action in STEADY or memory.calls == faulty_row:
        return ACTIONS[action](rows, memory)
    return total(rows, memory)
