"""Runs that are reported on, and a browser without a window."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import pandas as pd
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.report import Run, run_graph
from selenium.webdriver import Chrome
from support.browsers import open_browser


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
def browser(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Chrome]:
    with open_browser(tmp_path_factory.mktemp("profile")) as opened:
        yield opened
