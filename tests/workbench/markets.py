"""Panels on which the formulas are tested."""

from __future__ import annotations

import numpy as np
from quernbrook.workbench.panels import Panel, synthetic_panel

# Enough for the longest chain of windows.
DAYS = 320


def rough_market() -> Panel:
    """Gaps, halts and late listings; equal prices from day to day, but not between shares."""
    panel = synthetic_panel(20, DAYS, seed=1)
    factors = np.random.default_rng(2).uniform(0.9, 1.1, 20)
    for name in ("open", "high", "low", "close", "vwap", "cap"):
        panel.fields[name][:] *= factors
    return panel


def even_market() -> Panel:
    """Equal prices, within a share and between shares, and nothing that is missing.

    Prices are multiples of an eighth, groups have a power of two members, and ranks of 17 shares
    are sixteenths: sums and means of them are exact, so that what is equal on paper is equal in
    every program.
    """
    panel = synthetic_panel(17, DAYS, seed=3, gaps=False, late_listings=False)
    for name in ("open", "high", "low", "close", "vwap"):
        values = panel.fields[name]
        values[:] = np.maximum(np.round(values / np.nanmean(values, axis=0) * 80.0) / 8.0, 1.0)
    for name, size in (("sector", 8), ("industry", 4), ("subindustry", 2)):
        panel.fields[name][:] = np.arange(17) // size
    panel.fields["cap"][:] = panel.fields["close"] * 2.0**20
    return panel
