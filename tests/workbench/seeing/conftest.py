"""Runs that are reported on, and a browser without a window."""

from __future__ import annotations

import os
import shutil
from collections.abc import Iterator

import numpy as np
import pandas as pd
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.report import Run, run_graph
from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.service import Service


@pytest.fixture(scope="session")
def panel() -> Panel:
    return synthetic_panel(8, 60)


@pytest.fixture(scope="session")
def run(panel: Panel) -> Run:
    """With every cause of NaN, and weights of both signs."""
    inside = np.ones((60, 8))
    inside[:, 0] = 0.0
    fields = {**panel.fields, "inside": inside}
    graph = parse_formula("log(rank(delta(close, 5))) + 0.5", features=fields)
    whole = Panel(panel.dates, panel.symbols, fields)
    return run_graph(graph, whole, default_registry(), universe="inside")


@pytest.fixture
def weights() -> pd.DataFrame:
    dates = pd.to_datetime(["2024-01-04", "2024-01-05", "2024-01-08"])
    return pd.DataFrame(
        [[1.0, -1.0], [2.0, np.nan], [-3.0, 1.0]], index=dates, columns=["up", "down"]
    )


@pytest.fixture(scope="session")
def browser(tmp_path_factory: pytest.TempPathFactory) -> Iterator[webdriver.Chrome]:
    program, driver = shutil.which("chromium"), shutil.which("chromedriver")
    if program is None or driver is None:
        pytest.skip("no browser: on Debian, 'apt-get install chromium chromium-driver'")
    options = webdriver.ChromeOptions()
    options.binary_location = program
    profile = tmp_path_factory.mktemp("profile")
    for argument in (
        "--headless=new",
        # Root may not make the browser's own sandbox.
        "--no-sandbox",
        "--disable-dev-shm-usage",
        "--window-size=1200,900",
        f"--user-data-dir={profile}",
        # Whatever a page asks the network for isn't found.
        "--host-resolver-rules=MAP * ~NOTFOUND",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    # What is preloaded into the interpreter is not for the browser.
    variables = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    try:
        started = webdriver.Chrome(options, Service(driver, env=variables))
    except WebDriverException as error:
        pytest.skip(f"the browser doesn't start here: {error.msg}")
    with started as opened:
        yield opened
