"""Which values hang on the last bits.

The last bits are every program's own. Where they decide, as about the order of two sums that are
equal on paper, no program is right. Such cells show when a formula is computed again with noise in
the last bits of whatever isn't exact.
"""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import numpy as np
from numpy.typing import NDArray

Mask = NDArray[np.bool_]
Values = NDArray[np.float64]  # (dates, symbols)
Extended = NDArray[np.longdouble]  # the same, or with the days of a window, the newest last

_NOISE = 1e-14
# Noise everywhere also breaks ties that every program keeps, those of equal windows: by turns it
# meets all cells, some and few.
_SHARES = (1.0, 0.3, 0.1)

_noise: np.random.Generator | None = None
_share = 1.0


@contextmanager
def noise_in_last_bits(seed: int) -> Iterator[None]:
    global _noise, _share
    _noise, _share = np.random.default_rng(seed), _SHARES[seed % len(_SHARES)]
    try:
        yield
    finally:
        _noise = None


def rounded(exact: Extended, scale: Extended, *, is_exact: Mask | bool = False) -> Values:
    """To float64, with noise relative to `scale` where not every program is exact."""
    result = exact.astype(np.float64)
    if _noise is None:
        return result
    noise = _noise.uniform(-_NOISE, _NOISE, result.shape) * scale.astype(np.float64)
    is_kept = is_exact | (_noise.random(result.shape) >= _share)
    return np.where(is_kept, result, result + noise)


def added(exact: Extended, scale: Extended) -> Values:
    """A sum or a mean of the size `scale`, which every program gives if it needs no rounding."""
    return rounded(exact, scale, is_exact=exact.astype(np.float64) == exact)
