"""Days on disk, and what a whole run makes of them."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pandas as pd
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.panels import Panel


def day_table(panel: Panel, row: int) -> pd.DataFrame:
    columns = {name: values[row] for name, values in panel.fields.items()}
    return pd.DataFrame(columns, index=pd.Index(panel.symbols, name="symbol"))


def write_days(panel: Panel, folder: Path, suffix: str = "parquet") -> None:
    folder.mkdir(exist_ok=True)
    for row, date in enumerate(panel.dates):
        write_day(day_table(panel, row), folder / f"{date.date()}.{suffix}")


def write_day(table: pd.DataFrame, path: Path) -> None:
    unfinished = path.with_name(f".{path.name}")
    if path.suffix == ".parquet":
        table.to_parquet(unfinished)
    else:
        table.to_csv(unfinished)  # compressed where the name ends in .gz
    unfinished.replace(path)


def whole_run(graph: Node, panel: Panel) -> pd.DataFrame:
    return panel.frame(evaluate(graph, panel.context(default_registry())))


def require_same_bits(found: pd.DataFrame, expected: pd.DataFrame) -> None:
    assert list(found.index) == list(expected.index)
    assert list(found.columns) == list(expected.columns)
    ours, its = (np.ascontiguousarray(frame.to_numpy()) for frame in (found, expected))
    # NaN has a sign and a payload, which checkpoints don't keep.
    assert np.array_equal(np.isnan(ours), np.isnan(its))
    is_number = ~np.isnan(ours)
    assert ours[is_number].tobytes() == its[is_number].tobytes()
