"""Random matrices of every layout and dtype, poor in distinct values and rich in odd ones."""

from __future__ import annotations

from typing import Any

import numpy as np
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st

# The evaluator fixture is one module for all examples.
examples = settings(
    deadline=None,
    max_examples=150,
    suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow],
)

PAYLOAD = np.array([0x7FF800000000BEEF, 0xFFF8000000000001], dtype=np.uint64).view(np.float64)
LARGEST, SMALLEST, NORMAL = 1.7976931348623157e308, 5e-324, 2.2250738585072014e-308

ODD_CELLS: list[float] = [
    *(0.0, -0.0, np.inf, -np.inf, np.nan, *PAYLOAD.tolist()),
    *(SMALLEST, -SMALLEST, NORMAL, -NORMAL, LARGEST, -LARGEST, 1e308, 1e-308),
    *(1.0, -1.0, 2.0, np.nextafter(1.0, 2.0), np.nextafter(1.0, 0.0), 2.0**53, 2.0**53 + 2.0),
]
PLAIN_CELLS = st.floats(-100.0, 100.0) | st.integers(-4, 4).map(float)
CELLS = st.sampled_from(ODD_CELLS) | PLAIN_CELLS | st.floats()

UNIVERSE_CELLS = st.sampled_from([1.0, 1.0, 1.0, 0.0, -0.0, np.nan, -1.0, np.inf, 0.5, SMALLEST])


@st.composite
def matrices(
    draw: st.DrawFn, shape: tuple[int, int] | None = None, cells: st.SearchStrategy = CELLS
) -> np.ndarray:
    """A C-contiguous float64 matrix; each draws its cells from a few values or from all."""
    rows, columns = (
        draw(st.tuples(st.integers(0, 9), st.integers(0, 7))) if shape is None else shape
    )
    few = draw(st.lists(cells, min_size=1, max_size=4))
    chosen = draw(st.sampled_from([cells, st.sampled_from(few) | cells]))
    drawn = draw(st.lists(chosen, min_size=rows * columns, max_size=rows * columns))
    return np.array(drawn, dtype=np.float64).reshape(rows, columns)


@st.composite
def permuted_rows(draw: st.DrawFn) -> np.ndarray:
    """Rows of distinct finite cells, with holes and infinities: ranks that don't decline."""
    rows, columns = draw(st.tuples(st.integers(0, 8), st.integers(0, 9)))
    built = np.empty((rows, columns))
    for t in range(rows):
        numbers = draw(
            st.lists(st.floats(allow_nan=False), min_size=columns, max_size=columns, unique=True)
        )
        holes = draw(
            st.lists(
                st.sampled_from([None, None, np.nan, np.inf, -np.inf]),
                min_size=columns,
                max_size=columns,
            )
        )
        built[t] = [n if h is None else h for n, h in zip(numbers, holes, strict=True)]
    return built


def universes(shape: tuple[int, int]) -> st.SearchStrategy:
    return st.none() | matrices(shape, UNIVERSE_CELLS)


def layouts(matrix: np.ndarray) -> dict[str, np.ndarray]:
    """The same numbers, laid out otherwise."""
    rows, columns = matrix.shape
    wide = np.full((rows * 2, columns * 3), -7.0)
    wide[::2, ::3] = matrix
    read_only = matrix.copy()
    read_only.flags.writeable = False
    padded = np.zeros(matrix.nbytes + 1, dtype=np.uint8)
    unaligned = padded[1:].view(np.float64).reshape(matrix.shape)
    unaligned[...] = matrix
    return {
        "plain": matrix,
        "fortran": np.asfortranarray(matrix),
        "strided": wide[::2, ::3],
        "reversed": matrix[::-1, ::-1].copy()[::-1, ::-1],
        "transposed": matrix.T.copy().T,
        "big-endian": matrix.astype(">f8"),
        "unaligned": unaligned,
        "read-only": read_only,
        "object": matrix.astype(object),
        "longdouble": matrix.astype(np.longdouble),
    }


NARROW_DTYPES: list[Any] = [np.float32, np.float16, np.int8, np.int64, np.uint64, bool]


def narrowed(matrix: np.ndarray, dtype: Any) -> np.ndarray:
    """The numbers of the matrix that `dtype` can hold, 3 for the others."""
    limited = np.where(np.isfinite(matrix) & (np.abs(matrix) < 100.0), matrix, 3.0)
    return np.abs(limited).astype(dtype) if dtype is np.uint64 else limited.astype(dtype)
