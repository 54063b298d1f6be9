"""`quernbrook explain`."""

from __future__ import annotations

import json
import os
from pathlib import Path
from threading import Thread

import pytest

from .conftest import Program


def lines(text: str) -> list[str]:
    return [" ".join(line.split()) for line in text.splitlines()]


def test_a_sound_graph(data: Path, program: Program) -> None:
    assert program("explain", "rank(delta(Close, 5))", "--data", data) == 0
    found = lines(program.output)
    assert found[0] == "matrix 30 rows by 6 columns"
    assert "warm-up 4 rows: 4 of longitudinal_delta at root.c0" in found
    assert "faults none" in found
    assert not program.errors and "\x1b" not in program.output and not os.listdir()


def test_all_faults_at_once(data: Path, program: Program) -> None:
    graph = "rank(clsoe) + longitudinal_mean(opne, 50)"
    assert program("explain", graph, "--data", data) == 1
    assert program.errors == "quernbrook: 3 faults found\n"
    faults = lines(program.output)[-3:]
    assert faults == [
        "root.c0.c0 the context has no feature 'clsoe' close",
        "root.c1.c0 the context has no feature 'opne' open",
        "root.c1 'longitudinal_mean' is full after 50 rows; the history has 30",
    ]


def test_unknown_functions_and_signals_of_a_json_graph(data: Path, program: Program) -> None:
    graph = {"version": 1, "graph": {"type": "reduction", "node": "reduction_men"}}
    Path("graph.json").write_text(json.dumps(graph))
    assert program("explain", "graph.json", "--data", data, "--json") == 1
    faults = json.loads(program.output)["faults"]
    assert [(fault["path"], fault["suggestion"]) for fault in faults] == [
        ("root", "reduction_mean"),
        ("root", None),
    ]


def test_the_document(data: Path, program: Program) -> None:
    arguments = ("explain", "close", "--data", data, "--universe", "cap", "--json")
    assert program(*arguments) == 0
    document = json.loads(program.output)
    assert (document["road"], document["rows"], document["columns"]) == ("leaf", 30, 6)
    assert document["memory"]["weights"] == 30 * 6 * 8


def test_the_drawing(data: Path, program: Program) -> None:
    arguments = ("explain", "delta(close, 5)", "--data", data, "--svg", "g.svg")
    assert program(*arguments) == 0
    assert "% NaN" not in Path("g.svg").read_text("utf-8")
    assert program(*arguments, "--row", "2015-02-12") == 0
    drawing = Path("g.svg").read_text("utf-8")
    assert drawing.startswith("<svg") and "0% NaN" in drawing


def test_a_faulty_graph_is_drawn_without_values(data: Path, program: Program) -> None:
    arguments = ("explain", "delta(clsoe, 5)", "--data", data, "--svg", "g.svg")
    assert program(*arguments, "--row", "2015-02-12") == 1
    assert "did you mean 'close'?" in Path("g.svg").read_text("utf-8")


@pytest.mark.parametrize(
    ("graph", "options", "told"),
    [
        ("close", ["--row", "2015-02-12"], "--row puts values on a drawing: name its file with --svg FILE"),
        ("close", ["--svg", "no/g.svg"], "--svg no/g.svg can't be written: No such file or directory"),
        ("close", ["--svg", "g.svg", "--row", "2015-01-03"], "the data have no row for 2015-01-03; they go from 2015-01-02 to 2015-02-12"),
        ("close", ["--universe", "cpa"], "unknown field 'cpa'; the nearest is 'cap'"),
        ("rnk(close)", [], "line 1, column 1: unknown function 'rnk'; the nearest is 'rank'\n  rnk(close)\n  ^"),
        ("rank(close", [], None),
        ("nowhere.json", [], "there is no file nowhere.json"),
    ],
)  # fmt: skip
def test_wrong_input(
    graph: str, options: list[str], told: str | None, data: Path, program: Program
) -> None:
    assert program("explain", graph, "--data", data, *options) == 2
    assert told is None or program.errors == f"quernbrook: {told}\n"
    assert not os.listdir()


def test_a_pipe_is_read_once(data: Path, program: Program) -> None:
    os.mkfifo("pipe.txt")
    writer = Thread(target=Path("pipe.txt").write_text, args=["rank(clsoe)"])
    writer.start()
    assert program("explain", "pipe.txt", "--data", data) == 1
    assert "the context has no feature 'clsoe'" in program.output
    writer.join()
