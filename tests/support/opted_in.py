"""Functions in three guises: plain, with a kernel, and with a method for blocks of rows.

All three compute a row with the same code, a step: `step(memory, *rows)`, where `memory` is the
instance's own dictionary. A step fails where the first cell of its first row is `TRAP`.
"""

from __future__ import annotations

import copy
import ctypes
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
from support.row_kernels import (
    KINDS,
    REDUCTION_KERNEL,
    ROW_KERNEL,
    STATELESS,
    ReductionKernel,
    RowKernel,
    RunReduction,
    RunRows,
    block_at,
    capsule_of,
)

TRAP = -13.125
Step = Callable[..., Any]


def total(memory: dict[str, Any], *rows: np.ndarray) -> Any:
    """The sum of the rows in their order, and a number where there are none."""
    check(rows)
    result: Any = 0.5
    with np.errstate(all="ignore"):
        for row in rows:
            result = result + row
    return result


def running(memory: dict[str, Any], *rows: np.ndarray) -> Any:
    """The sum of the rows, and half of the result before. Counts its rows."""
    check(rows)
    memory["count"] = memory.get("count", 0) + 1
    with np.errstate(all="ignore"):
        result = total(memory, *rows) + 0.5 * np.asarray(memory.get("last", 0.0), dtype=np.float64)
    memory["last"] = np.nan_to_num(result).tolist()
    return result


def gaps(memory: dict[str, Any], *rows: np.ndarray) -> Any:
    """NaN in every row but each third; missing data climbs from there."""
    check(rows)
    memory["count"] = memory.get("count", 0) + 1
    if memory["count"] % 3:
        return np.full(rows[0].shape, np.nan) if rows else np.nan
    return total(memory, *rows)


def check(rows: Sequence[np.ndarray]) -> None:
    if rows and rows[0].size and rows[0].flat[0] == TRAP:
        raise ValueError(f"trapped with {len(rows)} rows")


STEPS: dict[str, tuple[Step, bool]] = {
    "total": (total, False),
    "running": (running, True),
    "gaps": (gaps, True),
}


class PlainFunction:
    """Opts in to nothing. `calls` lists how the rows came: "call", or the number of a block's."""

    window = 1

    def __init__(
        self, step: Step = total, *, stateful: bool = False, memory: Any = None, arity: bool = True
    ) -> None:
        self.step, self.stateful = step, stateful
        self.memory: dict[str, Any] = {} if memory is None else copy.deepcopy(memory)
        self.calls: list[Any] = []
        if arity:
            self.arity = 1

    def __call__(self, *rows: np.ndarray, context: Any = None) -> Any:
        self.calls.append("call")
        return self.step(self.memory, *rows)

    def get_state(self) -> dict[str, Any]:
        return copy.deepcopy(self.memory)


class KernelFunction(PlainFunction):
    """Its kernel reports the built-in exceptions of its step."""

    def __init__(self, step: Step = total, **options: Any) -> None:
        super().__init__(step, **options)
        self.offers = 0
        self.structure = RowKernel(
            ctypes.sizeof(RowKernel),
            0 if self.stateful else STATELESS,
            id(self),
            RunRows(self._run),
        )

    def __quernbrook_row_kernel__(self) -> Any:
        self.offers += 1
        return capsule_of(self.structure, ROW_KERNEL)

    def _run(
        self,
        state: int,
        arguments: Any,
        argument_count: int,
        row_count: int,
        column_count: int,
        result: Any,
        failure: Any,
    ) -> int:
        self.calls.append(row_count)
        blocks = [
            block_at(arguments[place], row_count, column_count) for place in range(argument_count)
        ]
        target = np.ctypeslib.as_array(result, (row_count, column_count))
        for row in range(row_count):
            try:
                target[row] = self.step(self.memory, *(block[row].copy() for block in blocks))
            except Exception as error:  # noqa: BLE001 - becomes a failure
                failure[0].row = row
                failure[0].kind = KINDS.get(type(error), 0)
                failure[0].text = str(error).encode()
                return 1
        return 0


class BlockFunction(PlainFunction):
    """Its method for blocks leaves the memory as it was where a row fails."""

    def __quernbrook_row_block__(self, *blocks: np.ndarray) -> np.ndarray:
        self.calls.append(blocks[0].shape[0])
        memory = copy.deepcopy(self.memory)
        try:
            result = np.empty(blocks[0].shape)
            for row in range(len(result)):
                result[row] = self.step(self.memory, *(block[row] for block in blocks))
        except Exception:
            self.memory = memory
            raise
        return result


GUISES: dict[str, type[PlainFunction]] = {
    "plain": PlainFunction,
    "kernel": KernelFunction,
    "block": BlockFunction,
}


class PlainReduction(PlainFunction):
    """A stateful reduction: the running total of all signals' rows and their PnL."""

    def __call__(self, block: np.ndarray, signal_pnl: Any = None) -> Any:  # type: ignore[override]
        self.calls.append("call")
        return self.reduce(block, signal_pnl)

    def reduce(self, block: np.ndarray, signal_pnl: Any) -> Any:
        row = running(self.memory, *block) + np.zeros(block.shape[1], dtype=np.float64)
        return row if signal_pnl is None else row + total({}, *signal_pnl)


class KernelReduction(PlainReduction):
    def __init__(self, step: Step = total, **options: Any) -> None:
        super().__init__(step, **options)
        self.structure = ReductionKernel(
            ctypes.sizeof(ReductionKernel), 0, id(self), RunReduction(self._run)
        )

    def __quernbrook_reduction_kernel__(self) -> Any:
        return capsule_of(self.structure, REDUCTION_KERNEL)

    def _run(
        self,
        state: int,
        signals: Any,
        signal_count: int,
        column_count: int,
        pnl: Any,
        result: Any,
        failure: Any,
    ) -> int:
        self.calls.append(signal_count)
        block = np.ctypeslib.as_array(signals, (signal_count, column_count)).copy()
        values = np.ctypeslib.as_array(pnl, (signal_count,)).copy() if pnl else None
        target = np.ctypeslib.as_array(result, (column_count,))
        try:
            target[:] = self.reduce(block, values)
        except Exception as error:  # noqa: BLE001 - becomes a failure
            failure[0].kind = KINDS.get(type(error), 0)
            failure[0].text = str(error).encode()
            return 1
        return 0


REDUCTIONS: dict[str, type[PlainReduction]] = {
    "plain": PlainReduction,
    "kernel": KernelReduction,
    "block": PlainReduction,
}
