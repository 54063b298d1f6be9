"""The function instances of a random run; they log what is asked of them."""

from __future__ import annotations

from typing import Any

import numpy as np
from properties.actions import STEADY, Memory, total
from properties.answers import FAULTY, NUMBERS, ROWS
from properties.cases import FunctionCase
from properties.describe import bits
from properties.faults import ERRORS
from properties.meddling import MEDDLING

FUNCTION_KINDS = ("rotation", "reduction")
FAULTS = {**FAULTY, **{f"raise {name}": error for name, error in ERRORS.items()}}
ACTIONS = {**STEADY, **ROWS, **NUMBERS, **MEDDLING, **FAULTS}


class LoggingFunction:
    def __init__(self, host: Any, name: str, case: FunctionCase, calls: int) -> None:
        self.host, self.name, self.case = host, name, case
        self.memory = Memory(host, calls)
        if case.arity:
            self.arity = 1

    @property
    def stateful(self) -> bool:
        self.host.asked("stateful", self.name)
        return self.case.stateful and self.host.are_stateful

    @property
    def window(self) -> int:
        self.host.asked("window", self.name)
        if self.case.window is None:
            raise AttributeError("window")
        return self.case.window

    def get_state(self) -> Any:
        self.host.asked("get_state", self.name)
        data = {"count": self.memory.calls}
        return {
            "count": data,
            "none": None,
            "empty": {},
            "record": self.host.evaluator.FunctionState(self.name, data),
            "odd": {"count": "odd"},
            "huge": {"count": 10**30},
            "list": [self.memory.calls],
        }[self.case.state]

    def __call__(self, *rows: Any, **keywords: Any) -> Any:
        context = self.host.context
        self.host.asked(
            "call",
            self.name,
            [argument(row) for row in rows],
            {
                key: argument(value) if isinstance(value, np.ndarray) else value is context
                for key, value in keywords.items()
            },
            context.current_day_index,
            bits(context.registers),
            [bits(row) for row in self.memory.kept],
        )
        case, memory = self.case, self.memory
        memory.rows, memory.block = rows, None
        if "signal_pnl" in keywords:
            memory.block = rows[0]
            rows = tuple(rows[0])
        is_due = case.action not in FAULTS or memory.calls == case.faulty_row
        try:
            return (ACTIONS[case.action] if is_due else total)(rows, memory)
        finally:
            memory.calls += 1
            memory.rows = ()


def argument(row: np.ndarray) -> Any:
    """An argument's bits, and how it lies in memory."""
    base = None if row.base is None else row.base.shape
    strides = row.strides if row.size else None  # nothing lies anywhere
    return (bits(row), strides, row.flags.owndata, row.flags.writeable, base)
