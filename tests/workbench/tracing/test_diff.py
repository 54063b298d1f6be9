"""Where two runs part."""

from __future__ import annotations

import io
import json
import os
import struct
import zipfile
from dataclasses import replace
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import bind_instances, default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import write_frame
from quernbrook.workbench.tracing import (
    Run,
    TraceError,
    diff,
    joined,
    load_run,
    load_weights,
    record,
    save_run,
)

from . import cases
from .conftest import Program

GRAPH = rotation("latitudinal_rank", rotation("longitudinal_delta", feature("close"), 3))


def changed(run: Run, output: str, row: int, column: int, value: float) -> Run:
    matrix = run.outputs[output].copy()
    matrix[row, column] = value
    return replace(run, outputs={**run.outputs, output: matrix})


def other_value(value: float) -> float:
    """A number with the last bit changed."""
    bits = struct.unpack("<Q", struct.pack("<d", value))[0] ^ 1
    return float(struct.unpack("<d", struct.pack("<Q", bits))[0])


@settings(max_examples=60, deadline=None)
@given(data=st.data(), graph=cases.graphs)
def test_a_planted_change_is_found(data: st.DataObject, graph: Node) -> None:
    run = record(graph, cases.panel())
    assert diff(run, run).is_same
    names = list(run.outputs)
    places = st.tuples(
        st.integers(0, cases.ROWS - 1),
        st.integers(0, len(names) - 1),
        st.integers(0, cases.COLUMNS - 1),
    )
    planted = data.draw(st.lists(places, min_size=1, max_size=4, unique=True))
    other = run
    for row, place, column in planted:
        before = float(run.outputs[names[place]][row, column])
        other = changed(other, names[place], row, column, other_value(before))
    found = diff(run, other).first
    row, place, column = min(planted)
    assert found is not None
    assert (found.row, found.column) == (run.rows[row], run.columns[column])
    assert found.output == names[place]
    assert sum(diff(run, other).differing.values()) == len(planted)


@pytest.mark.parametrize(
    ("value", "other", "kind"),
    [
        (0.0, -0.0, "zero sign"),
        (np.nan, -np.nan, "NaN bits"),
        (np.nan, 1.0, "value"),
        (np.inf, -np.inf, "value"),
        (1.0, np.nextafter(1.0, 2.0), "value"),
    ],
)
def test_bits_are_told_apart_from_values(value: float, other: float, kind: str) -> None:
    run = changed(record(feature("open"), cases.panel()), "root", 3, 1, value)
    found = diff(run, changed(run, "root", 3, 1, other))
    assert found.first is not None and found.first.kind == kind
    assert (found.first_value is None) == (kind != "value")
    assert not found.is_same
    later = diff(run, changed(changed(run, "root", 3, 1, other), "root", 9, 0, 7.0))
    assert later.first is not None and later.first.row == run.rows[3]
    assert later.first_value is not None
    assert later.first_value.row == (run.rows[3] if kind == "value" else run.rows[9])


def test_inputs_come_before_the_nodes_that_read_them() -> None:
    run = record(GRAPH, cases.panel())
    assert list(run.outputs) == ["root.c0.c0", "root.c0.c1", "root.c0", "root", "weights"]
    other = changed(changed(run, "root", 8, 0, 9.0), "root.c0.c0", 8, 4, 9.0)
    found = diff(run, other).first
    assert found is not None and (found.output, found.name) == ("root.c0.c0", "feature close")


def test_ticks_against_history() -> None:
    panel = cases.panel()
    live = bind_instances(GRAPH, default_registry())
    ticks = []
    for row in range(20):
        features = tuple(values[row : row + 1] for values in panel.fields.values())
        index = {name: place for place, name in enumerate(panel.fields)}
        tick: Any = EvaluationContext(features, index, registry=default_registry())
        result = live.evaluate(tick)
        ticks.append(Run.of_result(live.graph, result, panel.dates[row : row + 1], panel.symbols))
    comparison = diff(joined(ticks), record(GRAPH, panel))
    assert comparison.first is None and comparison.rows == 20
    assert not comparison.only_left and list(comparison.only_right) == ["rows"]
    assert len(comparison.only_right["rows"]) == 20


def test_columns_in_another_order() -> None:
    run = record(GRAPH, cases.panel())
    turned = Run(
        run.rows,
        run.columns[::-1],
        run.names,
        {name: matrix[:, ::-1] for name, matrix in run.outputs.items()},
    )
    assert diff(run, turned).is_same
    assert diff(turned, changed(run, "root", 4, 1, 3.0)).first is not None


def test_runs_that_cannot_be_compared() -> None:
    run = record(GRAPH, cases.panel())
    with pytest.raises(
        TraceError, match="of other graphs: at root stand rotation latitudinal_rank"
    ):
        diff(run, record(feature("open"), cases.panel()))
    with pytest.raises(TraceError, match="no row in common: 2020-01-01 to 2020-02-25 and 0 to 39"):
        diff(run, record(GRAPH, cases.context()))
    with pytest.raises(TraceError, match="same label"):
        joined([run, run])
    with pytest.raises(TraceError, match="no runs"):
        joined([])


def test_results_without_outputs_and_of_other_graphs() -> None:
    context = cases.context()
    result = evaluate(GRAPH, context)
    with pytest.raises(TraceError, match="set _collect_node_outputs"):
        Run.of_result(GRAPH, result)
    context._collect_node_outputs = True
    result = evaluate(GRAPH, context)
    with pytest.raises(TraceError, match=r"another graph: they differ at root\.c0\.c0"):
        Run.of_result(rotation("latitudinal_rank", feature("close")), result)
    with pytest.raises(TraceError, match="expected 40 different row labels; got 2"):
        Run.of_result(GRAPH, result, ["2020-01-01", "2020-01-02"])


@settings(
    max_examples=20, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture]
)
@given(values=st.lists(st.integers(0, 2**64 - 1), min_size=6, max_size=6))
def test_files_keep_every_bit(values: list[int], tmp_path: Path) -> None:
    matrix = np.array(values, dtype=np.uint64).view(np.float64).reshape(3, 2)
    run = Run(("a", "b", "c"), (0, 1), {"root": "feature x"}, {"root": matrix, "weights": matrix})
    save_run(run, tmp_path / "a.run")
    loaded = load_run(tmp_path / "a.run")
    assert (loaded.rows, loaded.columns, loaded.names) == (run.rows, run.columns, run.names)
    assert [one.tobytes() for one in loaded.outputs.values()] == [matrix.tobytes()] * 2
    assert os.listdir(tmp_path) == ["a.run"]


def test_a_failed_save_leaves_the_old_file(tmp_path: Path) -> None:
    run = record(feature("open"), cases.panel())
    save_run(run, tmp_path / "a.run")
    before = (tmp_path / "a.run").read_bytes()
    with pytest.raises(TypeError):
        save_run(replace(run, rows=(object(),)), tmp_path / "a.run")  # type: ignore[arg-type]
    assert (tmp_path / "a.run").read_bytes() == before
    assert os.listdir(tmp_path) == ["a.run"]


def _archive(header: Any, **arrays: Any) -> bytes:
    file = io.BytesIO()
    text = np.frombuffer(json.dumps(header).encode(), np.uint8)
    np.savez(file, header=text, **arrays)
    return file.getvalue()


GOOD = {
    "format": "quernbrook run",
    "version": 1,
    "rows": [0],
    "columns": [0],
    "names": {},
    "outputs": ["root"],
}
ONE = np.ones((1, 1))


def _object_array() -> bytes:
    file = io.BytesIO()
    np.savez(file, header=np.array([{"a": 1}], dtype=object))
    return file.getvalue()


def _plain_zip() -> bytes:
    file = io.BytesIO()
    with zipfile.ZipFile(file, "w") as archive:
        archive.writestr("readme.txt", "hello")
    return file.getvalue()


def _endless_array() -> bytes:
    file, header = io.BytesIO(), io.BytesIO()
    np.save(header, np.frombuffer(json.dumps(GOOD).encode(), np.uint8))
    shape = b"{'descr': '<f8', 'fortran_order': False, 'shape': (1" + 30 * b"0" + b", 1), }\n"
    with zipfile.ZipFile(file, "w") as archive:
        archive.writestr("header.npy", header.getvalue())
        archive.writestr("0.npy", b"\x93NUMPY\x01\x00" + bytes([len(shape), 0]) + shape)
    return file.getvalue()


@pytest.mark.parametrize(
    ("contents", "message"),
    [
        (b"", "no saved run, or a damaged one"),
        (b"text", "no saved run, or a damaged one"),
        (_plain_zip(), "there is no header"),
        (_object_array(), "damaged one"),
        (_endless_array(), "damaged one: Python int too large"),
        (_archive([]), "its header is another one"),
        (_archive({**GOOD, "format": "other"}), "its header is another one"),
        (_archive({**GOOD, "version": 2}), "version 2 and this program knows 1; update it"),
        (_archive({**GOOD, "rows": None}), "damaged one"),
        (_archive({**GOOD, "rows": [0.5]}, **{"0": ONE}), "neither texts nor numbers"),
        (_archive({**GOOD, "rows": [0, 0]}, **{"0": ONE}), "stands there twice"),
        (_archive(GOOD), "damaged one"),
        (_archive(GOOD, **{"0": np.ones((2, 1))}), "expected float64"),
        (_archive(GOOD, **{"0": np.ones((1, 1), np.float32)}), "float32 of shape"),
    ],
)
def test_files_that_are_no_runs(contents: bytes, message: str, tmp_path: Path) -> None:
    path = tmp_path / "a.run"
    path.write_bytes(contents)
    with pytest.raises(TraceError, match=message) as caught:
        load_run(path)
    assert str(path) in str(caught.value)


def test_no_altered_byte_passes_unseen(tmp_path: Path) -> None:
    run = Run(("a",), (0,), {"root": "feature x"}, {"root": ONE})
    path = tmp_path / "a.run"
    save_run(run, path)
    contents = path.read_bytes()
    rng = np.random.default_rng(0)
    for place in range(len(contents)):
        altered = bytearray(contents)
        altered[place] ^= 1 << int(rng.integers(8))
        path.write_bytes(altered)
        try:
            loaded = load_run(path)
        except TraceError:
            continue
        # Some bytes of the archive, such as its times, mean nothing.
        assert diff(run, loaded).is_same and loaded.names == run.names
    for length in range(0, len(contents), 7):
        path.write_bytes(contents[:length])
        with pytest.raises(TraceError):
            load_run(path)


def test_the_command(data: Path, program: Program) -> None:
    run = ("run", "rank(delta(close, 5))", "--data", data, "--out", "w.csv")
    assert program(*run, "--save-run", "a.run") == 0
    assert program(*run, "--save-run", "b.run") == 0
    assert program("diff", "a.run", "b.run") == 0
    assert "differences  none" in program.output
    save_run(changed(load_run("b.run"), "root.c0", 9, 2, 5.0), "b.run")
    assert program("diff", "a.run", "b.run") == 1
    assert "root.c0 (rotation longitudinal_delta) on 2015-01-15 for S3" in program.output
    assert program("diff", "a.run", "b.run", "--json") == 1
    document = json.loads(program.output)
    assert document["first"]["kind"] == "value" and document["first"]["right"] == "5.0"
    assert program("diff", "a.run", "c.run") == 2
    assert program.errors == "quernbrook: there is no file c.run\n"
    assert program(*run, "--save-run", "none/b.run") == 2
    assert program.errors.startswith("quernbrook: --save-run none/b.run: there is no folder none")


def test_folders_of_weights(program: Program) -> None:
    panel = cases.panel()
    for folder in ("a", "b"):
        Path(folder).mkdir()
        for name in ("one", "two"):
            values = panel.fields["open"].copy()
            if (folder, name) == ("b", "two"):
                values[7, 3] = 5.5
            write_frame(panel.frame(values), Path(folder) / f"{name}.parquet")
    assert program("diff", "a", "b") == 1
    assert "two (weights) on 2020-01-10 for S3" in program.output
    write_frame(panel.frame(panel.fields["open"]), Path("a/three.parquet"))
    assert program("diff", "a", "b") == 1
    assert "only in a, outputs" in program.output and "three" in program.output
    Path("empty").mkdir()
    assert program("diff", "a", "empty") == 2
    assert "empty holds no weights" in program.errors
    with pytest.raises(TraceError, match="none can't be read"):
        load_weights("none")
    assert load_weights("a").rows == record(parse_formula("open"), panel).rows
