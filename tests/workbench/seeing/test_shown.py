"""What of large tables is shown, and where scales of colours end."""

from __future__ import annotations

import math

import numpy as np
import pandas as pd
import pytest
from quernbrook.workbench.panels.panel import Matrix
from quernbrook.workbench.seeing.shown import Scale, scale_of, thinned


def table(rows: int, columns: int = 2) -> pd.DataFrame:
    return pd.DataFrame(np.arange(rows * columns).reshape(rows, columns))


def test_all_of_a_small_table() -> None:
    whole = table(5)
    shown = thinned(whole, 5, 2)
    assert shown.note == "" and shown.frame is whole


@pytest.mark.parametrize(
    ("rows", "limit", "index", "note"),
    [
        (6, 5, [1, 3, 5], "shows every 2nd of 6 days"),
        (10, 4, [0, 3, 6, 9], "shows every 3rd of 10 days"),
        (8_313, 500, [8_312], "shows every 17th of 8,313 days"),
        (111, 10, [110], "shows every 12th of 111 days"),
        (21, 1, [20], "shows every 21st of 21 days"),
    ],
)
def test_every_kth_day_with_the_last(rows: int, limit: int, index: list[int], note: str) -> None:
    shown = thinned(table(rows), limit)
    assert shown.note == note and len(shown.frame) <= limit
    assert list(shown.frame.index)[-len(index) :] == index


def test_every_kth_symbol() -> None:
    shown = thinned(table(6, 30), 5, 10)
    assert shown.note == "shows every 2nd of 6 days and every 3rd of 30 symbols"
    assert list(shown.frame) == list(range(0, 30, 3))


@pytest.mark.parametrize(
    ("values", "expected"),
    [
        ([], Scale(-1.0, 1.0, True, False)),
        ([math.nan, math.inf], Scale(-1.0, 1.0, True, False)),
        ([0.0, 0.0], Scale(-1.0, 1.0, True, False)),
        ([2.0, 2.0, math.nan], Scale(0.0, 2.0, False, False)),
        ([-2.0], Scale(-2.0, 0.0, False, False)),
        ([-1.0, 1.0, -1.0], Scale(-1.0, 1.0, True, False)),
        ([*[0.0] * 500, -3.0, 1.0], Scale(-3.0, 3.0, True, False)),
        ([*[-1.0, 1.0] * 500, 50.0], Scale(-1.0, 1.0, True, True)),
        ([*[0.0, 1.0] * 500, 50.0], Scale(0.0, 1.0, False, True)),
    ],
)
def test_scale(values: list[float], expected: Scale) -> None:
    cells: Matrix = np.array([values], dtype=np.float64)
    assert scale_of(cells) == expected
