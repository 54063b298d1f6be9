"""Ticks have the bits of one whole run."""

from __future__ import annotations

from pathlib import Path

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench import parse_formula
from quernbrook.workbench.alphas import published_graphs
from quernbrook.workbench.live import LiveRun, OutputFolder, read_weights
from quernbrook.workbench.panels import Panel, synthetic_panel

from .days import require_same_bits, whole_run

# Windows over windows, ranks, decays, correlations, sums; 19 looks back 250 days.
PUBLISHED = (3, 12, 19, 52, 66, 98)
ROLLING = (
    "longitudinal_mean(longitudinal_mean(close, 7), 5)",
    "longitudinal_std(delta(close, 3), 6) / decay_linear(volume, 4)",
    "ts_min(close, 8) + ts_argmax(volume, 5)",
)


@pytest.fixture(scope="module")
def panel() -> Panel:
    return synthetic_panel(9, 264, seed=21)


def go(graph: Node, panel: Panel, folder: Path, history: int, restart_every: int) -> None:
    """Warm up with the first rows, and begin again after a few ticks, as if the process had."""
    for start in range(history, len(panel.dates), restart_every):
        with OutputFolder(folder) as output:
            run = LiveRun(graph, output)
            if output.progress is None and history:
                run.warm_up(panel.until(panel.dates[history - 1]))
            for date in panel.dates[start : start + restart_every]:
                before = panel.dates[panel.dates < date]
                row = panel.until(date)
                run.tick(row.after(before[-1]) if len(before) else row)


@pytest.mark.parametrize("number", PUBLISHED)
def test_published_formulas(number: int, panel: Panel, tmp_path: Path) -> None:
    graph = published_graphs()[number]
    go(graph, panel, tmp_path, history=245, restart_every=5)
    require_same_bits(read_weights(tmp_path), whole_run(graph, panel).iloc[245:])


@pytest.mark.parametrize("formula", ROLLING)
@pytest.mark.parametrize("history", [0, 1, 6])
def test_rolling_functions_from_the_first_row(
    formula: str, history: int, panel: Panel, tmp_path: Path
) -> None:
    graph = parse_formula(formula, features=panel.fields)
    few = panel.until(panel.dates[29])
    go(graph, few, tmp_path, history, restart_every=4)
    require_same_bits(read_weights(tmp_path), whole_run(graph, few).iloc[history:])


def test_symbols_in_any_order(panel: Panel, tmp_path: Path) -> None:
    graph = parse_formula("ts_rank(close, 3)", features=panel.fields)
    few = panel.until(panel.dates[9])
    with OutputFolder(tmp_path) as output:
        run = LiveRun(graph, output)
        # The first row's order counts.
        closes = few.frame(few.fields["close"])
        for day in range(len(closes)):
            close = closes.iloc[day : day + 1]
            run.tick(Panel.from_frames({"close": close.sample(frac=1.0, axis=1, random_state=day)}))
    found = read_weights(tmp_path)
    assert list(found.columns) != list(few.symbols)
    require_same_bits(found[list(few.symbols)], whole_run(graph, few))
