"""What a report's page says, without a browser."""

from __future__ import annotations

from dataclasses import replace
from html.parser import HTMLParser

import numpy as np
import pandas as pd
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, rotation
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.report import Run, report_page, run_graph
from quernbrook.workbench.report.facts import run_facts, symbol_table
from quernbrook.workbench.seeing.causes import Cause


class Page(HTMLParser):
    """The elements of a page, the text outside scripts and styles, and the facts that it lists."""

    def __init__(self, text: str) -> None:
        super().__init__()
        self.elements: list[tuple[str, dict[str, str | None]]] = []
        self.text = ""
        self.facts: dict[str, str] = {}
        self._tag = self._name = ""
        self.feed(text)

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        self.elements.append((tag, dict(attrs)))
        self._tag = tag

    def handle_endtag(self, tag: str) -> None:
        self._tag = ""

    def handle_data(self, data: str) -> None:
        self.text += "" if self._tag in ("script", "style") else data
        if self._tag == "dt":
            self._name = data
        if self._tag == "dd":
            self.facts[self._name] = data


@pytest.fixture(scope="module")
def page(run: Run) -> Page:
    return Page(report_page(run))


def test_it_tells_what_ran_and_over_what(page: Page) -> None:
    assert "log(rank(delta(close, 5))) + 0.5" in page.text
    assert "longitudinal_delta" in page.text and "root.c0.c0" in page.text
    assert page.facts["days"] == "60, 2015-01-02 to 2015-03-26"
    assert "inside, 87.5% of cells inside" in page.text and "4 days" in page.text
    assert page.facts["symbols"] == "8" and page.facts["close"].endswith("%")


def test_nothing_is_loaded_from_elsewhere(page: Page) -> None:
    sources = {
        value
        for tag, attributes in page.elements
        for name, value in attributes.items()
        if name in ("src", "href") and not str(value).startswith("#")
    }
    assert sources == {"data:,"}
    assert {tag for tag, _ in page.elements}.isdisjoint({"iframe", "img", "object", "embed"})


def test_every_picture_has_a_text_instead(page: Page) -> None:
    texts = [at["aria-label"] for tag, at in page.elements if at.get("role") == "img"]
    assert len(texts) == 7 == sum(tag == "figure" for tag, _ in page.elements)
    assert all(text and "from 2015-01-02 to 2015-03-26" in text for text in texts)
    assert len(set(texts)) == 7


def test_every_link_has_its_section(page: Page) -> None:
    links = [at["href"] for tag, at in page.elements if tag == "a"]
    assert links == [f"#{at['id']}" for tag, at in page.elements if tag == "section"]


def test_the_run_has_every_cause(run: Run) -> None:
    assert set(np.unique(run.causes)) == set(Cause)


def test_facts_of_a_run_without_any_weight(panel: Panel) -> None:
    graph = parse_formula("log(0 - volume)", features=panel.fields)
    empty = run_graph(graph, panel, default_registry())
    assert run_facts(empty)["gross exposure"] == "none"
    table = symbol_table(empty)
    assert {cells[2] for _, cells in table.rows} == {("", None)}
    assert "0.0% of cells have a weight" in Page(report_page(empty)).text


def test_without_returns_there_is_no_pnl(panel: Panel) -> None:
    bare = Panel(panel.dates, panel.symbols, {"volume": panel.fields["volume"]})
    page = Page(report_page(run_graph(feature("volume"), bare, default_registry())))
    assert "There is no PnL: the data have neither a field returns nor a field close." in page.text
    assert sum(tag == "figure" for tag, _ in page.elements) == 5


def test_returns_of_the_data_go_before_those_of_close(panel: Panel) -> None:
    returns = np.full((60, 8), 0.01)
    fields = {"returns": returns, "close": panel.fields["close"]}
    run = run_graph(feature("close"), Panel(panel.dates, panel.symbols, fields), default_registry())
    assert run.returns is not None and (run.returns.to_numpy() == 0.01).all()
    assert Page(report_page(run)).facts["weights"] == "59.0% in all, deepest drawdown 0.0%"


def test_a_benchmark_is_named(run: Run) -> None:
    benchmark = pd.Series(0.01, index=run.panel.dates, name="SPX")
    for name, told in (("SPX", "SPX"), (None, "benchmark"), ("weights", "weights (benchmark)")):
        page = Page(report_page(run, benchmark=benchmark.rename(name)))
        assert page.facts[told] == "60.0% in all, deepest drawdown 0.0%"


HOSTILE = "</script><script>document.title='taken'</script>"


def test_hostile_names_stay_text(panel: Panel) -> None:
    symbols = pd.Index([HOSTILE, "'\"&\\", "$$x$$", *panel.symbols[3:]])
    fields = {HOSTILE: panel.fields["close"], "close": panel.fields["close"]}
    run = run_graph(feature(HOSTILE), Panel(panel.dates, symbols, fields), default_registry())
    text = report_page(run, benchmark=pd.Series(0.0, index=panel.dates, name=HOSTILE))
    assert HOSTILE not in text and HOSTILE in Page(text).text


def test_a_graph_that_no_formula_tells_is_drawn(panel: Panel) -> None:
    graph = rotation("latitudinal_rank", feature("an odd name"), config={"x": object()})
    run = run_graph(feature("close"), panel, default_registry())
    page = Page(report_page(replace(run, graph=graph)))
    assert "an odd name" in page.text


def test_many_symbols_and_nodes_are_cut_with_a_note() -> None:
    panel = synthetic_panel(1_100, 3)
    graph = feature("close")
    for _ in range(600):
        graph = rotation("numerical_negate", graph)
    run = run_graph(graph, panel, default_registry())
    page = Page(report_page(run))
    assert "and 101 nodes more" in page.text
    assert "The 1,000 of 1,100 symbols with the largest share" in page.text
    assert sum(at.get("scope") == "row" for _, at in page.elements) == 1_000


def test_without_days_there_is_nothing_to_report_on(run: Run) -> None:
    with pytest.raises(ValueError, match=r"nothing to report on: .* \(0, 8\)"):
        report_page(replace(run, weights=run.weights.iloc[:0]))


def test_one_day_of_one_symbol() -> None:
    panel = Panel(
        pd.DatetimeIndex(["2024-01-04"]), pd.Index(["only"]), {"close": np.array([[3.0]])}
    )
    page = Page(report_page(run_graph(feature("close"), panel, default_registry())))
    assert page.facts["days"] == "1, 2024-01-04 to 2024-01-04"
