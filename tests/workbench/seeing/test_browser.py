"""A report in a browser that has no network: drawn, read and clicked through."""

from __future__ import annotations

import io
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
import pytest
from PIL import Image
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.report import Run, report_page, run_graph
from quernbrook.workbench.seeing import measures
from selenium.webdriver import ActionChains, Chrome
from selenium.webdriver.common.by import By
from support.browsers import complaints, requested

PATIENCE = 60.0


@pytest.fixture(scope="module")
def file(run: Run, tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("report") / "report.html"
    path.write_text(report_page(run), "utf-8")
    return path


@pytest.fixture
def opened(browser: Chrome, file: Path) -> Chrome:
    open_page(browser, file)
    return browser


def open_page(browser: Chrome, path: Path) -> None:
    browser.get_log("browser")
    browser.get_log("performance")
    browser.get(path.as_uri())
    wait(lambda: browser.execute_script("return document.documentElement.dataset.drawn") == "true")


def wait(is_there: Callable[[], bool]) -> None:
    end = time.monotonic() + PATIENCE
    while not is_there():
        assert time.monotonic() < end, "the page didn't get there"
        time.sleep(0.02)


# Of the picture whose curves have this title: the view that Bokeh keeps of it.
FIGURE = """
const figure = Bokeh.documents.flatMap((one) => one.roots())
  .find((one) => (one.title.text ?? one.title) === arguments[0]);
"""


def figure(browser: Chrome, title: str, expression: str) -> Any:
    return browser.execute_script(f"{FIGURE} return {expression};", title)


def test_it_is_drawn_without_network_and_complaints(opened: Chrome, file: Path) -> None:
    addresses = [address for address in requested(opened) if not address.startswith("data:")]
    assert addresses == [file.as_uri()]
    assert complaints(opened) == []
    count = opened.execute_script("""
        const inside = (node) => [node, ...[...node.querySelectorAll("*")]
          .flatMap((one) => one.shadowRoot ? inside(one.shadowRoot) : [])];
        const drawn = inside(document).flatMap((one) => [...one.querySelectorAll("canvas")]);
        return drawn.filter((one) => one.getContext("2d").getImageData(
          0, 0, one.width, one.height).data.some((part) => part !== 0)).length;
    """)
    assert count >= 7


def test_pictures_hold_the_numbers(opened: Chrome, run: Run) -> None:
    shown = figure(
        opened,
        "Exposure",
        "Array.from(figure.renderers[0].data_source.get_column('curve_0'), "
        "(one) => isNaN(one) ? null : one)",
    )
    # JSON has no NaN.
    found = [np.nan if value is None else value for value in shown]
    np.testing.assert_allclose(found, measures.gross_exposure(run.weights.to_numpy()), rtol=1e-6)


def test_links_lead_to_sections(opened: Chrome) -> None:
    for link in opened.find_elements(By.CSS_SELECTOR, "nav a"):
        link.click()
        section = opened.execute_script("return document.querySelector(location.hash)")
        assert section.find_element(By.TAG_NAME, "h2").is_displayed()
        assert (
            opened.execute_script("return arguments[0].getBoundingClientRect().top", section) < 900
        )


def test_the_tree_unfolds(opened: Chrome) -> None:
    tree = opened.find_element(By.CSS_SELECTOR, "details pre")
    assert not tree.is_displayed()
    opened.find_element(By.TAG_NAME, "summary").click()
    assert tree.is_displayed() and "longitudinal_delta" in tree.text


def names(browser: Chrome) -> list[str]:
    cells = browser.find_elements(By.CSS_SELECTOR, "#symbols tbody tr:not([hidden]) th")
    return [cell.text for cell in cells]


def test_the_table_is_sorted_by_its_heads(opened: Chrome, run: Run) -> None:
    symbols = [str(symbol) for symbol in run.panel.symbols]
    by_name, _, _, _, last, _ = opened.find_elements(By.CSS_SELECTOR, "#symbols thead button")
    by_name.click()
    assert names(opened) == sorted(symbols)
    by_name.click()
    assert names(opened) == sorted(symbols, reverse=True)
    final = run.weights.iloc[-1].sort_values(ascending=False, na_position="last")
    known = [str(symbol) for symbol in final.dropna().index]
    last.click()
    assert names(opened)[: len(known)] == known
    last.click()
    # Those without a weight stay last.
    assert names(opened)[: len(known)] == known[::-1]
    sorted_by = opened.find_elements(By.CSS_SELECTOR, "th[aria-sort]")
    assert [(one.text[:11], one.get_attribute("aria-sort")) for one in sorted_by] == [
        ("last weight", "ascending")
    ]


def test_the_table_is_searched(opened: Chrome) -> None:
    opened.find_element(By.ID, "wanted").send_keys("s3")
    assert names(opened) == ["S3"]
    assert opened.find_element(By.ID, "count").text == "1 of 8"


# What the box beside the pointer says.
TOLD = """
const inside = (node) => [node, ...[...node.querySelectorAll("*")]
  .flatMap((one) => one.shadowRoot ? inside(one.shadowRoot) : [])];
return inside(document).flatMap((one) => [...one.querySelectorAll(".bk-tooltip-row-value")])
  .map((one) => one.textContent.trim());
"""


def point(browser: Chrome, x: float, y: float, *, click: bool = False) -> None:
    actions = ActionChains(browser)
    actions.w3c_actions.pointer_action.move_to_location(int(x), int(y))
    if click:
        actions.w3c_actions.pointer_action.click()
    actions.perform()


def wait_until_told(browser: Chrome, texts: list[str]) -> None:
    wait(lambda: bool(browser.execute_script(TOLD) == texts))


def test_pointing_at_a_curve_tells_its_values(opened: Chrome) -> None:
    place = """
        const view = Bokeh.index.find_one(figure);
        view.el.scrollIntoView({block: "center"});
        const outer = view.el.getBoundingClientRect();
        const inner = view.frame.bbox;
        return [outer.left + inner.left + inner.width / 2, outer.top + inner.top + inner.height / 2];
    """
    point(opened, *opened.execute_script(FIGURE + place, "Exposure"))
    wait(lambda: len(opened.execute_script(TOLD)) == 3)
    date, gross, net = opened.execute_script(TOLD)
    assert date.startswith("2015-0") and abs(float(net)) <= float(gross)


def test_a_click_on_the_legend_hides_a_curve(opened: Chrome) -> None:
    visible = "figure.renderers.map((one) => one.visible)"
    assert figure(opened, "Exposure", visible) == [True, True]
    place = opened.execute_script(
        FIGURE
        + """
        const legend = figure.below.find((one) => one.items);
        const view = Bokeh.index.find_one(legend);
        Bokeh.index.find_one(figure).el.scrollIntoView({block: "center"});
        const items = [...view.el.shadowRoot.querySelectorAll(".bk-item")];
        const box = items[0].getBoundingClientRect();
        return [box.left + box.width / 2, box.top + box.height / 2];
        """,
        "Exposure",
    )
    point(opened, *place, click=True)
    wait(lambda: bool(figure(opened, "Exposure", visible) == [False, True]))


def test_all_curves_show_the_same_days(opened: Chrome) -> None:
    opened.execute_script(f"{FIGURE} figure.x_range.start += 1e9;", "Turnover")
    start = "figure.x_range.start"
    assert figure(opened, "PnL", start) == figure(opened, "Turnover", start)


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_light_and_dark_are_readable(browser: Chrome, file: Path, scheme: str) -> None:
    media = {"features": [{"name": "prefers-color-scheme", "value": scheme}]}
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", media)
    open_page(browser, file)
    page, text, quiet, link = (
        browser.execute_script(
            "return getComputedStyle(document.documentElement).getPropertyValue(arguments[0])", name
        )
        for name in ("--page", "--text", "--quiet", "--link")
    )
    assert luminance(page) > 0.9 if scheme == "light" else luminance(page) < 0.05
    # What WCAG 2 asks for texts, level AA.
    assert min(contrast(colour, page) for colour in (text, quiet, link)) >= 4.5
    for title in ("Weights", "PnL"):
        assert figure(browser, title, "figure.below[0].major_label_text_color") == text.strip()
    legend = "figure.below.find((one) => one.items).label_text_color"
    assert figure(browser, "PnL", legend) == text.strip()
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})


def luminance(colour: str) -> float:
    parts = [int(colour.strip()[place : place + 2], 16) / 255 for place in (1, 3, 5)]
    linear = [one / 12.92 if one <= 0.04045 else ((one + 0.055) / 1.055) ** 2.4 for one in parts]
    return float(np.dot(linear, (0.2126, 0.7152, 0.0722)))


def contrast(one: str, other: str) -> float:
    dark, light = sorted((luminance(one), luminance(other)))
    return (light + 0.05) / (dark + 0.05)


def test_a_phone_needs_no_sideways_scrolling(browser: Chrome, file: Path) -> None:
    phone = {"width": 360, "height": 740, "deviceScaleFactor": 2, "mobile": True}
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", phone)
    open_page(browser, file)
    assert browser.execute_script("return document.documentElement.scrollWidth") <= 360
    wait(lambda: bool(figure(browser, "PnL", "Bokeh.index.find_one(figure).bbox.width") <= 360))
    assert figure(browser, "PnL", "Bokeh.index.find_one(figure).frame.bbox.width") > 200
    browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})


def screenshot(browser: Chrome) -> Any:
    return Image.open(io.BytesIO(browser.get_screenshot_as_png())).convert("RGB")


def test_cells_stand_at_their_day_and_symbol(browser: Chrome, tmp_path: Path) -> None:
    values = np.full((5, 4), -1.0)
    values[:, 0] = 1.0
    values[0, 3] = 1.0
    dates = pd.bdate_range("2024-01-01", periods=5)
    panel = Panel(dates, pd.Index(list("ABCD")), {"x": values})
    path = tmp_path / "cells.html"
    path.write_text(report_page(run_graph(feature("x"), panel, default_registry())), "utf-8")
    open_page(browser, path)
    inner = """
        const view = Bokeh.index.find_one(figure);
        view.el.scrollIntoView({block: "center"});
        const outer = view.el.getBoundingClientRect();
        const box = view.frame.bbox;
        return [outer.left + box.left, outer.top + box.top, box.width, box.height];
    """
    left, top, width, height = browser.execute_script(FIGURE + inner, "Weights")
    # The page is painted a moment after it says that it is ready.
    wait(lambda: min(screenshot(browser).getpixel((int(left) + 9, int(top) + 9))) < 128)
    screen = screenshot(browser)
    for day, symbol in ((0, 0), (4, 0), (0, 3), (4, 3), (1, 1)):
        x = left + (day + 0.3) / 5 * width
        y = top + (symbol + 0.3) / 4 * height
        pixel = screen.getpixel((int(x), int(y)))
        is_blue = pixel[2] > pixel[0]
        assert is_blue == (values[day, symbol] > 0.0)
        point(browser, x, y)
        told = [str(dates[day].date()), "ABCD"[symbol], f"{values[day, symbol]:.4f}"]
        wait_until_told(browser, told)


def test_hostile_names_are_shown_and_not_run(browser: Chrome, tmp_path: Path) -> None:
    hostile = "</script><script>document.title='taken'</script><img src=x onerror=alert(1)>"
    dates = pd.bdate_range("2024-01-01", periods=5)
    symbols = pd.Index([hostile, "$$x$$", "\\'\"&"])
    values = np.random.default_rng(1).normal(100.0, 1.0, (5, 3))
    panel = Panel(dates, symbols, {hostile: values, "close": values})
    run = run_graph(feature(hostile), panel, default_registry())
    page = report_page(run, benchmark=pd.Series(0.01, index=dates, name=hostile))
    path = tmp_path / "hostile #1.html"
    path.write_text(page, "utf-8")
    open_page(browser, path)
    assert browser.title != "taken" and complaints(browser) == []
    assert hostile in names(browser)
    labels = figure(browser, "Weights", "[...figure.left[0].major_label_overrides.values()]")
    assert labels == list(symbols)
