"""Plain Python functions as machine code that the evaluator runs in strips of rows.

The C structures are those of the evaluator's header ``quernbrook/row_kernel.h``.
"""

from __future__ import annotations

import ctypes
import inspect
from collections.abc import Callable, Sequence
from typing import Any, overload

import numpy as np
from quernbrook.reference_host.arrays import Row
from quernbrook.reference_host.entries import FunctionEntry

_CAPSULE_NAME = b"quernbrook.row_kernel.1"
_STATELESS = 1
_ERRORS: dict[int, type[Exception]] = {2: TypeError, 7: RuntimeError}


class _Rows(ctypes.Structure):
    _fields_ = [("first", ctypes.c_void_p), ("stride", ctypes.c_ssize_t)]


class _Failure(ctypes.Structure):
    _fields_ = [("row", ctypes.c_ssize_t), ("kind", ctypes.c_int32), ("text", ctypes.c_char * 256)]


_Run = ctypes.CFUNCTYPE(
    ctypes.c_int,
    ctypes.c_void_p,
    ctypes.POINTER(_Rows),
    ctypes.c_size_t,
    ctypes.c_ssize_t,
    ctypes.c_ssize_t,
    ctypes.c_void_p,
    ctypes.POINTER(_Failure),
)


class _Kernel(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("flags", ctypes.c_uint64),
        ("state", ctypes.c_void_p),
        ("run", _Run),
    ]


_new_capsule = ctypes.pythonapi.PyCapsule_New
_new_capsule.restype = ctypes.py_object
_new_capsule.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]

# What a capsule points to has to outlive it, and nobody knows who keeps one.
_handed_out: list[Any] = []


class CompiledRotation:
    """A stateless rotation in machine code. Calls with one row run the same code."""

    stateful = False

    def __init__(self, name: str, arity: int, code: Any) -> None:
        """`code` keeps the machine code; its `address` is that of the kernel."""
        self.name = name
        self.arity = arity
        self._run = _Run(code.address)
        self._structure = _Kernel(ctypes.sizeof(_Kernel), _STATELESS, None, self._run)
        self._capsule = _new_capsule(ctypes.addressof(self._structure), _CAPSULE_NAME, None)
        _handed_out.append((self._structure, code))

    def __quernbrook_row_kernel__(self) -> Any:
        return self._capsule

    def __call__(self, *rows: Row, context: Any = None) -> Row:
        """Raises TypeError for another number of rows than `arity`, ValueError for rows that aren't
        vectors of one length, and RuntimeError where the function raises; the text doesn't say
        what it raised, for compiled code doesn't know."""
        kept = [np.ascontiguousarray(row, dtype=np.float64) for row in rows]
        columns = kept[0].size if kept else 0
        # Compiled code reads that many cells from each.
        if any(row.shape != (columns,) for row in kept):
            shapes = ", ".join(str(row.shape) for row in kept)
            raise ValueError(f"{self.name} takes vectors of one length; got the shapes {shapes}")
        arguments = (_Rows * len(rows))(*[_Rows(row.ctypes.data, 0) for row in kept])
        result: Row = np.empty(columns)
        failure = _Failure()
        if self._run(None, arguments, len(rows), 1, columns, result.ctypes.data, failure) != 0:
            raise _ERRORS[failure.kind](failure.text.decode())
        return result


@overload
def row_kernel(function: Callable[..., Any], /) -> FunctionEntry: ...
@overload
def row_kernel(*, over_rows: bool = False) -> Callable[[Callable[..., Any]], FunctionEntry]: ...
def row_kernel(function: Callable[..., Any] | None = None, /, *, over_rows: bool = False) -> Any:
    """Compile a plain function to a rotation, and return its entry for a registry.

    The function takes one number (float64) for each input and returns one: a cell of the result
    depends on the cells above it alone. With `over_rows` it takes float64 vectors of N_alloc,
    which it must not write to, and returns a new one, or one number for all cells. It is compiled
    at once by Numba, in its nopython mode; division follows IEEE 754.

    Raises ModuleNotFoundError without Numba, and TypeError for a function without inputs or with
    others than plain positional ones, and for one that Numba can't compile.
    """
    if function is None:
        return lambda later: _compiled_entry(later, over_rows)
    return _compiled_entry(function, over_rows)


def _compiled_entry(function: Callable[..., Any], over_rows: bool) -> FunctionEntry:
    name = getattr(function, "__name__", type(function).__name__)
    arity = len(_inputs(function, name))
    try:
        from quernbrook.reference_host import numba_compiler
    except ModuleNotFoundError as error:
        if error.name != "numba":
            raise
        raise ModuleNotFoundError(
            f"row_kernel needs Numba to compile '{name}': "
            "pip install 'quernbrook-reference-host[numba]'",
            name="numba",
        ) from None
    code = numba_compiler.compiled(function, name, arity, over_rows)
    rotation = CompiledRotation(name, arity, code)
    return FunctionEntry(name, "compiled", build=lambda: rotation)


def _inputs(function: Callable[..., Any], name: str) -> Sequence[str]:
    if not inspect.isfunction(function):
        raise TypeError(f"row_kernel compiles plain functions; got {type(function).__name__}")
    parameters = inspect.signature(function).parameters.values()
    plain = (inspect.Parameter.POSITIONAL_ONLY, inspect.Parameter.POSITIONAL_OR_KEYWORD)
    for parameter in parameters:
        if parameter.kind not in plain or parameter.default is not inspect.Parameter.empty:
            raise TypeError(
                f"row_kernel can't compile '{name}': '{parameter}' is no plain input; "
                "inputs are positional and have no defaults"
            )
    if not parameters:
        raise TypeError(f"row_kernel can't compile '{name}': it has no inputs")
    return [parameter.name for parameter in parameters]
