"""Calls of row kernels as the evaluator makes them: through the capsule, any number of rows at once."""

from __future__ import annotations

import ctypes
from collections.abc import Callable, Iterator, Sequence
from typing import Any

import numpy as np

ROW_KERNEL = b"quernbrook.row_kernel.1"
REDUCTION_KERNEL = b"quernbrook.reduction_kernel.1"

_get_pointer = ctypes.pythonapi.PyCapsule_GetPointer
_get_pointer.restype = ctypes.c_void_p
_get_pointer.argtypes = [ctypes.py_object, ctypes.c_char_p]

_Cells = ctypes.POINTER(ctypes.c_double)


class Rows(ctypes.Structure):
    _fields_ = (("first", _Cells), ("stride", ctypes.c_ssize_t))


class Failure(ctypes.Structure):
    _fields_ = (
        ("row", ctypes.c_ssize_t),
        ("kind", ctypes.c_int32),
        ("text", ctypes.c_char * 256),
    )


class RowKernel(ctypes.Structure):
    _fields_ = (
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        (
            "run",
            ctypes.CFUNCTYPE(
                ctypes.c_int,
                ctypes.c_void_p,
                ctypes.POINTER(Rows),
                ctypes.c_size_t,
                ctypes.c_ssize_t,
                ctypes.c_ssize_t,
                _Cells,
                ctypes.POINTER(Failure),
            ),
        ),
    )


class ReductionKernel(ctypes.Structure):
    _fields_ = (
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        (
            "run",
            ctypes.CFUNCTYPE(
                ctypes.c_int,
                ctypes.c_void_p,
                _Cells,
                ctypes.c_ssize_t,
                ctypes.c_ssize_t,
                _Cells,
                _Cells,
                ctypes.POINTER(Failure),
            ),
        ),
    )


class KernelFailure(Exception):
    """What a kernel told: a kind, a row and a text."""

    def __init__(self, failure: Failure) -> None:
        super().__init__(failure.text.decode())
        self.kind = failure.kind
        self.row = failure.row


class KernelCall:
    """The kernel of a rotation's instance, asked for once, as in a run."""

    def __init__(self, instance: Any) -> None:
        self.capsule = type(instance).__quernbrook_row_kernel__(instance)
        self.kernel = RowKernel.from_address(_get_pointer(self.capsule, ROW_KERNEL))

    def __call__(self, arguments: Sequence[np.ndarray], rows: int, columns: int) -> np.ndarray:
        """`arguments` are float64 blocks of `rows` rows, or single rows that serve all."""
        result = np.full((rows, columns), 123.0)
        self.fill(result, arguments)
        return result

    def fill(self, result: np.ndarray, arguments: Sequence[np.ndarray]) -> None:
        """The same into a C-ordered block."""
        self.bound(result, arguments)()

    def bound(self, result: np.ndarray, arguments: Sequence[np.ndarray]) -> Callable[[], None]:
        """The call of `fill`, to be made again and again without what leads up to it."""
        views = (Rows * max(len(arguments), 1))()
        for view, argument in zip(views, arguments, strict=False):
            view.first = ctypes.cast(argument.ctypes.data, _Cells)
            view.stride = argument.strides[0] // 8 if argument.ndim == 2 else 0
        failure = Failure()
        cells = ctypes.cast(result.ctypes.data, _Cells)
        run, state, count = self.kernel.run, self.kernel.state, len(arguments)
        shape, told = result.shape, ctypes.byref(failure)
        kept = (self.capsule, result, arguments)  # what the addresses lead to

        def call(_: object = kept) -> None:
            if run(state, views, count, *shape, cells, told):
                raise KernelFailure(failure)

        return call


class ReductionCall:
    """The kernel of a reduction's instance."""

    def __init__(self, instance: Any) -> None:
        self.capsule = type(instance).__quernbrook_reduction_kernel__(instance)
        self.kernel = ReductionKernel.from_address(_get_pointer(self.capsule, REDUCTION_KERNEL))

    def __call__(self, block: np.ndarray, pnl: np.ndarray | None) -> np.ndarray:
        result = np.full(block.shape[1], 123.0)
        failure = Failure()
        if self.kernel.run(
            self.kernel.state,
            block.ctypes.data_as(_Cells),
            *block.shape,
            None if pnl is None else pnl.ctypes.data_as(_Cells),
            result.ctypes.data_as(_Cells),
            ctypes.byref(failure),
        ):
            raise KernelFailure(failure)
        return result


def strips(rows: int, lengths: Iterator[int]) -> Iterator[slice]:
    """Consecutive parts of `rows` rows; the lengths are taken in turn."""
    start = 0
    while start < rows:
        stop = min(start + next(lengths), rows)
        yield slice(start, stop)
        start = stop
