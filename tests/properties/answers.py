"""Odd things that functions of random runs return instead of a row of doubles."""

from __future__ import annotations

import array
from collections.abc import Callable
from decimal import Decimal
from fractions import Fraction
from typing import Any

import numpy as np
from properties.actions import Action, Memory, Rows, total
from properties.build import Marked


class Liar(np.ndarray):
    """Says that it has another shape."""

    @property  # type: ignore[misc]
    def shape(self) -> Any:
        return (99,)


class Impostor(np.ndarray):
    """Says that it is of another dtype."""

    @property
    def dtype(self) -> Any:
        return "impostor"


class Convertible:
    def __init__(self, row: Any, host: Any, spot: str = "conversion") -> None:
        self.row, self.host, self.spot = row, host, spot

    def __array__(self, dtype: Any = None, copy: Any = None) -> Any:
        self.host.passes(self.spot)
        return np.array(self.row, dtype=dtype)


class Numeric:
    def __init__(self, host: Any) -> None:
        self.host = host

    def __float__(self) -> float:
        self.host.passes("conversion")
        return 2.25


class Failing:
    def __float__(self) -> float:
        raise ValueError("no number")


class Pretender:
    """An instance of ndarray only by its own word."""

    __class__ = np.ndarray  # type: ignore[assignment]
    shape = (2,)
    dtype = np.dtype(np.float64)


def of_row(answer: Callable[[np.ndarray], Any]) -> Action:
    """Makes an answer out of the sum of the rows, an array in any case."""

    def answer_row(rows: Rows, memory: Memory) -> Any:
        return answer(np.atleast_1d(np.asarray(total(rows, memory))))

    return answer_row


def misaligned(row: np.ndarray) -> np.ndarray:
    memory = np.zeros(row.nbytes + 1, dtype=np.uint8)
    result = memory[1:].view(np.float64)
    result[:] = row
    return result


def masked(row: np.ndarray) -> Any:
    mask = [True] + [False] * (row.size - 1)
    return np.ma.array(row, mask=mask)  # type: ignore[no-untyped-call]


def frozen(row: np.ndarray) -> np.ndarray:
    row.flags.writeable = False
    return row


#: Rows of doubles in another guise.
ROWS: dict[str, Action] = {
    "view": lambda rows, _: rows[-1][:] if rows else 1.5,
    "window": lambda rows, _: (
        np.lib.stride_tricks.as_strided(rows[0], rows[0].shape, (0,)) if rows else 1.5
    ),
    "strided": of_row(lambda row: np.repeat(row, 3)[::3]),
    "misaligned": of_row(misaligned),
    "frozen": of_row(frozen),
    "marked": of_row(lambda row: row.view(Marked)),
    "masked": of_row(masked),
    "last register": lambda rows, memory: (
        rows[0].base[-1] if rows and rows[0].base is not None else total(rows, memory)
    ),
    "tuple": of_row(lambda row: tuple(row.tolist())),
    "numbers": of_row(lambda row: list(row)),
    "texts": of_row(lambda row: [str(value) for value in row.tolist()]),
    "array": of_row(lambda row: array.array("d", row.tolist())),
    "memory view": of_row(lambda row: row.data),
    "convertible": lambda rows, memory: Convertible(total(rows, memory), memory.host),
    "range": of_row(lambda row: range(row.size)),
    "row of rows": of_row(lambda row: [row.tolist()]),
    "holes": of_row(lambda row: [None] * row.size),
    "fractions": of_row(lambda row: [Fraction(1, 3)] * row.size),
}

#: Single numbers.
NUMBERS: dict[str, Action] = {
    "int": lambda _, memory: memory.calls,
    "huge int": lambda *_: 2**70 + 1,
    "float32": lambda *_: np.float32(0.1),
    "float16": lambda *_: np.float16(0.1),
    "long double": lambda *_: np.longdouble(0.1),
    "bool": lambda *_: np.bool_(True),
    "text number": lambda *_: "2.5",
    "bytes number": lambda *_: b"2.5",
    "nothing": lambda *_: None,
    "numeric": lambda _, memory: Numeric(memory.host),
    "decimal": lambda *_: Decimal("0.1"),
    "double": of_row(lambda row: row[-1]),
}

#: What cannot be stored.
FAULTY: dict[str, Action] = {
    "wrong shape": lambda *_: np.zeros((2, 5)),
    "scalar array": lambda *_: np.array(1.0),
    "one cell": lambda *_: np.ones(1),
    "too long": of_row(lambda row: np.append(row, 1.0)),
    "column": of_row(lambda row: row[:, None]),
    "wrong dtype": of_row(lambda row: row.astype(np.float32)),
    "byte order": of_row(lambda row: row.astype(">f8")),
    "int row": of_row(lambda row: np.arange(row.size)),
    "objects": of_row(lambda row: row.astype(object)),
    "words": of_row(lambda row: np.full(row.size, "word")),
    "dates": of_row(lambda row: np.full(row.size, np.datetime64("2020-01-01"))),
    "complex row": of_row(lambda row: row + 0j),
    "long doubles": of_row(lambda row: row.astype(np.longdouble)),
    "structure": of_row(lambda row: np.zeros(row.size, dtype=[("x", "f8")])),
    "wrong list": lambda *_: [1.0] * 7,
    "ragged": lambda *_: [[1.0], [1.0, 2.0]],
    "no number": lambda *_: {},
    "set": lambda *_: {1.0},
    "text": lambda *_: "abc",
    "complex": lambda *_: 1 + 2j,
    "infinite int": lambda *_: 10**400,
    "iterator": lambda *_: iter([1.0, 2.0]),
    "failing": lambda *_: Failing(),
    "liar": of_row(lambda row: row.view(Liar)),
    "impostor": of_row(lambda row: row.view(Impostor)),
    "pretender": lambda *_: Pretender(),
    "missing": lambda *_: NotImplemented,
}
