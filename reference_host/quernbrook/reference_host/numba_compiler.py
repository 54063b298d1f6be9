"""Kernels out of plain functions, by Numba. Imported only when something is to be compiled."""

from __future__ import annotations

import importlib
from collections.abc import Callable
from typing import Any

import numpy as np

# Its decorators have no types that a checker could use.
numba: Any = importlib.import_module("numba")
_extending: Any = importlib.import_module("numba.extending")
_types: Any = numba.types

_TYPE_ERROR, _RUNTIME_ERROR = 2, 7
_FAILURE = np.dtype([("row", np.intp), ("kind", np.int32), ("text", np.uint8, (256,))], align=True)
_POINTER = _types.CPointer(_types.float64)
_ROW = _types.Array(_types.float64, 1, "C", readonly=True)
_SIGNATURE = _types.intc(
    _types.voidptr,
    _types.CPointer(_types.intp),  # pairs of address and stride
    _types.uintp,
    _types.intp,
    _types.intp,
    _POINTER,
    _types.voidptr,
)
_OPTIONS = {"error_model": "numpy"}


def compiled(function: Callable[..., Any], name: str, arity: int, over_rows: bool) -> Any:
    """The kernel as Numba's cfunc. Raises TypeError where Numba can't compile it."""
    step = numba.njit(function, **_OPTIONS)
    fill = _fill_from_rows(step, arity) if over_rows else _fill_cell_by_cell(step, arity)
    try:
        return numba.cfunc(_SIGNATURE, **_OPTIONS)(_kernel(fill, name, arity))
    except numba.core.errors.NumbaError as error:
        raise TypeError(f"row_kernel can't compile '{name}': {error}") from error


def _kernel(fill: Any, name: str, arity: int) -> Any:
    row_pointers, fail = _row_pointers(arity), _failing()
    wrong_count, raised = (
        _text(f"{name} takes {arity} input(s)"),
        _text(f"{name} raised an exception"),
    )

    def kernel(
        state: Any,
        arguments: Any,
        argument_count: Any,
        row_count: Any,
        column_count: Any,
        result: Any,
        failure: Any,
    ) -> Any:
        if argument_count != arity:
            return fail(failure, 0, _TYPE_ERROR, wrong_count)
        cells = numba.carray(result, (row_count, column_count))
        for row in range(row_count):
            try:
                fill(cells[row], row_pointers(arguments, row))
            except Exception:  # noqa: BLE001 - compiled code knows no others
                return fail(failure, row, _RUNTIME_ERROR, raised)
        return 0

    return kernel


def _fill_cell_by_cell(step: Any, arity: int) -> Any:
    cells_at = _cells_at(arity)

    def fill(cells: Any, pointers: Any) -> None:
        for column in range(cells.size):
            cells[column] = step(*cells_at(pointers, column))

    return numba.njit(fill, **_OPTIONS)


def _fill_from_rows(step: Any, arity: int) -> Any:
    arrays_at = _arrays_at(arity)

    def fill(cells: Any, pointers: Any) -> None:
        cells[:] = step(*arrays_at(pointers, cells.size))

    return numba.njit(fill, **_OPTIONS)


def _text(text: str) -> Any:
    return np.frombuffer(text.encode()[:255], dtype=np.uint8)


def _failing() -> Any:
    def fail(failure: Any, row: Any, kind: Any, text: Any) -> Any:
        told = numba.carray(failure, 1, _FAILURE)[0]
        told.row = row
        told.kind = kind
        for place in range(text.size):
            told.text[place] = text[place]
        return 1

    return numba.njit(fail)


# --- what Numba itself has no words for ----------------------------------------------------------


def _row_pointers(arity: int) -> Any:
    """The addresses of the arguments' cells in a row."""

    def row_pointers(_: Any, arguments: Any, row: Any) -> Any:
        def generate(context: Any, builder: Any, signature: Any, values: Any) -> Any:
            pairs, number = values
            cell = context.get_value_type(_POINTER)
            size = number.type
            found = []
            for place in range(arity):
                first = builder.load(builder.gep(pairs, [size(2 * place)]))
                stride = builder.load(builder.gep(pairs, [size(2 * place + 1)]))
                start = builder.inttoptr(first, cell)
                found.append(builder.gep(start, [builder.mul(number, stride)]))
            return context.make_tuple(builder, signature.return_type, found)

        pointers = _types.UniTuple(_POINTER, arity)
        return pointers(_types.CPointer(_types.intp), _types.intp), generate

    return _extending.intrinsic(row_pointers)


def _cells_at(arity: int) -> Any:
    """The cells of a column."""

    def cells_at(_: Any, pointers: Any, column: Any) -> Any:
        def generate(context: Any, builder: Any, signature: Any, values: Any) -> Any:
            starts, place = values
            found = [
                builder.load(builder.gep(builder.extract_value(starts, number), [place]))
                for number in range(arity)
            ]
            return context.make_tuple(builder, signature.return_type, found)

        return _types.UniTuple(_types.float64, arity)(pointers, _types.intp), generate

    return _extending.intrinsic(cells_at)


def _arrays_at(arity: int) -> Any:
    """The rows as arrays that can only be read."""

    def arrays_at(_: Any, pointers: Any, columns: Any) -> Any:
        def generate(context: Any, builder: Any, signature: Any, values: Any) -> Any:
            starts, count = values
            view = _types.Array(_types.float64, 1, "C")(_POINTER, _types.intp)
            found = [
                context.compile_internal(
                    builder,
                    lambda pointer, size: numba.carray(pointer, size),
                    view,
                    [builder.extract_value(starts, number), count],
                )
                for number in range(arity)
            ]
            return context.make_tuple(builder, signature.return_type, found)

        return _types.UniTuple(_ROW, arity)(pointers, _types.intp), generate

    return _extending.intrinsic(arrays_at)
