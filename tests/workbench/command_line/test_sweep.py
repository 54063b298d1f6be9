"""`quernbrook sweep`."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pytest
from quernbrook.workbench import graph_to_json, parse_formula
from quernbrook.workbench.sweeps import Run, read_manifest, read_weights, runs_from_table
from quernbrook.workbench.sweeps.plan import fields_of, read_plan, runs_of

from .conftest import Program

PLAN = """
data: {data}
out: results
engine: serial
runs:
  - name: reversal-$days
    formula: -1 * rank(delta(close, $days))
    grid:
      days: [1, 5]
  - name: $field
    formula: rank($field)
    table:
      - field: open
      - field: returns
    first_date: 2015-01-12
    symbols: [S1, S3]
"""


def write_plan(data: Path, text: str = PLAN) -> Path:
    path = Path("plan.yaml")
    path.write_text(text.replace("{data}", str(data)))
    return path


def test_a_plan_is_done_once(data: Path, program: Program) -> None:
    plan = write_plan(data)
    assert program("sweep", plan, "--json") == 0
    document = json.loads(program.output)
    assert document.pop("seconds") > 0.0
    assert document == {"done": 4, "failed": 0, "skipped": 0, "out": "results"}
    assert list(read_manifest("results").index.sort_values()) == [
        "open",
        "returns",
        "reversal-1",
        "reversal-5",
    ]
    assert set(read_weights("results", ["open"])["symbol"].to_pylist()) == {"S1", "S3"}
    assert program("sweep", plan) == 0
    lines = [" ".join(line.split()) for line in program.output.splitlines()]
    assert lines[:3] == ["done 0 runs", "failed 0", "there before 4"]


def test_out_goes_before_the_plan(data: Path, program: Program) -> None:
    assert program("sweep", write_plan(data), "--out", "others") == 0
    assert len(read_manifest("others")) == 4 and not Path("results").exists()


def test_failed_runs(data: Path, program: Program) -> None:
    plan = write_plan(data, PLAN.replace("rank($field)", "delta($field, 0)"))
    assert program("sweep", plan) == 1
    assert "failed        2" in program.output
    assert program("sweep", plan) == 0
    assert program("sweep", plan, "--retry-failed") == 1


def test_graphs_and_tables_in_files(data: Path, program: Program) -> None:
    Path("graph.json").write_text(
        json.dumps(graph_to_json(parse_formula("delta(close, 3)"))).replace("3", "$days")
    )
    Path("formula.txt").write_text("delta(close, $days)  # days since\n")
    Path("days.csv").write_text("days\n2\n4\n")
    runs = "runs:\n" + "".join(
        f"  - {{name: {kind}-$days, graph: {file}, table: days.csv}}\n"
        for kind, file in (("json", "graph.json"), ("text", "formula.txt"))
    )
    plan = write_plan(data, f"data: {{data}}\nout: results\nengine: threads\n{runs}")
    assert program("sweep", plan) == 0
    weights = [
        read_weights("results", [name])["weight"].to_numpy()
        for name in ("json-2", "text-2", "json-4", "text-4")
    ]
    np.testing.assert_array_equal(weights[0], weights[1])
    np.testing.assert_array_equal(weights[2], weights[3])


def test_paths_are_those_of_the_plan(data: Path) -> None:
    Path("folder").mkdir()
    Path("folder/plan.yaml").write_text(
        "out: results\nruns: [{name: a, formula: close, grid: {x: [1, 0.5, true, up]}}]"
    )
    plan = read_plan(Path("folder/plan.yaml"))
    assert plan.out == Path("folder/results")
    assert plan.runs[0].grid is not None
    assert [repr(value) for value in plan.runs[0].grid["x"]] == ["1", "0.5", "True", "'up'"]


def test_a_whole_row_a_run() -> None:
    Path("plan.yaml").write_text("runs: [{name: a, formula: close}]")
    assert runs_of(read_plan(Path("plan.yaml")), Path()) == [Run("a", "close", options={})]


def test_only_fields_that_are_named_are_read() -> None:
    known = ["close", "Open", "sector", "volume", "vwap", "names"]
    runs = runs_from_table("$x", "IndNeutralize($x, IndClass.sector)", [{"x": "OPEN"}])
    assert fields_of(runs, known) == ["Open", "sector"]
    assert fields_of([Run("a", "returns * adv20")], known) == ["close", "volume", "vwap"]
    assert fields_of([Run("a", "vwap", universe="names")], known) == ["vwap", "names"]


WRONG = {
    "no file": (None, "plan.yaml can't be read: No such file or directory"),
    "no YAML": ("runs: [", "plan.yaml is no YAML: while parsing"),
    "no such day": (
        "runs: [{name: a, formula: x, first_date: 2018-02-30}]",
        "plan.yaml is no YAML: day is out of range for month",
    ),
    "depth": ("[" * 5000, "plan.yaml is no YAML: maximum recursion depth exceeded"),
    "nothing": ("", "plan.yaml, the plan: input should be a valid dictionary"),
    "a field": ("run: []", "plan.yaml, runs: field required"),
    "unknown": ("runs: [{name: a, formula: x}]\ndta: x", "plan.yaml, dta: extra inputs"),
    "no graph": ("runs: [{name: a}]", "plan.yaml, runs.0: give either formula or graph"),
    "both": (
        "runs: [{name: a, formula: x, grid: {}, table: []}]",
        "plan.yaml, runs.0: give grid or table, not both",
    ),
    "engine": ("engine: x\nruns: [{name: a, formula: x}]", "plan.yaml, engine: input should be"),
    "value": (
        "runs: [{name: a, formula: x, grid: {d: [[1]]}}]",
        "plan.yaml, runs.0.grid.d.0.int: input should be a valid integer",
    ),
    "no out": ("runs: [{name: a, formula: close}]", "add 'out' there, or give --out"),
    "graph file": (
        "out: x\nruns: [{name: a, graph: g.json}]",
        "g.json can't be read: No such file or directory",
    ),
    "table file": (
        "out: x\nruns: [{name: a, formula: x, table: t.csv}]",
        "t.csv can't be read: [Errno 2] No such file or directory",
    ),
    "names": (
        "out: x\nruns: [{name: a, formula: x, grid: {d: [1, 2]}}]",
        "two runs are called 'a'; put a parameter into the name",
    ),
}


@pytest.mark.parametrize("what", WRONG)
def test_wrong_plans(what: str, program: Program) -> None:
    text, message = WRONG[what]
    if text is not None:
        Path("plan.yaml").write_text(text)
    assert program("sweep", "plan.yaml") == 2
    assert program.errors.startswith("quernbrook: ") and message in program.errors
    assert program.errors.count("\n") == 1
    assert sorted(path.name for path in Path().iterdir()) == ([] if text is None else ["plan.yaml"])


def test_ctrl_c(data: Path, program: Program, monkeypatch: pytest.MonkeyPatch) -> None:
    def interrupted(*arguments: object, **others: object) -> None:
        raise KeyboardInterrupt

    monkeypatch.setattr("quernbrook.workbench.sweeps.call._work", interrupted)
    assert program("sweep", write_plan(data)) == 130
    assert "stopped; the same command goes on" in program.errors
    assert {path.name for path in Path("results").iterdir()} == {
        ".lock",
        "manifest.jsonl",
        "weights",
    }
