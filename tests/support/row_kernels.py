"""The C structures through which kernels are offered, for kernels that are written in Python.

Such a kernel is a ctypes callback: it takes the interpreter's lock again when it is called.
"""

from __future__ import annotations

import ctypes
from typing import Any

import numpy as np

ROW_KERNEL = b"quernbrook.row_kernel.1"
REDUCTION_KERNEL = b"quernbrook.reduction_kernel.1"
STATELESS = 1
KINDS = {
    ValueError: 1,
    TypeError: 2,
    ZeroDivisionError: 3,
    OverflowError: 4,
    FloatingPointError: 5,
    MemoryError: 6,
    RuntimeError: 7,
}

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


def block_at(rows: Rows, row_count: int, column_count: int) -> np.ndarray:
    """The rows of an argument as an array over their own memory."""
    address = ctypes.cast(rows.first, ctypes.c_void_p).value
    size = max(abs(rows.stride) * (row_count - 1) + column_count, 1)
    low = (address or 0) + min(rows.stride * (row_count - 1), 0) * 8
    memory = (ctypes.c_double * size).from_address(low)
    start = (address or 0) - low
    return np.ndarray((row_count, column_count), np.float64, memory, start, (rows.stride * 8, 8))
