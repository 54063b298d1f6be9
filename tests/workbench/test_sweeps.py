"""Sweeps: what they write, and what the same call does again."""

from __future__ import annotations

import json
import threading
from dataclasses import replace
from datetime import timedelta, timezone
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
import pyarrow.parquet as pq
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench import graph_to_json, parse_formula
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.sweeps import (
    Run,
    SweepError,
    SweepReport,
    read_manifest,
    read_weights,
    runs_from_table,
    shells,
    sweep,
)
from quernbrook.workbench.sweeps.groups import grouped
from quernbrook.workbench.sweeps.work import Slice, Task
from support.sweeps import (
    REGISTRY,
    assert_equal,
    assert_tidy,
    files,
    lasting,
    make_panel,
    make_runs,
)


def serially(runs: list[Run], panel: Panel, out: Path, **others: Any) -> SweepReport:
    return sweep(runs, panel, out=out, engine="serial", **others)


def weights_of(out: Path, run: str, panel: Panel) -> np.ndarray:
    table = read_weights(out, [run]).to_pandas()
    return table["weight"].to_numpy().reshape(-1, len(panel.symbols))


def test_weights_are_those_of_single_evaluations(tmp_path: Path) -> None:
    panel = make_panel()
    assert serially(make_runs(), panel, tmp_path) == SweepReport(12, 0, 0)
    for days in (1, 12):
        graph = parse_formula(f"rank(delta(close, {days})) * ts_rank(volume, 5)")
        expected = evaluate(graph, panel.context(default_registry())).weights
        assert weights_of(tmp_path, f"delta-{days}", panel).tobytes() == expected.tobytes()
    assert_tidy(tmp_path)


def test_the_data_set_has_labels(tmp_path: Path) -> None:
    panel = make_panel(4, 2)
    panel = Panel(panel.dates.tz_localize("Europe/Berlin"), panel.symbols, panel.fields)
    serially([Run("007", "close"), Run("a/b c", "open")], panel, tmp_path)
    table = read_weights(tmp_path).to_pandas()
    assert sorted(table["run"].unique()) == ["007", "a/b c"]
    table["symbol"] = table["symbol"].astype(str)
    wide = table[table["run"] == "a/b c"].pivot(index="date", columns="symbol", values="weight")
    pd.testing.assert_frame_equal(
        wide.rename_axis(index=None, columns=None),
        panel.frame(panel.fields["open"]).rename_axis(None),
        check_freq=False,
        check_column_type=False,
    )


def test_dates_with_an_offset_can_be_read(tmp_path: Path) -> None:
    panel = make_panel(4, 2)
    dates = panel.dates.tz_localize(timezone(timedelta(hours=2)))
    panel = Panel(dates, panel.symbols, panel.fields)
    serially([Run("a", "close")], panel, tmp_path)
    found = read_weights(tmp_path).to_pandas()["date"]
    assert found.tolist() == np.repeat(panel.dates, 2).tolist()
    assert found[0].utcoffset() == panel.dates[0].utcoffset()


def test_any_reader_of_parquet_finds_the_runs(tmp_path: Path) -> None:
    serially(make_runs(2), make_panel(4, 2), tmp_path)
    table = pq.read_table(tmp_path / "weights").to_pandas()
    assert table["run"].value_counts().to_dict() == {"delta-1": 8, "delta-2": 8}


@pytest.mark.parametrize("rows_a_group", [3, 2**20])
@pytest.mark.parametrize(("days", "symbols"), [(1, 1), (7, 5), (500, 100)])
def test_files_of_all_sizes(
    monkeypatch: pytest.MonkeyPatch, tmp_path: Path, days: int, symbols: int, rows_a_group: int
) -> None:
    if days * symbols / rows_a_group > 1000:
        rows_a_group = 7000
    monkeypatch.setattr(shells, "_ROWS_A_GROUP", rows_a_group)
    panel = make_panel(days, symbols)
    pieces = shells.make(panel.dates, panel.symbols)
    weights = panel.fields["close"].copy()
    weights[0, 0] = np.nan
    shells.write(tmp_path / "file.parquet", pieces, weights)
    table = pq.read_table(tmp_path / "file.parquet").to_pandas()
    assert table["weight"].to_numpy().tobytes() == weights.tobytes()
    assert table["date"].tolist() == np.repeat(panel.dates, symbols).tolist()
    assert table["symbol"].tolist() == list(panel.symbols) * days


def test_slices(tmp_path: Path) -> None:
    panel = make_panel()
    run = Run(
        "part",
        "delta(close, 2)",
        first_date="2020-02-03",
        last_date="2020-03-02",
        symbols=["S4", "S1"],
        universe="inside",
    )
    serially([run], panel, tmp_path)
    table = read_weights(tmp_path).to_pandas()
    wide = table.pivot(index="date", columns="symbol", values="weight")[["S4", "S1"]]
    rows = panel.dates.slice_indexer("2020-02-03", "2020-03-02")
    cut = {
        name: np.ascontiguousarray(values[rows][:, [4, 1]]) for name, values in panel.fields.items()
    }
    part = Panel(panel.dates[rows], pd.Index(["S4", "S1"]), cut, cut["inside"])
    expected = evaluate(parse_formula("delta(close, 2)"), part.context(default_registry())).weights
    np.testing.assert_array_equal(wide.to_numpy(), expected)
    row = read_manifest(tmp_path).loc["part"]
    assert (row["first_date"], row["last_date"]) == ("2020-02-03T00:00:00", "2020-03-02T00:00:00")


def test_graphs_functions_and_formulas_are_the_same(tmp_path: Path) -> None:
    def build(days: int) -> Any:
        return rotation("longitudinal_delta", feature("close"), days)

    panel = make_panel()
    int_of_numpy: Any = np.int64(3)
    runs = [
        Run("graph", build(3)),
        Run("function", build, {"days": 3}),
        Run("formula", "delta(close, $days)", {"days": int_of_numpy}),
        Run("json", json.dumps(graph_to_json(build(3))).replace("3", "$days"), {"days": 3}),
    ]
    serially(runs, panel, tmp_path)
    same = {weights_of(tmp_path, run.name, panel).tobytes() for run in runs}
    assert len(same) == 1
    assert read_manifest(tmp_path).loc["formula", "parameters.days"] == 3


def test_rows_of_a_table_are_runs() -> None:
    table = pd.DataFrame({"field": ["open", "close"], "days": [3, 5]})
    runs = runs_from_table("$field-$days", "delta($field, $days)", table, universe="inside")
    assert [run.name for run in runs] == ["open-3", "close-5"]
    assert [run.universe for run in runs] == ["inside", "inside"]


def test_a_failure_is_a_row(tmp_path: Path) -> None:
    panel = make_panel()
    panel.fields["close"][:, 0] = 1.0
    panel.fields["close"][17:, 0] = 3.0
    runs = [*make_runs(3), Run("bad", "fails(close) + open"), Run("worse", "rank(clsoe)")]
    runs += [Run("worst", "rank(close, $$)"), Run("none", "{}"), Run("odd", '{"graph": [1]}')]
    assert serially(runs, panel, tmp_path, registry=REGISTRY) == SweepReport(3, 5, 0)
    rows = read_manifest(tmp_path)
    bad = rows.loc["bad"]
    assert (bad["error"], bad["error_row"]) == ("FunctionExecutionError", 17)
    assert "too large" in str(bad["message"])
    assert "the nearest is 'close'" in str(rows.loc["worse", "message"])
    assert rows.loc["worst", "error"] == "FormulaError"
    assert set(rows.index[rows["status"] == "done"]) == {"delta-1", "delta-2", "delta-3"}
    assert not (tmp_path / "weights" / "run=bad").exists()


@pytest.mark.parametrize("engine", ["serial", "joblib"])
def test_failures_in_a_shared_call_touch_no_other_run(tmp_path: Path, engine: Any) -> None:
    bad = [Run("bad", "rank(nothing(close))"), Run("exits", "exits(close)")]
    runs = [*bad, *make_runs(30)]
    report = sweep(runs, make_panel(), out=tmp_path, engine=engine, workers=1, registry=REGISTRY)
    assert report == SweepReport(30, 2, 0)
    rows = read_manifest(tmp_path)
    assert rows["together"].max() > 1
    exits = rows.loc["exits"]
    assert (exits["error"], exits["message"]) == ("SystemExit", "3")


def test_paths_of_errors(tmp_path: Path) -> None:
    graph = rotation("latitudinal_rank", rotation("no_such_function", feature("close")))
    runs = [Run("known", 'rank(rotation("longitudinal_mean", close))'), Run("unknown", graph)]
    serially(runs, make_panel(), tmp_path)
    rows = read_manifest(tmp_path)
    assert rows.loc["known", "error_path"] == "root.c0"
    assert "/graph/children/0/node" in str(rows.loc["unknown", "message"])


def test_a_warning_stands_with_its_run_alone(tmp_path: Path) -> None:
    runs = [Run("loud", "warns(close)"), *make_runs(30)]
    serially(runs, make_panel(), tmp_path, registry=REGISTRY)
    rows = read_manifest(tmp_path)
    assert rows["together"].max() > 1
    found = rows["warnings"].to_dict()
    assert found.pop("loud") == ["RuntimeWarning: a row of odd numbers"]
    assert list(found.values()) == [[]] * 30


def test_summaries(tmp_path: Path) -> None:
    panel = make_panel()
    runs = [Run("some", "rank(close)"), Run("none", "log(0 - close)")]
    serially(runs, panel, tmp_path, results="summary")
    rows = read_manifest(tmp_path)
    assert rows.loc["some", "summary.coverage"] == 1.0
    assert rows.loc["some", "summary.maximum"] == 1.0
    assert rows.loc["none", "summary.coverage"] == 0.0
    assert rows["summary.mean"].isna().to_dict() == {"some": False, "none": True}
    assert files(tmp_path) == {}
    with pytest.raises(SweepError, match="has no weights of the run 'some'"):
        read_weights(tmp_path, ["some"])


def test_the_same_call_does_nothing_twice(tmp_path: Path) -> None:
    panel = make_panel()
    serially(make_runs(4), panel, tmp_path)
    before = (tmp_path / "manifest.jsonl").read_bytes()
    assert serially(make_runs(4), panel, tmp_path) == SweepReport(0, 0, 4)
    assert (tmp_path / "manifest.jsonl").read_bytes() == before
    assert serially(make_runs(6), panel, tmp_path) == SweepReport(2, 0, 4)
    assert serially(make_runs(2), panel, tmp_path) == SweepReport(0, 0, 2)
    assert len(lasting(tmp_path)) == 6


def test_failures_are_not_repeated_unless_asked_for(tmp_path: Path) -> None:
    runs = [Run("bad", "rank(nothing)"), Run("good", "close")]
    panel = make_panel()
    serially(runs, panel, tmp_path)
    assert serially(runs, panel, tmp_path) == SweepReport(0, 0, 2)
    assert serially(runs, panel, tmp_path, retry_failed=True) == SweepReport(0, 1, 1)


def changed_panel() -> Panel:
    panel = make_panel()
    panel.fields["open"][3, 3] = np.nextafter(panel.fields["open"][3, 3], 0.0)
    return panel


def large_setting(middle: float) -> dict[str, Any]:
    values = np.zeros(3000)
    values[1500] = middle
    return {"metaparameters": {"values": values}}


def test_a_change_amid_a_large_option_is_noticed(tmp_path: Path) -> None:
    for middle, expected in ((0.0, (1, 0, 0)), (0.0, (0, 0, 1)), (1.0, (1, 0, 0))):
        runs = [Run("one", "rank(close)", options=large_setting(middle))]
        assert serially(runs, make_panel(), tmp_path) == SweepReport(*expected)


CHANGES: dict[str, dict[str, Any]] = {
    "data": {"panel": changed_panel()},
    "formula": {"runs": [Run("one", "rank(open)")]},
    "graph": {"runs": [Run("one", feature("close"))]},
    "dates": {"runs": [Run("one", "rank(close)", first_date="2020-01-02")]},
    "symbols": {"runs": [Run("one", "rank(close)", symbols=["S1"])]},
    "universe": {"runs": [Run("one", "rank(close)", universe="inside")]},
    "options": {"runs": [Run("one", "rank(close)", options={"pool_id": "x"})]},
    "registry": {"registry": REGISTRY},
    "results": {"results": "summary"},
}


@pytest.mark.parametrize("what", CHANGES)
def test_changes_are_noticed(tmp_path: Path, what: str) -> None:
    arguments: dict[str, Any] = {"runs": [Run("one", "rank(close)")], "panel": make_panel()}
    serially(**arguments, out=tmp_path)
    again = arguments | CHANGES[what]
    assert serially(**again, out=tmp_path) == SweepReport(1, 0, 0)
    assert serially(**again, out=tmp_path) == SweepReport(0, 0, 1)
    assert len(lasting(tmp_path)) == 1


def test_versions_are_noticed(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    serially(make_runs(1), make_panel(), tmp_path)
    monkeypatch.setattr("importlib.metadata.version", lambda name: "99")
    assert serially(make_runs(1), make_panel(), tmp_path) == SweepReport(1, 0, 0)


def test_what_fails_now_leaves_no_old_weights(tmp_path: Path) -> None:
    serially([Run("one", "close")], make_panel(), tmp_path)
    serially([Run("one", "nothing")], make_panel(), tmp_path)
    assert files(tmp_path) == {}


def damage_cut(out: Path) -> None:
    path = out / "weights" / "run=delta-2" / "weights.parquet"
    path.write_bytes(path.read_bytes()[:-100])


def damage_delete(out: Path) -> None:
    (out / "weights" / "run=delta-2" / "weights.parquet").unlink()


def damage_torn_line(out: Path) -> None:
    lines = (out / "manifest.jsonl").read_bytes().splitlines(keepends=True)
    (out / "manifest.jsonl").write_bytes(b"".join(lines[:-1]) + lines[-1][:40])


@pytest.mark.parametrize("damage", [damage_cut, damage_delete, damage_torn_line])
def test_what_is_damaged_is_done_again(tmp_path: Path, damage: Any) -> None:
    panel = make_panel()
    out, whole = tmp_path / "out", tmp_path / "whole"
    serially(make_runs(4), panel, whole)
    serially(make_runs(4), panel, out)
    damage(out)
    assert serially(make_runs(4), panel, out) == SweepReport(1, 0, 3)
    assert_equal(out, whole)


def test_a_manifest_that_is_none(tmp_path: Path) -> None:
    (tmp_path / "manifest.jsonl").write_text('{"run": "a"}\nrubbish\n')
    with pytest.raises(SweepError, match="line 2 is no row of a manifest"):
        serially(make_runs(1), make_panel(), tmp_path)


def test_threads_write_the_same(tmp_path: Path) -> None:
    panel, runs = make_panel(), make_runs(40)
    serially(runs, panel, tmp_path / "serial")
    before = threading.active_count()
    report = sweep(runs, panel, out=tmp_path / "threads", engine="threads", workers=3)
    assert report == SweepReport(40, 0, 0)
    assert threading.active_count() == before
    assert_equal(tmp_path / "threads", tmp_path / "serial")


def task(name: str, text: str) -> Task:
    return Task(name, name, text, True, {})


def test_runs_with_parts_in_common_go_together() -> None:
    shared = "correlation(rank(open), rank(volume), 10)"
    tasks = [
        task("a", f"ts_max({shared}, 3)"),
        task("b", "rank(close)"),
        task("c", "delta(rank(open) , 2)"),
        task("d", f"delay( {shared}, 3)"),
    ]
    part = Slice((0, 300), None, None)
    groups = grouped([(one, part) for one in tasks], 6, worker_count=1)
    assert len(groups) == 4
    names = [one.name for group in groups for one in group.tasks]
    assert abs(names.index("a") - names.index("d")) == 1


def test_other_slices_and_options_go_apart() -> None:
    parts = [Slice((0, 300), None, None), Slice((0, 200), None, None)]
    work = [(task(str(number), "close"), parts[number % 2]) for number in range(100)]
    groups = grouped(work, 6, worker_count=1)
    assert sum(len(group.tasks) for group in groups) == 100
    assert all(one in work for group in groups for one in [(t, group.slice) for t in group.tasks])
    settings = [large_setting(0.0), large_setting(1.0)]
    alike = [(replace(one, options=settings[k % 2]), parts[0]) for k, (one, _) in enumerate(work)]
    for group in grouped(alike, 6, worker_count=1):
        assert all(one.options is group.tasks[0].options for one in group.tasks)


def no_graph() -> Any:
    raise ZeroDivisionError


WRONG: dict[str, tuple[dict[str, Any], str]] = {
    "engine": ({"engine": "spark"}, "there is no engine 'spark': take one of serial, threads"),
    "results": ({"results": "all"}, "results are 'weights' or 'summary'; got 'all'"),
    "limit": ({"engine": "serial", "time_limit": 3.0}, "'serial' can't end a run: take 'joblib'"),
    "zero": ({"time_limit": 0.0}, "time_limit must be more than 0 seconds; got 0"),
    "tries": ({"tries": 0}, "tries must be 1 at least; got 0"),
    "workers": ({"workers": 0}, "workers must be 1 at least; got 0"),
    "registry": ({"registry": "support.sweep_registry"}, "expected module:function"),
    "module": ({"registry": "no_such_module:make"}, "No module named 'no_such_module'"),
    "main": ({"registry": "__main__:make"}, "put it into a module of its own"),
    "twice": ({"runs": [Run("a", "close"), Run("a", "open")]}, "two runs are called 'a'; put a"),
    "empty": ({"runs": [Run("", "close")]}, "the name of a run must be a text; got ''"),
    "long": ({"runs": [Run("a" * 201, "close")]}, "is longer than a folder's may be"),
    "half": ({"runs": [Run("a\ud800", "close")]}, r"name 'a\ud800' has half a character"),
    "no symbols": (
        {"panel": Panel(make_panel().dates, pd.Index([]), {})},
        "the run 'delta-1': the panel has no symbols",
    ),
    "parameter": (
        {"runs": [Run("a", "delta(close, $day)", {"days": 3})]},
        "the formula of the run 'a' asks for the parameter $day, which isn't given; "
        "the nearest is 'days'",
    ),
    "dollar": ({"runs": [Run("a", "close$")]}, "write $$ for a dollar"),
    "json": ({"runs": [Run("a", '{"version"')]}, "the graph of the run 'a' is no JSON: Expecting"),
    "nan": ({"runs": [Run("a", "$x", {"x": float("nan")})]}, "must be a finite number"),
    "list": (
        {"runs": [Run("a", feature("close"), {"x": [1]})]},  # type: ignore[dict-item]
        "the parameter x must be a finite number, a text or true or false; got [1]",
    ),
    "builder": ({"runs": [Run("a", no_graph)]}, "can't be made: ZeroDivisionError"),
    "dates": (
        {"runs": [Run("a", "close", first_date="2030-01-01")]},
        "the run 'a': the panel has no dates from 2030-01-01 to None",
    ),
    "no date": ({"runs": [Run("a", "close", last_date="soon")]}, "'soon' is no date"),
    "symbol": ({"runs": [Run("a", "close", symbols=["S9"])]}, "the panel has no symbol 'S9'"),
    "symbols": ({"runs": [Run("a", "close", symbols=[])]}, "name one symbol at least"),
    "universe": ({"runs": [Run("a", "close", universe="insid")]}, "the nearest is 'inside'"),
    "option": ({"runs": [Run("a", "close", options={"x": 1})]}, "there is no option 'x', only"),
}


@pytest.mark.parametrize("what", WRONG)
def test_wrong_input_ends_before_anything_is_written(tmp_path: Path, what: str) -> None:
    arguments, message = WRONG[what]
    out = tmp_path / "out"
    plain: dict[str, Any] = {"runs": make_runs(1), "panel": make_panel(), "out": out}
    with pytest.raises(SweepError) as raised:
        sweep(**plain | arguments)
    assert message in str(raised.value)
    assert not out.exists()


def test_a_file_in_the_way(tmp_path: Path) -> None:
    (tmp_path / "out").touch()
    with pytest.raises(SweepError, match="out can't be written: File exists"):
        serially(make_runs(1), make_panel(), tmp_path / "out")


def test_reading_where_nothing_is(tmp_path: Path) -> None:
    with pytest.raises(SweepError, match=r"has no manifest.jsonl: no sweep has written there"):
        read_manifest(tmp_path)
    serially([], make_panel(), tmp_path / "none")
    assert not (tmp_path / "none" / "manifest.jsonl").exists()


def test_rows_are_plain_json(tmp_path: Path) -> None:
    serially(make_runs(2), make_panel(), tmp_path)
    rows = [json.loads(line) for line in (tmp_path / "manifest.jsonl").read_text().splitlines()]
    assert {row["parameters"]["days"] for row in rows} == {1, 2}
    assert all(row["seconds"] > 0.0 and row["tries"] == 1 for row in rows)


def test_ctrl_c_keeps_what_is_done(tmp_path: Path) -> None:
    runs = [*make_runs(3), Run("stop", "interrupts(close)")]
    panel = make_panel()
    for name in ("serial", "threads"):
        with pytest.raises(KeyboardInterrupt):
            sweep(runs, panel, out=tmp_path / name, engine=name, registry=REGISTRY, workers=1)
        kept = len(lasting(tmp_path / name))
        assert_tidy(tmp_path / name)
        report = sweep(
            runs[:3], panel, out=tmp_path / name, engine=name, registry=REGISTRY, workers=1
        )
        assert report == SweepReport(3 - kept, 0, kept)
