"""`walk_forward`."""

from __future__ import annotations

from pathlib import Path

import pandas as pd
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench import parse_formula
from quernbrook.workbench.live import LiveError, walk_forward
from quernbrook.workbench.panels import (
    Panel,
    PanelError,
    load_checkpoint,
    save_checkpoint,
    synthetic_panel,
)

from .days import require_same_bits, whole_run

GRAPH = parse_formula("rank(longitudinal_mean(longitudinal_mean(close, 7), 5))")


@pytest.fixture
def panel() -> Panel:
    panel = synthetic_panel(6, 40)
    return panel.with_universe(panel.frame(panel.fields["volume"]) > 2e5)


@pytest.mark.parametrize("rows", [1, 3, 11, 40, 1000])
def test_windows_of_rows_have_the_bits_of_one_run(rows: int, panel: Panel) -> None:
    windows = list(walk_forward(GRAPH, panel, rows))
    assert [len(window.weights) for window in windows[:-1]] == [rows] * (len(windows) - 1)
    require_same_bits(pd.concat([w.weights for w in windows]), whole_run(GRAPH, panel))


def test_windows_that_end_on_dates(panel: Panel) -> None:
    # A Saturday, and a last window for the rows that are left.
    windows = list(walk_forward(GRAPH, panel, ["2015-01-10", "2015-01-30"]))
    assert [str(w.panel.dates[-1].date()) for w in windows] == [
        "2015-01-09",
        "2015-01-30",
        str(panel.dates[-1].date()),
    ]
    require_same_bits(pd.concat([w.weights for w in windows]), whole_run(GRAPH, panel))


def test_states_of_a_window_make_a_checkpoint(panel: Panel, tmp_path: Path) -> None:
    second = list(walk_forward(GRAPH, panel, 15))[1]
    save_checkpoint(tmp_path / "states", second.states, second.panel)
    found = load_checkpoint(tmp_path / "states")
    assert found.last_date == panel.dates[29] and found.symbols.equals(panel.symbols)
    rest = panel.after(found.last_date)
    result = evaluate(GRAPH, rest.context(default_registry()), found.states)
    require_same_bits(rest.frame(result), whole_run(GRAPH, panel).loc[rest.dates])


def test_a_window_is_run_when_it_is_asked_for(panel: Panel) -> None:
    windows = walk_forward(GRAPH, panel, 20)
    first = next(windows)
    panel.fields["close"][20:] = 1.0
    second = next(windows)
    require_same_bits(pd.concat([first.weights, second.weights]), whole_run(GRAPH, panel))


def test_no_rows_make_no_windows(panel: Panel) -> None:
    assert not list(walk_forward(GRAPH, panel.after(panel.dates[-1]), 5))


@pytest.mark.parametrize(
    ("windows", "told"),
    [
        (0, "a window has one row at least; got 0"),
        (["2015-01-30", "2015-01-30"], "the window that ends on 2015-01-30 00:00:00 has no rows"),
        (["2015-01-30", "2015-01-20"], "the window that ends on 2015-01-20 00:00:00 has no rows"),
        (["2014-01-30"], "the window that ends on 2014-01-30 00:00:00 has no rows"),
        (["2099-01-30", "2099-01-31"], "the window that ends on 2099-01-31 00:00:00 has no rows"),
    ],
)
def test_windows_that_make_no_sense(windows: int | list[str], told: str, panel: Panel) -> None:
    with pytest.raises(LiveError) as error:
        walk_forward(GRAPH, panel, windows)
    assert str(error.value) == told


def test_windows_that_end_on_no_date(panel: Panel) -> None:
    with pytest.raises(PanelError, match="'soon' is no date"):
        walk_forward(GRAPH, panel, ["soon"])
