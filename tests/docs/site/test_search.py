"""The search of the site finds names, errors and events."""

from __future__ import annotations

from pathlib import Path

import pytest
from selenium.webdriver import Chrome
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

RESULTS = "#search-results ul.search li > a"
MODULE = "quernbrook.simulator_engine.expression_evaluator"


def found(browser: Chrome, folder: str, words: str) -> list[str]:
    """Where a search leads, without the highlighted words."""
    browser.get(f"{folder}search.html?q={words}")
    wait = WebDriverWait(browser, 60.0)
    wait.until(lambda _: browser.find_elements(By.CSS_SELECTOR, RESULTS))
    links = browser.find_elements(By.CSS_SELECTOR, RESULTS)
    return [(one.get_attribute("href") or "").partition("?")[0] for one in links]


@pytest.mark.parametrize(
    ("words", "place"),
    [
        ("EvaluationContext", f"reference.html#{MODULE}.EvaluationContext"),
        ("LongitudinalMean", "reference/row_kernels.html#quernbrook.row_kernels.LongitudinalMean"),
        ("walk_forward", "reference/workbench/live.html#quernbrook.workbench.live.walk_forward"),
        (
            "bind_instances",
            "reference/reference_host.html#quernbrook.reference_host.bind_instances",
        ),
        ("get_state_failed", "errors.html"),
        ("registers reshape", "errors.html"),
    ],
)
def test_search(browser: Chrome, address: str, words: str, place: str) -> None:
    links = found(browser, address, words)
    assert address + place in links
    browser.get(address + place)
    fragment = place.partition("#")[2]
    assert not fragment or browser.find_elements(By.ID, fragment)


def test_search_without_a_server(browser: Chrome, site: Path) -> None:
    """Who opens the file that `./run docs` names has a search, too."""
    folder = f"{site.as_uri()}/"
    assert f"{folder}reference.html#{MODULE}.evaluate" in found(browser, folder, "evaluate")
