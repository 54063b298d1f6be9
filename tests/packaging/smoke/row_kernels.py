"""What the row kernels must do on any platform, as they are installed."""

from __future__ import annotations

import pickle
import sys

import numpy as np
from quernbrook import row_kernels
from quernbrook.row_kernels import FUNCTIONS

assert row_kernels.__file__.startswith(sys.prefix), row_kernels.__file__

random = np.random.default_rng(0)
for size in (1, 7, 40, 1000):
    row = random.normal(size=size)
    sorted_places = np.argsort(np.argsort(row))
    ranks = sorted_places / (size - 1) if size > 1 else [0.5]
    np.testing.assert_array_equal(FUNCTIONS["latitudinal_rank"]()(row), ranks)
    demeaned = FUNCTIONS["latitudinal_demean"]()(row)
    np.testing.assert_allclose(demeaned, row - row.mean(), rtol=0, atol=1e-15)
    logarithms = FUNCTIONS["numerical_logarithm"]()(np.abs(row))
    np.testing.assert_allclose(logarithms, np.log(np.abs(row)), rtol=1e-15)

rows = random.normal(size=(50, 9))
correlation = FUNCTIONS["longitudinal_correlation"](window=20)
for left, right in zip(rows, rows[::-1], strict=True):
    newest = correlation(left, right)
expected = [np.corrcoef(rows[30:, i], rows[19::-1, i])[0, 1] for i in range(9)]
np.testing.assert_allclose(newest, expected, rtol=1e-12)
copy = pickle.loads(pickle.dumps(correlation))
np.testing.assert_array_equal(copy(rows[0], rows[1]), correlation(rows[0], rows[1]))

for window, kind in ((0, ValueError), ("a", TypeError)):
    try:
        FUNCTIONS["longitudinal_mean"](window=window)
    except kind:
        continue
    raise AssertionError(f"a window of {window!r} was accepted")
print(f"{len(FUNCTIONS)} row kernels do their work with NumPy", np.__version__)
