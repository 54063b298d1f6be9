"""What notebooks show of a panel, an explanation, a cell's causes, a profile, a run, a picture."""

from __future__ import annotations

import re
import subprocess
import sys
from html.parser import HTMLParser
from typing import Any

import numpy as np
import pandas as pd
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench import explain
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.report import report_page, run_graph
from quernbrook.workbench.seeing import pictures
from quernbrook.workbench.tracing import profile, why

HOSTILE = "<script>alert('1')</script>&\ud800\""
VOID = {"br", "meta", "link", "img", "input"}


class Reader(HTMLParser):
    """The tags, the attributes and the texts of a page; fails where tags don't close."""

    def __init__(self, page: str) -> None:
        super().__init__()
        self.tags: list[str] = []
        self.attributes: list[dict[str, str | None]] = []
        self.cells: list[str] = []
        self._open: list[str] = []
        page.encode()
        self.feed(page)
        self.close()
        assert self._open == []

    def handle_starttag(self, tag: str, attrs: Any) -> None:
        self.tags.append(tag)
        self.attributes.append(dict(attrs))
        self.cells.append("")
        if tag not in VOID:
            self._open.append(tag)

    def handle_startendtag(self, tag: str, attrs: Any) -> None:
        self.tags.append(tag)

    def handle_endtag(self, tag: str) -> None:
        assert self._open.pop() == tag

    def handle_data(self, data: str) -> None:
        self.cells[-1] += data

    def texts(self) -> str:
        return "\n".join(self.cells)


def panel_of(name: str = "x", symbol: str = "AA") -> Panel:
    dates = pd.bdate_range("2024-01-01", periods=30)
    values = np.random.default_rng(1).normal(100.0, 1.0, (30, 3))
    values[20, 0] = np.nan
    return Panel(
        dates, pd.Index([symbol, "BB", "CC"], dtype=object), {name: values, "close": values}
    )


def graph_of(name: str = "x") -> Any:
    return rotation("latitudinal_rank", rotation("longitudinal_delta", feature(name), 2))


def views(name: str, symbol: str) -> dict[str, str]:
    panel, graph = panel_of(name, symbol), graph_of(name)
    shown: dict[str, Any] = {
        "panel": panel,
        "explanation": explain(graph, panel),
        "why": why(graph, panel, "2024-01-29", symbol),
        "profile": profile(graph, panel),
        "run": run_graph(graph, panel, default_registry()),
    }
    return {key: one._repr_html_() for key, one in shown.items()}


@pytest.mark.parametrize("place", [0, 1])
def test_names_are_shown_and_not_run(place: int) -> None:
    names = ["x", "AA"]
    names[place] = HOSTILE
    for key, page in views(*names).items():
        found = Reader(page)
        assert "script" not in found.tags, key
        if key == "run":
            assert "alert" in str(found.attributes[0]["srcdoc"])
        elif key in ("panel", "why") or (place == 0 and key == "explanation"):
            assert "<script>alert" in found.texts(), key


def test_a_panel_tells_its_labels_and_what_its_fields_hold() -> None:
    panel = panel_of()
    page = Panel(panel.dates.tz_localize("UTC"), panel.symbols, panel.fields)._repr_html_()
    texts = Reader(page).texts()
    assert "30 dates, 2024-01-01 to 2024-02-09, UTC" in texts
    assert "3 symbols: AA, BB, CC" in texts and "universe: all cells" in texts
    least, largest = np.nanmin(panel.fields["x"]), np.nanmax(panel.fields["x"])
    assert f"x\n1.11%\n{least:.6g}\n{largest:.6g}\n" in texts


def test_a_panels_universe_and_many_symbols() -> None:
    values = np.full((2, 9), np.nan)
    dates = pd.DatetimeIndex(["2024-01-01 09:30", "2024-01-01 09:31"])
    inside = np.ones((2, 9))
    inside[0] = 0.0
    texts = Reader(Panel(dates, pd.RangeIndex(9), {"x": values}, inside)._repr_html_()).texts()
    assert "2024-01-01 09:30:00 to 2024-01-01 09:31:00" in texts
    assert "9 symbols: 0, 1, 2, 3, 4, 5 and 3 more" in texts
    assert "universe: 50.0% of the cells" in texts and "x\nall\n" in texts


def test_panels_of_nothing() -> None:
    none = pd.DatetimeIndex([])
    for panel in (
        Panel(none, pd.Index(["AA"]), {"x": np.empty((0, 1))}, np.empty((0, 1))),
        Panel(none, pd.Index([]), {}),
    ):
        assert "no dates" in Reader(panel._repr_html_()).texts()


def test_infinities_are_told() -> None:
    panel = panel_of()
    panel.fields["x"][3, 1] = -np.inf
    assert "\n-inf\n" in Reader(panel._repr_html_()).texts()


def test_an_explanation_is_drawn_above_its_table() -> None:
    found = Reader(explain(graph_of("prize"), panel_of())._repr_html_())
    assert found.tags.index("svg") < found.tags.index("pre")
    assert "the context has no feature 'prize'" in found.texts()
    assert "warm-up" in found.texts()


def test_an_explanation_without_nodes_has_its_faults() -> None:
    context = EvaluationContext((np.ones((2, 2)),), {"x": 0}, registry=default_registry())
    looped = graph_of()
    looped.children[0].children[0] = looped
    found = Reader(explain(looped, context)._repr_html_())
    assert "svg" not in found.tags and "Faults" in found.texts()


def test_a_cells_causes_stand_out_and_windows_are_folded() -> None:
    page = why(graph_of(), panel_of(), "2024-01-31", "AA")._repr_html_()
    found = Reader(page)
    lines = re.findall(r"<tr>.*?</tr>", page)
    marked = [line for line in lines if "font-weight: bold" in line]
    # The rank, the change, and the row of the window that the change has it from.
    assert ["root.c0" in line for line in marked] == [True, True, False]
    assert "2024-01-29" in marked[2]
    assert found.tags.count("details") == 1 and "root.c0 longitudinal_delta holds 3 rows" in page
    assert "AA on 2024-01-31: weight nan" in found.texts()


def test_a_profile_has_its_flames_above_its_table() -> None:
    made = profile(graph_of(), panel_of())
    found = Reader(made._repr_html_())
    assert found.tags.index("svg") < found.tags.index("table")
    lines = str(made).splitlines()
    assert found.tags.count("tr") == len(lines)
    for word in re.split(r"\s{2,}", lines[1].strip()):
        assert word in found.cells


def test_a_run_shows_as_its_report() -> None:
    run = run_graph(graph_of(), panel_of(), default_registry())
    (frame,) = Reader(run._repr_html_() or "").attributes
    # No access to the notebook around it.
    assert frame["sandbox"] == "allow-scripts"
    page = str(frame["srcdoc"])
    assert len(page) == pytest.approx(len(report_page(run)), rel=0.01)
    assert page.startswith("<!DOCTYPE html>") and page.rstrip().endswith("</html>")


def test_a_run_of_no_days_shows_as_text() -> None:
    panel = panel_of().until("2000-01-01")
    assert run_graph(graph_of(), panel, default_registry())._repr_html_() is None


def test_a_picture_is_shown_without_pyplot() -> None:
    code = """if True:
        import sys
        import pandas as pd
        from quernbrook.workbench.seeing import pictures
        frame = pd.DataFrame([[1.0, -1.0]], pd.DatetimeIndex(["2024-01-01"]), ["a", "b"])
        print(pictures.heat_map(frame)._repr_png_()[:8], "matplotlib.pyplot" in sys.modules)
    """
    found = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True)
    assert found.stdout == "b'\\x89PNG\\r\\n\\x1a\\n' False\n"


def test_every_picture_is_shown() -> None:
    panel = panel_of()
    frame = panel.frame(panel.fields["x"])
    causes = np.zeros(frame.shape, dtype=np.int8)
    for figure in (
        pictures.heat_map(frame),
        pictures.nan_causes(causes, frame),
        pictures.exposures(frame),
        pictures.turnover(frame),
        pictures.concentration(frame),
        pictures.pnl(frame, frame),
        pictures.correlations({"a": frame, "b": frame}),
    ):
        assert figure._repr_png_().startswith(b"\x89PNG")
