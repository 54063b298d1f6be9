"""Reports of runs, from a graph and a panel in memory to the page: its seconds and its size.

The mark for 8,313 days of 20 symbols is 5 s and 5 MiB.
"""

from __future__ import annotations

from collections.abc import Callable

import pytest
from quernbrook.reference_host import default_registry
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import synthetic_panel
from quernbrook.workbench.report import report_page, run_graph

shapes = pytest.mark.parametrize(("rows", "columns"), [(8313, 20), (2000, 500), (8313, 500)])


@shapes
def test_report_page(measure: Callable[..., None], rows: int, columns: int) -> None:
    panel = synthetic_panel(share_count=columns, day_count=rows)
    graph = parse_formula("rank(delta(close, 5)) * rank(volume) - 0.3", features=panel.fields)
    registry = default_registry()

    def report() -> str:
        return report_page(run_graph(graph, panel, registry))

    size = len(report().encode())
    measure(
        report,
        workload=f"report, {rows:,} x {columns}",
        contender="quernbrook.workbench.report",
        count=1,
        unit="s a page",
        rounds=3,
        memory=f"{size / 2**20:.2f} MiB",
    )
    assert size < 5 * 2**20
