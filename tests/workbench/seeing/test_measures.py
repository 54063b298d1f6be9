"""Measures against values that were computed by hand."""

from __future__ import annotations

import math
from collections.abc import Callable

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra import numpy as arrays
from quernbrook.workbench.panels.panel import Matrix, Vector
from quernbrook.workbench.seeing import measures

NAN: float = math.nan
INF: float = math.inf

WEIGHTS = np.array(
    [
        [NAN, NAN, NAN],
        [1.0, -3.0, NAN],
        [2.0, -2.0, 4.0],
        [0.0, 0.0, NAN],
        [-1.0, INF, 1.0],
        [NAN, 0.5, 0.5],
    ]
)

BY_DAY: dict[Callable[[Matrix], Vector], list[float]] = {
    measures.coverage_by_day: [0.0, 2 / 3, 1.0, 2 / 3, 2 / 3, 2 / 3],
    measures.gross_exposure: [NAN, 4.0, 8.0, 0.0, 2.0, 1.0],
    measures.net_exposure: [NAN, -2.0, 4.0, 0.0, 0.0, 1.0],
    measures.concentration: [NAN, 10 / 16, 24 / 64, NAN, 0.5, 0.5],
    measures.turnover_by_day: [NAN, NAN, 6.0, NAN, NAN, 2.0],
}


@pytest.mark.parametrize("measure", BY_DAY, ids=lambda measure: measure.__name__)
def test_a_measure_by_day(measure: Callable[[Matrix], Vector]) -> None:
    np.testing.assert_allclose(measure(WEIGHTS), BY_DAY[measure])


def test_coverage_counts_what_is_finite() -> None:
    assert measures.coverage(np.array([[1.0, NAN], [INF, 0.0]])) == 0.5


def test_holdings_have_no_net_and_the_size_one() -> None:
    values = np.array([[1.0, 3.0, NAN], [5.0, 5.0, 5.0], [NAN, 2.0, NAN], [0.0, 1.0, 5.0]])
    expected = [[-0.5, 0.5, 0.0], [0.0] * 3, [0.0] * 3, [-1 / 3, -1 / 6, 1 / 2]]
    np.testing.assert_allclose(measures.holdings(values), expected, atol=1e-15)


def test_unit_gross_keeps_the_net_exposure() -> None:
    expected = np.array([[0, 0, 0], [1, -3, 0], [1, -1, 2], [0, 0, 0], [-2, 0, 2]]) / 4
    np.testing.assert_allclose(measures.unit_gross(WEIGHTS)[:5], expected)


def test_turnover_is_the_mean_change_of_days_with_holdings() -> None:
    held = np.array([[0.0, 0.0], [0.5, -0.5], [0.5, -0.5], [-0.5, 0.5], [0.0, 0.0]])
    assert measures.turnover(held) == 1.0
    assert math.isnan(measures.turnover(held[:2]))


def test_returns_are_nan_where_there_is_no_price_before() -> None:
    prices = np.array([[100.0, NAN, 0.0, INF], [110.0, 5.0, 3.0, INF], [99.0, 6.0, NAN, 1.0]])
    expected = [[NAN] * 4, [0.1, NAN, NAN, NAN], [-0.1, 0.2, NAN, -1.0]]
    np.testing.assert_allclose(measures.returns_of(prices), expected)


RETURNS = np.array([[9.0, 9.0], [0.1, 0.2], [NAN, -0.1], [0.3, INF], [0.5, 0.5]])
HELD = np.array([[NAN, NAN], [1.0, -2.0], [0.5, 1.0], [3.0, NAN], [7.0, 7.0]])


def test_weights_earn_the_next_days_returns() -> None:
    by_symbol = np.array([[0, 0], [0, 0], [0, 0.2], [0.15, 0], [1.5, 0]])
    np.testing.assert_allclose(measures.pnl_by_symbol(HELD, RETURNS), by_symbol)
    np.testing.assert_allclose(measures.pnl(HELD, RETURNS), [NAN, NAN, 0.2, 0.15, 1.5])


def test_drawdown_counts_from_the_start() -> None:
    earned = np.array([NAN, -1.0, 3.0, NAN, -1.5, 0.5, 2.0])
    np.testing.assert_allclose(measures.cumulative(earned), [0, -1, 2, 2, 0.5, 1, 3])
    np.testing.assert_allclose(measures.drawdown(earned), [0, -1, 0, 0, -1.5, -1, 0])


def test_correlations_of_holdings() -> None:
    held = [np.array([[0.5, -0.5, 0.0]]), np.array([[0.5, 0.0, -0.5]]), np.zeros((1, 3))]
    expected = [[1.0, 0.5, NAN], [0.5, 1.0, NAN], [NAN, NAN, NAN]]
    np.testing.assert_allclose(measures.correlations(held), expected)


@pytest.mark.parametrize("shape", [(0, 3), (1, 1), (1, 3)])
@pytest.mark.parametrize("measure", BY_DAY, ids=lambda measure: measure.__name__)
def test_without_days_or_weights(
    measure: Callable[[Matrix], Vector], shape: tuple[int, int]
) -> None:
    found = measure(np.full(shape, NAN))
    assert found.shape == shape[:1] and not np.nan_to_num(found).any()
    assert measures.pnl(np.zeros(shape), np.zeros(shape)).shape == shape[:1]
    assert measures.drawdown(np.zeros(shape[0])).shape == shape[:1]


CELLS = st.one_of(st.sampled_from([NAN, INF, -INF, 0.0]), st.floats(-1e6, 1e6))


@given(arrays.arrays(np.float64, arrays.array_shapes(min_dims=2, max_dims=2), elements=CELLS))
def test_bounds(weights: Matrix) -> None:
    before = weights.copy()
    scaled = measures.unit_gross(weights)
    gross, net = measures.gross_exposure(weights), measures.net_exposure(weights)
    known = ~np.isnan(gross)
    assert (np.abs(net[known]) <= gross[known] * (1 + 1e-12)).all()
    _between(measures.turnover_by_day(scaled), 0.0, 2.0)
    _between(measures.concentration(weights), 1.0 / weights.shape[1], 1.0)
    assert (measures.drawdown(gross) <= 0.0).all()
    np.testing.assert_array_equal(weights, before)


def _between(values: Vector, low: float, high: float) -> None:
    known = values[~np.isnan(values)]
    assert ((known >= low * (1 - 1e-9)) & (known <= high * (1 + 1e-9))).all()
