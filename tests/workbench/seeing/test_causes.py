"""Each cause of NaN in cells that are known to have it, and any node's output."""

from __future__ import annotations

import numpy as np
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench import parse_formula
from quernbrook.workbench.panels import synthetic_panel
from quernbrook.workbench.panels.panel import Matrix
from quernbrook.workbench.seeing.causes import Cause, causes_by_day, history_rows, nan_causes
from quernbrook.workbench.seeing.nodes import node_output

DAYS = 8
LETTERS = {"v": "VALUE", "w": "WARM_UP", "u": "UNIVERSE", "m": "MISSING_DATA", "c": "COMPUTED"}


def context(
    x: Matrix, y: Matrix | None = None, universe: Matrix | None = None
) -> EvaluationContext:
    features = (x, np.ones_like(x) if y is None else y)
    return EvaluationContext(
        features, {"x": 0, "y": 1}, universe=universe, registry=default_registry()
    )


def column(**cells: float) -> Matrix:
    """A feature of one symbol: 1, 2, 3, ... but for some days, "d3=nan"."""
    values = np.arange(1.0, DAYS + 1.0, dtype=np.float64)
    for name, value in cells.items():
        values[int(name[1:])] = value
    return values[:, np.newaxis]


def causes(formula: str, held: EvaluationContext) -> str:
    graph = parse_formula(formula)
    found = nan_causes(evaluate(graph, held).weights, graph, held)
    letters = {Cause[name]: letter for letter, name in LETTERS.items()}
    return "".join(letters[Cause(cause)] for cause in found[:, 0])


@pytest.mark.parametrize(
    ("formula", "expected"),
    [
        ("x", "vvvvvvvv"),
        ("sum(x, 3)", "wwvvvvvv"),
        ("sum(x, 1)", "vvvvvvvv"),
        # Two rows are blanked, but the value of three days ago is lacking one day longer.
        ("delay(x, 3)", "wwwvvvvv"),
        ("delta(sum(x, 2), 2)", "wwwvvvvv"),
        ("sum(x, 2) + delay(y, 4)", "wwwwvvvv"),
        ("log(0 - x)", "cccccccc"),
        # The logarithm of 0 is NaN, too, and the last one stands in two windows.
        ("sum(log(x - 3), 2)", "wcccvvvv"),
    ],
)
def test_warm_up_and_what_functions_compute(formula: str, expected: str) -> None:
    assert causes(formula, context(column())) == expected


@pytest.mark.parametrize(
    ("formula", "expected"),
    [
        ("x", "vvvvmvvv"),
        ("y", "vvvvvvvv"),
        ("x + y", "vvvvmvvv"),
        ("sum(x, 3)", "wwvvmmmv"),
        ("delay(x, 2)", "wwvvvvmv"),
        # Functions may make numbers of NaN.
        ("min(x, y)", "vvvvvvvv"),
        # On the day itself the data are there.
        ("sum(y, 3) * delay(x, 1)", "wwvvvmvv"),
    ],
)
def test_missing_data(formula: str, expected: str) -> None:
    assert causes(formula, context(column(d4=np.nan))) == expected


def test_missing_data_go_before_what_functions_compute() -> None:
    assert causes("log(sum(0 - x, 2))", context(column(d4=np.nan))) == "wcccmmcc"


def test_outside_the_universe_and_in_its_shadow() -> None:
    universe = column(d3=0.0, d6=np.nan)
    held = context(column(d3=np.nan, d7=np.nan), universe=universe)
    # What is missing outside the universe is not missed.
    assert causes("x", held) == "vvvuvvum"
    assert causes("sum(x, 2)", held) == "wvvuuvum"


def test_negative_and_infinite_universe_is_inside() -> None:
    held = context(column(d3=np.nan), universe=column(d2=-1.0, d3=np.inf, d4=-0.0))
    assert causes("x", held) == "vvvmuvvv"


def test_missing_in_other_columns_is_computed() -> None:
    x = np.array([[1.0, 2.0], [1.0, np.nan], [1.0, 2.0]])
    held = context(x)
    graph = parse_formula("rank(x)")
    found = nan_causes(evaluate(graph, held).weights, graph, held)
    expected = [["VALUE"] * 2, ["COMPUTED", "MISSING_DATA"], ["VALUE"] * 2]
    assert [[Cause(cause).name for cause in row] for row in found] == expected
    shares = causes_by_day(found)
    assert shares[Cause.COMPUTED].tolist() == [0.0, 0.5, 0.0]
    np.testing.assert_allclose(sum(shares.values()), 1.0)


def test_features_that_the_run_was_told_are_missing() -> None:
    held = context(column(), universe=column(d2=0.0))
    graph = parse_formula("x + y")
    result = evaluate(graph, held, data_nan_features={"x", "y"})
    assert result.nan_source["root"] == "data_nan"
    found = nan_causes(result.weights, graph, held, data_nan_features={"x", "y"})
    assert [Cause(cause).name for cause in found[1:4, 0]] == [
        "MISSING_DATA",
        "UNIVERSE",
        "MISSING_DATA",
    ]


def test_a_leaf_needs_no_registry() -> None:
    held = EvaluationContext((column(d4=np.nan),), {"x": 0})
    graph = parse_formula("x")
    assert nan_causes(column(d4=np.nan), graph, held)[4] == Cause.MISSING_DATA


def test_values_of_another_shape_are_refused() -> None:
    with pytest.raises(ValueError, match=r"shape \(2, 2\), the features \(8, 1\)"):
        nan_causes(np.zeros((2, 2)), parse_formula("x"), context(column()))


def test_history_is_that_of_the_longest_way() -> None:
    graph = parse_formula("sum(delay(x, 3), 5) + x - correlation(y, delta(y, 2), 4)")
    assert history_rows(graph, default_registry()) == {"x": 7, "y": 5}


@pytest.mark.parametrize("number", range(3))
def test_all_causes_hold_on_a_rough_market(number: int) -> None:
    """Changing what a cause names changes the cell, and nothing else does."""
    panel = synthetic_panel(8, 60, seed=number)
    held = panel.context(default_registry())
    graph = parse_formula("sum(returns, 4) * delay(volume, 6)")
    found = nan_causes(evaluate(graph, held).weights, graph, held)
    filled = {name: np.nan_to_num(values, nan=1.0) for name, values in panel.fields.items()}
    full = EvaluationContext(tuple(filled.values()), held.feature_index, registry=held.registry)
    without = evaluate(graph, full).weights
    assert (found[:6] == Cause.WARM_UP).all() and np.isnan(without[:6]).all()
    missing = found == Cause.MISSING_DATA
    assert missing.any() and np.isfinite(without[missing]).all()
    assert not (found == Cause.UNIVERSE).any()


def test_the_output_of_any_node() -> None:
    x = column(d4=np.nan)
    held = context(x, universe=column(d1=0.0))
    graph = parse_formula("log(sum(x, 2)) * 3")
    masked = np.where(np.arange(DAYS)[:, np.newaxis] == 1, np.nan, x)
    sums = masked + np.vstack([[[np.nan]], masked[:-1]])
    np.testing.assert_allclose(node_output(graph, held, "root.c0.c0.c0"), masked)
    np.testing.assert_allclose(node_output(graph, held, "root.c0.c0"), sums)
    np.testing.assert_allclose(node_output(graph, held, "root.c0"), np.log(sums))
    np.testing.assert_allclose(node_output(graph, held, "root"), np.log(sums) * 3)
    assert (node_output(graph, held, "root.c1") == 3.0).all()
    # The caller's context is as it was.
    assert not evaluate(graph, held).node_outputs


def test_a_node_that_is_not_there() -> None:
    with pytest.raises(ValueError, match=r"no node 'root.c7'; the nearest is 'root.c"):
        node_output(parse_formula("x + y"), context(column()), "root.c7")
