"""A run as a report tells of it: what was evaluated, over what, and what came of it."""

from __future__ import annotations

from dataclasses import dataclass

import pandas as pd
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.seeing.causes import Causes


@dataclass(frozen=True)
class EvaluatedRun:
    """A graph that ran over a panel.

    weights: of the panel's shape. causes: of their NaN, a `Cause` a cell. seconds: of the
    evaluation alone. warmup_rows: how many rows it blanked. universe: the panel's field of the
    universe, None without one. returns: of the symbols, None where the panel has no returns.
    """

    graph: Node
    panel: Panel
    weights: pd.DataFrame
    causes: Causes
    seconds: float
    warmup_rows: int
    universe: str | None
    returns: pd.DataFrame | None
