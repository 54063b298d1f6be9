"""Drawings, the table and the document."""

from __future__ import annotations

import json
import re
import threading
from io import StringIO
from typing import Any
from xml.etree import ElementTree

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import (
    condition,
    feature,
    filtration,
    integer,
    reduction,
    rotation,
    string,
)
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.explanation import Explanation, ExplanationError, explain
from quernbrook.workbench.panels import synthetic_panel
from rich.console import Console
from support.guise_runs import make_instance

ROWS, COLUMNS = 8, 3
GRAPH = rotation(
    "numerical_add",
    rotation("longitudinal_mean", rotation("latitudinal_rank", feature("a")), 3),
    reduction("weighted_by_pnl", filtration("filtration", condition("gt", "q", 0.5)), 2),
)
SVG = "{http://www.w3.org/2000/svg}"


def context_of(**options: Any) -> Any:
    random = np.random.default_rng(5)
    matrix = random.normal(size=(ROWS, COLUMNS))
    matrix[4, 1] = np.nan
    pool = {
        f"s{i}": UsefulSignal(random.normal(size=(ROWS, COLUMNS)), np.ones((ROWS, 1)), {"q": i})
        for i in range(3)
    }
    return EvaluationContext(
        (matrix,),
        {"a": 0},
        registry=default_registry(),
        useful_signals=pool,
        column_labels=["gross_returns"],
        **options,
    )


def texts(svg: str) -> list[str]:
    return [element.text or "" for element in ElementTree.fromstring(svg).iter(f"{SVG}text")]


def printed(explanation: Explanation) -> str:
    console = Console(file=StringIO(), width=200)
    console.print(explanation.table())
    output = console.file.getvalue()  # type: ignore[attr-defined]
    return re.sub(" +", " ", output)


@pytest.mark.parametrize("row", [0, 3, ROWS - 1])
@pytest.mark.parametrize("universe", [None, np.ones((ROWS, COLUMNS))])
def test_values_of_a_row_are_those_of_a_run(row: int, universe: Any) -> None:
    context = context_of(universe=universe)
    values = explain(GRAPH, context).row_values(row)
    context._collect_node_outputs = True
    outputs = evaluate(GRAPH, context).node_outputs
    kinds = {node.path: node.kind for node in explain(GRAPH, context).nodes}
    assert set(values) == {path for path, kind in kinds.items() if kind not in ("filtration", "gt")}
    for path, value in values.items():
        np.testing.assert_allclose(value.values, outputs[path][row], rtol=1e-12)
        assert value.nan_share == np.isnan(outputs[path][row]).mean()
        assert (value.seconds is not None) == (kinds[path] in ("rotation", "reduction"))


def test_values_go_on_from_states() -> None:
    states = evaluate(GRAPH, context_of()).states
    context = context_of()
    context._collect_node_outputs = True
    outputs = evaluate(GRAPH, context, states).node_outputs
    explanation = explain(GRAPH, context_of(), states=states)
    np.testing.assert_allclose(explanation.row_values(0)["root"].values, outputs["root"][0])


def test_values_of_bound_instances_are_those_of_copies() -> None:
    graph = rotation("running", feature("a"))
    instance = make_instance("running", "plain", {"last": [8.0, 8.0, 8.0]})
    explanation = explain(graph, context_of(), bound={"root": instance})
    first = explanation.row_values(0)
    assert explanation.row_values(0)["root"].values == first["root"].values
    assert not instance.calls
    instance.lock = threading.Lock()  # can't be copied
    with pytest.raises(ExplanationError, match="the instance bound to root can't be copied"):
        explanation.row_values(0)


def test_the_drawing_has_every_node_and_the_values() -> None:
    explanation = explain(GRAPH, context_of())
    plain, valued = texts(explanation.svg()), texts(explanation.svg(4))
    labels = [
        "numerical_add",
        "longitudinal_mean",
        "a",
        "gt",
        "'q'",
        "0.5",
        "window=3",
        "2 of 3 pass",
    ]
    assert {*labels} <= {*plain} <= {*valued}
    (leaf,) = (text for text in valued if "33% NaN" in text and "µs" not in text)
    row = context_of().features[0][4]
    assert leaf == f"{row[0]:.4g} nan {row[2]:.4g} | 33% NaN"
    assert sum("µs" in text for text in valued) == 4
    assert not any("NaN" in text for text in plain)


def test_boxes_do_not_overlap() -> None:
    root = ElementTree.fromstring(explain(GRAPH, context_of()).svg())
    boxes = [
        tuple(float(element.get(name, "")) for name in ("x", "y", "width", "height"))
        for element in root.iter(f"{SVG}rect")
        if element.get("rx")
    ]
    assert len(boxes) == 11
    width, height = (float(root.get(name, "")) for name in ("width", "height"))
    for i, (x, y, w, h) in enumerate(boxes):
        assert x >= 0 and y >= 0 and x + w <= width and y + h <= height
        for left, top, other_w, other_h in boxes[i + 1 :]:
            apart = left >= x + w or x >= left + other_w or top >= y + h or y >= top + other_h
            assert apart


@pytest.mark.parametrize("text", ["<b>&amp;", "\x00\x1b[31m", "]]>", "[red]", "é\u202e"])
def test_odd_names(text: str) -> None:
    graph = Node("rotation", text, [string(text), feature(text)], {text: text})
    explanation = explain(graph, context_of())
    assert len(texts(explanation.svg())) == 7
    if text.isprintable():
        assert text in printed(explanation) and text in texts(explanation.svg())
    json.dumps(explanation.to_json())


@pytest.mark.parametrize("row", [-1, ROWS, 10**9])
def test_rows_that_are_not_there(row: int) -> None:
    with pytest.raises(ExplanationError, match=f"no row {row}: they go from 0 to 7"):
        explain(GRAPH, context_of()).svg(row)


def test_dates_of_a_panel() -> None:
    panel = synthetic_panel(3, 20)
    explanation = explain(rotation("longitudinal_mean", feature("close"), 3), panel)
    date = panel.dates[7].date().isoformat()
    assert explanation.row_values(date)["root.c0"].values == tuple(panel.fields["close"][7])
    with pytest.raises(ExplanationError, match="the data have no row for 2015-01-03; they go from"):
        explanation.svg("2015-01-03")
    with pytest.raises(ExplanationError, match="'soon' is no date: write 2024-01-31"):
        explanation.svg("soon")
    with pytest.raises(ExplanationError, match="a context has no dates"):
        explain(GRAPH, context_of()).svg("2015-01-02")


def test_a_cold_start_has_its_last_row_alone() -> None:
    states = evaluate(GRAPH, context_of()).states
    explanation = explain(GRAPH, context_of(), states=states, cold=True)
    with pytest.raises(ExplanationError, match="a cold start can be shown at its last row alone"):
        explanation.svg(0)
    assert explanation.row_values(ROWS - 1)


def test_the_document_is_json() -> None:
    graph = Node("rotation", "f", [feature("a")], {"x": {1}, "y": (1, float("nan"))})
    document = explain(graph, context_of()).to_json()
    settings = json.loads(json.dumps(document, allow_nan=False))["nodes"][-1]["settings"]
    assert [one["value"] for one in settings] == ["{1}", [1, "nan"]]
    document = explain(GRAPH, context_of()).to_json()
    assert document["warmup"]["sources"] == [
        {"path": "root.c0", "function": "longitudinal_mean", "rows": 2}
    ]
    assert document["signals"][0]["passing"] == ["s1", "s2"]
    assert document["memory"]["total"] > 0 and "inputs" not in document


def test_the_table() -> None:
    lines = printed(explain(GRAPH, context_of())).splitlines()
    assert "matrix 8 rows by 3 columns " in lines
    assert "warm-up 2 rows: 2 of longitudinal_mean at root.c0" in [line.strip() for line in lines]
    assert any(line.startswith("rank the context has useful signals 3: ") for line in lines)
    assert any(" root.c1.c0.c0 " in line for line in lines)
    faulty = explain(rotation("nothing", feature("b"), integer(2)), context_of())
    assert "root.c0 the context has no feature 'b'" in printed(faulty)
