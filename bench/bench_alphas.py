"""The 101 published formulas in one run, one by one, and in a compiler of such formulas.

KunQuant takes part where it is installed; it has 82 of the formulas, and the minutes in which it
compiles them are not timed. All run in one thread, in double precision.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import cache
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import evaluate
from quernbrook.workbench.alphas import published_graphs
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.together import evaluate_together

UNIT = "ns a cell and formula"
shapes = pytest.mark.parametrize(("rows", "columns"), [(260, 64), (2000, 496)])


@cache
def panel_of(rows: int, columns: int) -> Panel:
    return synthetic_panel(share_count=columns, day_count=rows)


def workload(rows: int, columns: int) -> str:
    return f"published formulas, {rows:,} x {columns}"


@shapes
@pytest.mark.parametrize("together", [True, False])
def test_alphas(measure: Callable[..., None], rows: int, columns: int, together: bool) -> None:
    graphs = published_graphs()
    context = panel_of(rows, columns).context(default_registry())

    def one_by_one() -> None:
        for graph in graphs.values():
            evaluate(graph, context)

    measure(
        (lambda: evaluate_together(graphs, context)) if together else one_by_one,
        workload=workload(rows, columns),
        contender="101 in one run" if together else "101, one by one",
        count=rows * columns * len(graphs),
        unit=UNIT,
        rounds=3,
    )


@cache
def compiled_elsewhere() -> tuple[Any, list[str]]:
    cfake = pytest.importorskip("KunQuant.jit.cfake")
    op = pytest.importorskip("KunQuant.Op")
    stage = pytest.importorskip("KunQuant.Stage")
    alphas = pytest.importorskip("KunQuant.predefined.Alpha101")
    builder = op.Builder()
    with builder:
        fields = {
            name: op.Input(name) for name in ("open", "close", "high", "low", "volume", "amount")
        }
        data = alphas.AllData(**fields)
        for formula in alphas.all_alpha:
            op.Output(formula(data), formula.__name__)
    options = {"opt_reduce": True, "fast_log": True, "no_fast_stat": "no_warn"}
    settings = cfake.KunCompilerConfig(
        partition_factor=4, dtype="double", input_layout="TS", output_layout="TS", options=options
    )
    function = ("alphas", stage.Function(builder.ops), settings)
    library = cfake.compileit([function], "alphas", cfake.CppCompilerConfig())
    return library, [formula.__name__ for formula in alphas.all_alpha]


@shapes
@pytest.mark.slow
def test_compiled_elsewhere(measure: Callable[..., None], rows: int, columns: int) -> None:
    runner = pytest.importorskip("KunQuant.runner").KunRunner
    library, names = compiled_elsewhere()
    fields = panel_of(rows, columns).fields
    inputs = {name: fields[name] for name in ("open", "close", "high", "low", "volume")}
    inputs["amount"] = np.ascontiguousarray(fields["volume"] * fields["vwap"])
    outputs = {name: np.empty((rows, columns)) for name in names}
    executor = runner.createSingleThreadExecutor()
    module = library.getModule("alphas")
    measure(
        lambda: runner.runGraph(executor, module, inputs, 0, rows, outputs),
        workload=workload(rows, columns),
        contender=f"KunQuant, {len(names)}",
        count=rows * columns * len(names),
        unit=UNIT,
        rounds=3,
    )
