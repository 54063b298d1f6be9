"""Why a cell has its value."""

from __future__ import annotations

import json
import math
from pathlib import Path

import numpy as np
import pandas as pd
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.graphs import feature, reduction, rotation, signal
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.tracing import Mark, TraceError, why
from quernbrook.workbench.tracing.cause_text import document
from quernbrook.workbench.tracing.columns import jumps

from . import cases
from .conftest import Program


@settings(max_examples=40, deadline=None)
@given(
    graph=cases.graphs,
    row=st.integers(0, cases.ROWS - 1),
    column=st.integers(0, cases.COLUMNS - 1),
)
def test_values_are_those_of_the_node_outputs(graph: Node, row: int, column: int) -> None:
    watched = cases.context()
    watched._collect_node_outputs = True
    result = evaluate(graph, watched)
    found = why(graph, cases.context(), row, column)
    values = {cause.path: cause.value for cause in found.root.walk()}
    if result.node_outputs:
        assert values.keys() == result.node_outputs.keys()
        for path, value in values.items():
            np.testing.assert_equal(value, result.node_outputs[path][row, column])
    np.testing.assert_equal(found.weight, result.weights[row, column])
    for cause in found.root.walk():
        is_marked = {mark.kind for mark in cause.marks} & {"nan", "infinity"}
        assert bool(is_marked) == (not math.isfinite(cause.value))


def test_a_nan_is_followed_through_a_window_to_the_data() -> None:
    panel = cases.panel()
    date = panel.dates[15].date().isoformat()
    found = why(parse_formula("-stddev(close, 5)"), panel, date, "S2")
    last = panel.dates[12].date().isoformat()
    held = next(cause for cause in found.root.walk() if cause.window is not None)
    assert held.marks == (Mark("nan", ((f"{held.path}.c0", last),)),)
    assert held.window is not None
    assert held.window.rows == tuple(day.date().isoformat() for day in panel.dates[11:16])
    np.testing.assert_equal(
        held.window.values[f"{held.path}.c0"], tuple(panel.fields["close"][11:16, 2])
    )


def test_a_difference_holds_one_row_more_than_its_window() -> None:
    found = why(parse_formula("delta(close, 5)"), cases.panel(), "2020-02-03", "S0")
    assert found.root.window is not None and len(found.root.window.rows) == 6


def test_missing_data_and_the_universe_are_told_apart() -> None:
    panel = cases.panel()
    found = why(feature("close"), panel, panel.dates[11], "S2")
    assert found.root.marks == (Mark("nan", (), "missing in the data"),)
    panel.fields["volume"][5, 0] = 0.0
    found = why(feature("open"), panel, panel.dates[5], "S0", universe="volume")
    assert found.root.marks == (Mark("nan", (), "outside the universe"),)


def test_a_window_that_fills_is_told() -> None:
    found = why(parse_formula("delta(close, 3)"), cases.panel(), "2020-01-03", "S0")
    assert found.root.marks == (Mark("nan", (), "its window is not full yet"),)


def test_an_infinity_begins_at_its_function() -> None:
    panel = cases.panel()
    panel.fields["close"][5, 0] = 1e300
    graph = rotation("numerical_negate", rotation("numerical_multiply", *[feature("close")] * 2))
    found = why(graph, panel, panel.dates[5], "S0")
    assert found.root.marks == (Mark("infinity", (("root.c0", "2020-01-08"),)),)
    assert found.root.inputs[0].marks == (Mark("infinity", ()),)


def test_a_jump_is_followed_to_the_data() -> None:
    panel = cases.panel()
    panel.fields["close"][35, 3] = 1e6
    date = panel.dates[35].date().isoformat()
    found = why(rotation("numerical_negate", feature("close")), panel, date, "S3")
    assert found.root.marks == (Mark("jump", (("root.c0", date),)),)
    assert found.root.inputs[0].marks == (Mark("jump", ()),)
    calm = why(rotation("numerical_negate", feature("close")), panel, date, "S3", jump_factor=1e9)
    assert not calm.root.marks


def by_hand(values: list[float], factor: float) -> list[bool]:
    """The rule in plain words."""
    found = [False]
    for row in range(1, len(values)):
        pairs = [(values[t], values[t - 1]) for t in range(max(row - 60, 1), row)]
        changes = sorted(abs(a - b) for a, b in pairs if math.isfinite(a) and math.isfinite(b))
        change = abs(values[row] - values[row - 1])
        if len(changes) < 20 or not math.isfinite(change):
            found.append(False)
        else:
            found.append(change > factor * float(np.median(changes)))
    return found


@settings(max_examples=40, deadline=None)
@given(
    st.lists(
        st.integers(-3, 3).map(float) | st.sampled_from([math.nan, math.inf, 50.0]), max_size=120
    ),
    st.sampled_from([2.0, 10.0]),
)
def test_the_rule_of_jumps(values: list[float], factor: float) -> None:
    assert jumps(np.array(values), factor).tolist() == by_hand(values, factor)[: len(values)]


def test_warmup_rows_say_so() -> None:
    graph = rotation("numerical_add", feature("open"), reduction("weighted_by_pnl", 4))
    ones = np.ones((cases.ROWS, cases.COLUMNS))
    pool = {"one": UsefulSignal(ones, ones[:, :1]), "two": UsefulSignal(ones, ones[:, :1])}
    context = cases.context(useful_signals=pool, column_labels=["gross_returns"])
    found = why(graph, context, 2, 0)
    assert math.isnan(found.weight)
    assert found.is_warmup == (not math.isnan(found.root.value))
    assert not why(graph, context, 10, 0).is_warmup


def test_a_pipeline_is_seen_and_left_alone() -> None:
    smooth = TransformStage("s", "on", {"on": rotation("longitudinal_mean", signal(), 2)})
    context = cases.context(transform_pipeline=[smooth])
    found = why(rotation("numerical_negate", feature("open")), context, 7, 0)
    assert found.root.node.node == "longitudinal_mean" and found.root.window is not None
    assert context.transform_pipeline == [smooth]
    assert not hasattr(context, "_collect_node_outputs") and context.registers is None


@pytest.mark.parametrize(
    ("row", "column", "message"),
    [
        (
            "2020-01-04",
            "S0",
            "there is no row of 2020-01-04; the nearest: 2020-01-03 and 2020-01-06",
        ),
        ("1999-01-01", "S0", "there is no row of 1999-01-01; the nearest: 2020-01-01"),
        ("soon", "S0", "'soon' is no date; write it as 2020-01-01"),
        ("nan", "S0", "'nan' is no date; write it as 2020-01-01"),
        ("2020-01-02", "S9", "there is no symbol 'S9'"),
    ],
)
def test_cells_that_are_not_there(row: str, column: str, message: str) -> None:
    with pytest.raises(TraceError) as caught:
        why(feature("open"), cases.panel(), row, column)
    assert str(caught.value) == message


@pytest.mark.parametrize(("row", "column"), [(40, 0), (-1, 0), (0, 5), ("x", 0), (0, None)])
def test_numbers_that_are_not_there(row: object, column: object) -> None:
    with pytest.raises(TraceError, match="0 to"):
        why(feature("open"), cases.context(), row, column)


def test_other_objects_than_panels_have_their_own_universe() -> None:
    with pytest.raises(TraceError, match="universe of its own"):
        why(feature("open"), cases.context(), 0, 0, universe="volume")
    with pytest.raises(TraceError, match="the nearest is 'volume'"):
        why(feature("open"), cases.panel(), "2020-01-02", "S0", universe="volum")


def test_dates_with_a_time_of_day() -> None:
    panel = cases.panel()
    hourly = Panel(
        pd.date_range("2020-01-01 09:30", periods=40, freq="h"), panel.symbols, panel.fields
    )
    assert why(feature("open"), hourly, "2020-01-01 10:30", "S0").row == "2020-01-01 10:30:00"


def test_a_day_without_midnight() -> None:
    # Clocks go forward at midnight there.
    dates = pd.DatetimeIndex(["2018-11-04 12:00"]).tz_localize("America/Sao_Paulo")
    panel = Panel(dates, pd.Index(["A"]), {"close": np.ones((1, 1))})
    assert why(feature("close"), panel, dates[0], "A").row == "2018-11-04 12:00:00-02:00"


@pytest.mark.parametrize(("days", "what"), [(0, "rows"), (1, "columns")])
def test_a_panel_without_cells(days: int, what: str) -> None:
    dates = pd.DatetimeIndex(["2018-11-04"])[:days]
    panel = Panel(dates, pd.Index([]), {"close": np.ones((days, 0))})
    with pytest.raises(TraceError, match=f"the data have no {what}"):
        why(feature("close"), panel, "2018-11-04", "A")


def test_the_command(data: Path, program: Program) -> None:
    cell = ("--data", data, "--date", "2015-01-05", "--symbol", "S1")
    assert program("why", "rank(delta(close, 5))", *cell) == 0
    assert "NaN begins here: its window is not full yet" in program.output
    assert program("why", "delta(close, 5)", *cell, "--json") == 0
    found = json.loads(program.output)
    assert found["root"]["value"] == "nan" and found["root"]["inputs"][0]["path"] == "root.c0"
    assert found["root"]["window"]["rows"] == ["2015-01-02", "2015-01-05"]
    assert program("why", "close", *cell[:4], "--symbol", "S8") == 2
    assert program.errors == "quernbrook: there is no symbol 'S8'\n"


def test_a_deep_graph_needs_no_deep_stack() -> None:
    graph = feature("open")
    for _ in range(300):
        graph = rotation("numerical_negate", graph)
    found = why(graph, cases.context(), 3, 1)
    assert len(list(found.root.walk())) == 301
    assert "root" in str(found) and document(found)["root"]["path"] == "root"
