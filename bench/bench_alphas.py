"""The 101 published formulas in one run and one by one, and the same in other libraries.

pandas has all of them, as the tests transcribe them, and polars a part. KunQuant, a compiler of
such formulas, takes part where it is installed; it has 82 of them, and the minutes in which it
compiles them are not timed. All run in one thread, in double precision.
"""

from __future__ import annotations

from collections.abc import Callable, Iterable
from functools import cache, partial
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.alphas import published_graphs
from quernbrook.workbench.panels import Panel, synthetic_panel
from quernbrook.workbench.together import evaluate_together
from workbench.pandas_formulas import FORMULAS, Market

from bench import alphas_in_pandas, alphas_in_polars, memory
from bench.evaluators import MODULE

UNIT = "ns a cell and formula"
SMALL, LARGE = (260, 64), (2000, 496)
shapes = pytest.mark.parametrize(("rows", "columns"), [SMALL, LARGE])
GRAPHS = published_graphs()


@cache
def panel_of(rows: int, columns: int) -> Panel:
    return synthetic_panel(share_count=columns, day_count=rows)


def workload(rows: int, columns: int) -> str:
    return f"published formulas in one run, {rows:,} x {columns}"


def evaluate_singly(numbers: Iterable[int], context: EvaluationContext) -> list[Any]:
    # All results are kept, here and by the others, as one run keeps them.
    return [evaluate(GRAPHS[number], context) for number in numbers]


def context_of(columns: int, rows: int) -> Any:
    return panel_of(rows, columns).context(default_registry())


def context_without_states(columns: int, rows: int) -> Any:
    context = context_of(columns, rows)
    # They are results, and Python's numbers take more room than all else.
    context._collect_states = False
    return context


def memory_of_all(rows: int, columns: int) -> str:
    """What one run of all takes at most beyond the features and the matrices of results."""
    prepare = partial(context_without_states, columns)
    results = len(GRAPHS) * rows * columns * 8
    return memory.beyond_result(prepare, rows, partial(evaluate_together, GRAPHS), results)


@shapes
def test_in_one_run(measure: Callable[..., None], rows: int, columns: int) -> None:
    context = context_of(columns, rows)
    measure(
        lambda: evaluate_together(GRAPHS, context),
        workload=workload(rows, columns),
        contender=MODULE,
        count=rows * columns * len(GRAPHS),
        unit=UNIT,
        rounds=3,
        memory=memory_of_all(rows, columns),
    )


@shapes
def test_one_by_one(measure: Callable[..., None], rows: int, columns: int) -> None:
    context = context_of(columns, rows)
    measure(
        lambda: evaluate_singly(GRAPHS, context),
        workload=workload(rows, columns),
        contender="101, one by one",
        count=rows * columns * len(GRAPHS),
        unit=UNIT,
        rounds=3,
    )


@pytest.mark.parametrize(("rows", "columns"), [SMALL, pytest.param(*LARGE, marks=pytest.mark.slow)])
def test_pandas(measure: Callable[..., None], rows: int, columns: int) -> None:
    with alphas_in_pandas.formulas(panel_of(rows, columns)) as formulas:
        measure(
            lambda: [compute() for compute in formulas.values()],
            workload=workload(rows, columns),
            contender=f"pandas, {len(formulas)}",
            count=rows * columns * len(formulas),
            unit=UNIT,
            rounds=1,
        )


@pytest.mark.slow
def test_pandas_of_the_tests(measure: Callable[..., None]) -> None:
    """The tests' formulas as they are: a window at a time, in extended precision."""
    panel = panel_of(*SMALL)
    market = Market({name: panel.frame(values) for name, values in panel.fields.items()})
    measure(
        lambda: [formula(market) for formula in FORMULAS.values()],
        workload=workload(*SMALL),
        contender="pandas of the tests, 101",
        count=SMALL[0] * SMALL[1] * len(FORMULAS),
        unit=UNIT,
        rounds=1,
    )


@shapes
@pytest.mark.parametrize("contender", [MODULE, "polars"])
def test_those_of_polars(
    measure: Callable[..., None], rows: int, columns: int, contender: str
) -> None:
    numbers = list(alphas_in_polars.FORMULAS)
    table = alphas_in_polars.long_table(panel_of(rows, columns))
    context = context_of(columns, rows)
    runs: dict[str, Callable[[], Any]] = {
        MODULE: lambda: evaluate_singly(numbers, context),
        "polars": lambda: [alphas_in_polars.run(number, table) for number in numbers],
    }
    measure(
        runs[contender],
        workload=f"{len(numbers)} of them, one by one, {rows:,} x {columns}",
        contender=contender,
        count=rows * columns * len(numbers),
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
