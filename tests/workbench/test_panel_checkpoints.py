"""Checkpoints that know their panel's symbols."""

from __future__ import annotations

import json
import os
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.reference_host import bind_instances, checkpoints, default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import FunctionState, evaluate
from quernbrook.workbench.panels import (
    CheckpointError,
    Panel,
    PanelError,
    load_checkpoint,
    save_checkpoint,
    synthetic_panel,
)

GRAPH = rotation("latitudinal_rank", rotation("longitudinal_mean", feature("close"), 5))
DATES = pd.date_range("2024-01-02", periods=3)
STATES = {"root": FunctionState("f", {"count": 3, "mean": [0.1, float("nan")]})}
REMEDY = "take a panel like the one that it was written for, or run the history again"


def panel_of(*symbols: Any, dates: pd.DatetimeIndex = DATES) -> Panel:
    return Panel(dates, pd.Index(symbols), {})


def test_a_run_goes_on_where_another_ended(tmp_path: Path) -> None:
    panel, registry = synthetic_panel(8, 40, gaps=False), default_registry()
    whole = evaluate(GRAPH, panel.context(registry)).weights
    path = tmp_path / "states"
    past = panel.until(panel.dates[24])
    save_checkpoint(path, evaluate(GRAPH, past.context(registry)).states, past)
    checkpoint = load_checkpoint(path, panel)
    assert checkpoint.last_date == panel.dates[24]
    rest = panel.after(checkpoint.last_date)
    later = evaluate(GRAPH, rest.context(registry), checkpoint.states, True).weights
    np.testing.assert_array_equal(rest.frame(later), panel.frame(whole).loc[rest.dates])
    live = bind_instances(GRAPH, registry, load_checkpoint(path, rest).states)
    np.testing.assert_array_equal(live.evaluate(rest.context(registry)).weights, later)


@pytest.mark.parametrize("zone", [None, "UTC", "Europe/Paris", "America/New_York", "+05:30"])
def test_dates_come_back(tmp_path: Path, zone: str | None) -> None:
    # The later of the two hours when clocks go back.
    dates = pd.DatetimeIndex(["2024-10-27T00:30:00.000000001", "2024-10-27T01:30:00.123456789"])
    dates = dates.tz_localize("UTC").tz_convert(zone) if zone else dates
    panel = panel_of("AA", dates=dates)
    save_checkpoint(tmp_path / "states", STATES, panel)
    found = load_checkpoint(tmp_path / "states", panel).last_date
    assert found == dates[-1] and str(found.tz) == str(dates.tz)
    assert panel.after(found).dates.empty


@settings(deadline=None, max_examples=50)
@given(st.lists(st.text(), unique=True) | st.lists(st.integers(-(2**62), 2**62), unique=True))
def test_symbols_of_any_kind(tmp_path_factory: pytest.TempPathFactory, symbols: list[Any]) -> None:
    path = tmp_path_factory.getbasetemp() / "symbols"
    panel = panel_of(*symbols)
    save_checkpoint(path, STATES, panel)
    found = load_checkpoint(path, panel)
    assert [*found.states] == ["root"]
    assert repr(found.states["root"]) == repr(STATES["root"])
    with pytest.raises(CheckpointError):
        load_checkpoint(path, panel_of(*symbols, "ONE MORE"))


@pytest.mark.parametrize(
    ("panel", "reason"),
    [
        (panel_of("BB", "AA"), "written for other symbols: number 0 is 'AA', in the panel 'BB'"),
        (panel_of("AA", "CC"), "written for other symbols: number 1 is 'BB', in the panel 'CC'"),
        (panel_of("AA"), "written for 2 symbols; the panel has 1"),
        (panel_of("AA", "BB", "CC"), "written for 2 symbols; the panel has 3"),
        (panel_of(1, 2), "written for other symbols: number 0 is 'AA', in the panel 1"),
        (panel_of("AA", "BB", dates=DATES.tz_localize("UTC")), "its dates are without a time zone, those of the panel in the time zone UTC"),
    ],
)  # fmt: skip
def test_other_panels_are_refused(tmp_path: Path, panel: Panel, reason: str) -> None:
    path = tmp_path / "states"
    save_checkpoint(path, STATES, panel_of("AA", "BB"))
    with pytest.raises(CheckpointError) as raised:
        load_checkpoint(path, panel)
    assert str(raised.value) == f"checkpoint '{path}': {reason}; {REMEDY}"


@pytest.mark.parametrize(
    ("record", "reason"),
    [
        (None, "holds states without the symbols of a panel; name a file that save_checkpoint() wrote"),
        ({"version": 2}, "its panel has version 2, not known (known: 1); go on with the release that wrote it, or run the history again"),
        ({}, "its panel has version None, not known (known: 1); go on with the release that wrote it, or run the history again"),
        ({"version": 1}, "its panel has no list of symbols; name a file that save_checkpoint() wrote"),
        ({"version": 1, "symbols": ["AA"], "last_date": "soon", "time_zone": None}, "its panel has no last date; name a file that save_checkpoint() wrote"),
        ({"version": 1, "symbols": 5, "last_date": "2024-01-02", "time_zone": None}, "its panel has no list of symbols; name a file that save_checkpoint() wrote"),
        ({"version": 1, "symbols": ["AA"], "last_date": "NaT", "time_zone": None}, "its panel has no last date; name a file that save_checkpoint() wrote"),
        ({"version": 1, "symbols": ["AA"], "last_date": "2024-01-02T00:00Z", "time_zone": None}, "its panel has no last date; name a file that save_checkpoint() wrote"),
    ],
)  # fmt: skip
def test_other_files_of_states_are_refused(tmp_path: Path, record: Any, reason: str) -> None:
    path = tmp_path / "states"
    checkpoints.save(path, STATES if record is None else {**STATES, "quernbrook-panel": record})
    with pytest.raises(CheckpointError) as raised:
        load_checkpoint(path, panel_of("AA"))
    assert str(raised.value) == f"checkpoint '{path}': {reason}"


def test_every_damage_is_found(tmp_path: Path) -> None:
    path, panel = tmp_path / "states", panel_of("AA", "BB")
    save_checkpoint(path, STATES, panel)
    intact = path.read_bytes()
    for place in range(len(intact)):
        for damaged in (
            intact[:place],
            intact[:place] + bytes([intact[place] ^ 1]) + intact[place + 1 :],
        ):
            path.write_bytes(damaged)
            with pytest.raises(CheckpointError) as raised:
                load_checkpoint(path, panel)
            assert "\n" not in str(raised.value)
    with pytest.raises(FileNotFoundError):
        load_checkpoint(tmp_path / "absent", panel)


def test_what_cannot_be_saved_leaves_the_old_file(tmp_path: Path) -> None:
    path, panel = tmp_path / "states", panel_of("AA", "BB")
    save_checkpoint(path, STATES, panel)
    intact = path.read_bytes()
    cases: list[tuple[Any, Panel, type[Exception], str]] = [
        ({"root": object()}, panel, TypeError, "state 'root' can't be saved"),
        ({"root": FunctionState("f", {"x": np.ones(2)})}, panel, TypeError, "of function 'f' can't be saved"),
        (STATES, panel.until("2000-01-01"), PanelError, "a checkpoint needs a last date; the panel has no dates"),
        (STATES, panel_of(1.5), PanelError, "a checkpoint holds symbols that are texts or integers, not 1.5"),
        (STATES, panel_of(("AA", 1), "BB"), PanelError, r"texts or integers, not \('AA', 1\)"),
    ]  # fmt: skip
    for states, of, error, message in cases:
        with pytest.raises(error, match=message):
            save_checkpoint(path, states, of)
        assert path.read_bytes() == intact
        assert os.listdir(tmp_path) == ["states"]


def test_the_file_is_json(tmp_path: Path) -> None:
    save_checkpoint(tmp_path / "states", {}, panel_of(np.int64(7), 8))
    _, key, record = (tmp_path / "states").read_bytes().splitlines()
    assert json.loads(key) == "quernbrook-panel"
    assert b'"symbols"' in record and b"[7" in record
