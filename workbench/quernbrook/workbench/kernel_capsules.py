"""The capsules in which functions offer kernels, as `quernbrook/row_kernel.h` lays them out."""

from __future__ import annotations

import ctypes
from typing import Any

# The special method that offers a capsule, and the capsule's name.
ROW_KERNEL = ("__quernbrook_row_kernel__", b"quernbrook.row_kernel.1")
REDUCTION_KERNEL = ("__quernbrook_reduction_kernel__", b"quernbrook.reduction_kernel.1")
STATELESS = 1


class Kernel(ctypes.Structure):
    """The fields of both kinds of kernels; a structure may be longer."""

    _fields_ = [
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        ("run", ctypes.c_void_p),
    ]


_name_of = ctypes.pythonapi.PyCapsule_GetName
_name_of.argtypes, _name_of.restype = [ctypes.py_object], ctypes.c_char_p
_pointer_of = ctypes.pythonapi.PyCapsule_GetPointer
_pointer_of.argtypes = [ctypes.py_object, ctypes.c_char_p]
_pointer_of.restype = ctypes.c_void_p


def is_capsule(offered: Any) -> bool:
    return type(offered).__name__ == "PyCapsule"


def capsule_name(capsule: Any) -> bytes:
    return _name_of(capsule) or b""


def kernel_at(capsule: Any, name: bytes) -> Kernel:
    """The structure where it lies: only as long as the capsule."""
    return Kernel.from_address(_pointer_of(capsule, name))
