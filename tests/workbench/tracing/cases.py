"""Random graphs and rough data that all tracing tools are tried on."""

from __future__ import annotations

from typing import Any

import numpy as np
import pandas as pd
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, number, rotation
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench.panels import Panel

NAMES = ("open", "close", "volume")
ROWS, COLUMNS = 40, 5

_leaves = st.sampled_from(NAMES).map(feature)
_cellwise = st.sampled_from(
    ["numerical_add", "numerical_subtract", "numerical_multiply", "numerical_divide"]
)
_across = st.sampled_from(["latitudinal_rank", "latitudinal_zscore", "numerical_negate"])
_along = st.sampled_from(
    ["longitudinal_mean", "longitudinal_delta", "longitudinal_delay", "longitudinal_std"]
)


def _over(below: st.SearchStrategy[Node]) -> st.SearchStrategy[Node]:
    return st.one_of(
        st.builds(rotation, _cellwise, below, below | st.just(number(2.0))),
        st.builds(rotation, _across, below),
        st.builds(rotation, _along, below, st.integers(1, 6)),
    )


graphs = st.recursive(_leaves, _over, max_leaves=5)


def panel(seed: int = 5) -> Panel:
    """Prices with gaps, zeros and an infinity."""
    rng = np.random.default_rng(seed)
    fields = {name: np.round(rng.normal(100.0, 5.0, (ROWS, COLUMNS)), 1) for name in NAMES}
    fields["close"][10:13, 2] = np.nan
    fields["open"][20, 1] = np.inf
    fields["volume"][5, :] = 0.0
    dates = pd.bdate_range("2020-01-01", periods=ROWS)
    return Panel(dates, pd.Index([f"S{place}" for place in range(COLUMNS)]), fields)


def context(compiled: bool | None = None, **options: Any) -> EvaluationContext:
    fields = panel().fields
    index = {name: place for place, name in enumerate(fields)}
    registry = default_registry(compiled=compiled)
    return EvaluationContext(tuple(fields.values()), index, registry=registry, **options)
