"""Functions that offer kernels, written in Python behind the C structures of the contract.

A kernel here is a ctypes callback: it takes the interpreter's lock again when it is called.
"""

from __future__ import annotations

import ctypes
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np

ROW_KERNEL = b"quernbrook.row_kernel.1"
REDUCTION_KERNEL = b"quernbrook.reduction_kernel.1"
STATELESS = 1

Doubles = ctypes.POINTER(ctypes.c_double)


class Rows(ctypes.Structure):
    _fields_ = [("first", Doubles), ("stride", ctypes.c_ssize_t)]


class Failure(ctypes.Structure):
    _fields_ = [("row", ctypes.c_ssize_t), ("kind", ctypes.c_int32), ("text", ctypes.c_char * 256)]


RunRows = ctypes.CFUNCTYPE(
    ctypes.c_int,
    ctypes.c_void_p,
    ctypes.POINTER(Rows),
    ctypes.c_size_t,
    ctypes.c_ssize_t,
    ctypes.c_ssize_t,
    Doubles,
    ctypes.POINTER(Failure),
)
RunReduction = ctypes.CFUNCTYPE(
    ctypes.c_int,
    ctypes.c_void_p,
    Doubles,
    ctypes.c_ssize_t,
    ctypes.c_ssize_t,
    Doubles,
    Doubles,
    ctypes.POINTER(Failure),
)


class RowKernel(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        ("run", RunRows),
    ]


class ReductionKernel(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        ("run", RunReduction),
    ]


_new_capsule = ctypes.pythonapi.PyCapsule_New
_new_capsule.restype = ctypes.py_object
_new_capsule.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]


def capsule_of(structure: ctypes.Structure, name: bytes) -> Any:
    """A capsule over the structure. Structure and name must outlive it."""
    return _new_capsule(ctypes.addressof(structure), name, None)


class KernelFailure(Exception):
    """What a kernel below raises to tell of a failure."""

    def __init__(self, row: int, kind: int, text: bytes) -> None:
        super().__init__(row, kind, text)
        self.row, self.kind, self.text = row, kind, text


def block_at(rows: Rows, row_count: int, column_count: int) -> np.ndarray:
    """The rows of an argument as an array over their own memory."""
    address = ctypes.cast(rows.first, ctypes.c_void_p).value
    size = max(abs(rows.stride) * (row_count - 1) + column_count, 1)
    low = (address or 0) + min(rows.stride * (row_count - 1), 0) * 8
    memory = (ctypes.c_double * size).from_address(low)
    start = (address or 0) - low
    return np.ndarray(
        (row_count, column_count), np.float64, memory, start, (rows.stride * 8, 8)
    )


class KernelFunction:
    """A function whose rows are computed by `compute(*rows)`, one row or several at once.

    `calls` lists how the rows came: "call" for one by the instance, a number for a kernel's rows.
    """

    arity = 2
    stateful = False
    flags = STATELESS

    def __init__(self, compute: Callable[..., np.ndarray]) -> None:
        self.compute = compute
        self.calls: list[Any] = []
        self.structure = RowKernel(
            ctypes.sizeof(RowKernel), self.flags, id(self), RunRows(self._run)
        )

    def __call__(self, *rows: np.ndarray, context: Any = None) -> np.ndarray:
        self.calls.append("call")
        return self.row(*rows)

    def row(self, *rows: np.ndarray) -> np.ndarray:
        return np.asarray(self.compute(*rows), dtype=np.float64)

    def __quernbrook_row_kernel__(self) -> Any:
        return capsule_of(self.structure, ROW_KERNEL)

    def _run(
        self,
        state: int,
        arguments: Sequence[Rows],
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
                target[row] = self.row(*(block[row].copy() for block in blocks))
            except KernelFailure as error:
                failure[0].row = row if error.row is None else error.row
                failure[0].kind = error.kind
                failure[0].text = error.text
                return 1
        return 0


class StatefulKernelFunction(KernelFunction):
    """A running sum of its first argument, less a leak, as a kernel with a state."""

    stateful = True
    flags = 0

    def __init__(self, leak: float = 0.5) -> None:
        super().__init__(self._advance)
        self.leak = leak
        self.count = 0
        self.total: Any = 0.0

    def _advance(self, row: np.ndarray, *others: np.ndarray) -> np.ndarray:
        self.count += 1
        self.total = self.leak * self.total + np.nan_to_num(row)
        return self.total.copy()

    def get_state(self) -> dict[str, Any]:
        return {"count": self.count, "total": np.asarray(self.total).tolist()}

    def restore(self, state_data: dict[str, Any]) -> None:
        self.count = state_data["count"]
        self.total = np.asarray(state_data["total"])


class BlockFunction:
    """A function that takes blocks of rows in Python."""

    arity = 2
    stateful = False

    def __init__(self, compute: Callable[..., np.ndarray]) -> None:
        self.compute = compute
        self.calls: list[Any] = []

    def __call__(self, *rows: np.ndarray, context: Any = None) -> np.ndarray:
        self.calls.append("call")
        return np.asarray(self.compute(*rows), dtype=np.float64)

    def __quernbrook_row_block__(self, *blocks: np.ndarray) -> np.ndarray:
        self.calls.append(blocks[0].shape[0])
        return np.asarray(self.compute(*blocks), dtype=np.float64)
