"""How the transcribed formulas are kept."""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
from workbench.pandas_formulas.operations import Frame, Market

Formula = Callable[[Market], Frame]

FORMULAS: dict[int, Formula] = {}


def formula(number: int, *, first: int = 0) -> Callable[[Formula], Formula]:
    """Register a formula whose values begin in row `first`.

    A choice by condition, a minimum or a maximum may have a value where its other side has none
    yet. The evaluator gives no row before the longest chain of windows is full.
    """

    def registered(compute: Formula) -> Formula:
        def blanked(m: Market) -> Frame:
            result = compute(m)
            result.iloc[:first] = np.nan
            return result

        FORMULAS[number] = blanked
        return compute

    return registered
