"""Matrices of every dtype, layout and content; the cells of a case come out of one draw."""

from __future__ import annotations

from collections.abc import Sequence
from math import inf, nan

from hypothesis import strategies as st
from properties.cases import Cell, MatrixCase
from properties.tables import table

INTEGERS = tuple(float(number) for number in (*range(10), *range(-9, 0)))
FRACTIONS = (0.5, -0.25, 0.1, 1 / 3, -2 / 3, 1e-9, 123456.789, -98765.4321)
ODD = (nan, -0.0, inf, -inf, 5e-324, -5e-324, 2.2250738585072014e-308, 1.7e308, -1.7e308)
#: NaNs of a sign and payloads of their own, one of them signalling.
PAYLOADS = ("fff8000000000000", "7ff800000000beef", "7ff0000000000001")
CLOSE = (1.0000000000000002, 0.9999999999999999, 9007199254740992.0, 9007199254740994.0)

CELLS: tuple[Cell, ...] = (*INTEGERS, *FRACTIONS, nan, *ODD, *PAYLOADS, *CLOSE)
CELLS_DRAWN = 40
DRAWS = st.binary(min_size=CELLS_DRAWN, max_size=CELLS_DRAWN)

LAYOUTS = (
    *("C",) * 6,
    *("F", "reversed", "strided", "repeated", "misaligned", "subclass", "read-only"),
)
DTYPES = ("float64",) * 12 + ("float32", ">f8", "int64", "bool", "longdouble", "object", "uint8")
FORMS = table(DTYPES, LAYOUTS)
PLAIN = st.just(("float64", "C"))


class Cells:
    """The cells of all matrices of a case, out of one draw."""

    def __init__(self, drawn: bytes, values: Sequence[Cell]) -> None:
        self.drawn, self.values = drawn, values
        self.taken = 0

    def take(self) -> Cell:
        # The second time round, other values fall to the same bytes.
        turn, place = divmod(self.taken, len(self.drawn))
        self.taken += 1
        byte = self.drawn[place]
        return self.values[(byte + (7 * turn if byte else 0)) % len(self.values)]

    def matrix(
        self,
        shape: tuple[int, int],
        form: tuple[str, str],
        tiles: tuple[int, int] = (1, 1),
        drift: float = 0.0,
    ) -> MatrixCase:
        rows, columns = shape
        drawn = tuple(tuple(self.take() for _ in range(columns)) for _ in range(rows))
        return MatrixCase(drawn, *form, None if rows else columns, tiles, drift)

    def row(self, columns: int) -> MatrixCase:
        return self.matrix((1, columns), ("float64", "C"))
