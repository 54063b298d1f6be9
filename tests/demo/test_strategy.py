"""The strategy: its graph, its honesty, and the stages around it."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import backtest
import graphs
import market
import numpy as np
import pool
import prices
import pytest
import simulation
import stages
from quernbrook.reference_host import default_registry, nodes_by_path
from turnover_cap import TurnoverCap

SELECTION_DAYS = 300
WARM_UP = 258


@pytest.fixture(scope="module")
def loaded(small_file: Path) -> prices.Prices:
    return prices.load(small_file)


@pytest.fixture(scope="module")
def whole(loaded: prices.Prices) -> market.Market:
    return market.build(loaded)


@pytest.fixture(scope="module")
def simulated(whole: market.Market) -> simulation.Simulation:
    return simulation.run(whole, default_registry(), SELECTION_DAYS)


def test_a_share_enters_the_universe_after_enough_returns(whole: market.Market) -> None:
    entered = whole.universe.argmax(axis=0)
    assert entered.tolist() == [120] * 5 + [220]
    assert (np.diff(whole.universe, axis=0) >= 0.0).all()


def test_the_graph_has_rotations_along_time_and_a_filtered_reduction() -> None:
    nodes = nodes_by_path(graphs.strategy_graph())
    assert len(nodes) >= 10
    kinds = [node.type for node in nodes.values()]
    assert kinds.count("reduction") == kinds.count("filtration") == 1
    stateful = {
        path
        for path, node in nodes.items()
        if node.type in ("rotation", "reduction")
        and default_registry().get_entry(node.node).stateful
    }
    windows = {path for path in stateful if any(c.type == "int" for c in nodes[path].children)}
    assert windows == stateful
    assert {nodes[path].node for path in stateful} >= {"longitudinal_mean", "longitudinal_std"}


def test_every_stateful_node_hands_out_a_state_of_all_rows(
    simulated: simulation.Simulation,
) -> None:
    assert len(simulated.states) == 4
    assert {state.state_data["count"] for state in simulated.states.values()} == {650}


def test_weights_are_shares_of_the_whole_once_there_are_any(
    simulated: simulation.Simulation,
) -> None:
    assert simulated.start == SELECTION_DAYS
    assert np.isnan(simulated.weights[:WARM_UP]).all()
    np.testing.assert_allclose(np.nansum(simulated.weights[WARM_UP:], axis=1), 1.0, rtol=1e-12)


def test_later_prices_change_no_earlier_weight(
    loaded: prices.Prices, simulated: simulation.Simulation
) -> None:
    altered = loaded.values.copy()
    altered[401:] *= np.random.default_rng(3).uniform(0.5, 2.0, altered[401:].shape)
    other = market.build(replace(loaded, values=altered))
    weights = simulation.run(other, default_registry(), SELECTION_DAYS).weights
    assert np.array_equal(weights[:401], simulated.weights[:401], equal_nan=True)
    assert not np.array_equal(weights[401], simulated.weights[401])


def test_weights_earn_the_return_of_the_next_day() -> None:
    weights = np.array([[np.nan, np.nan], [0.5, 0.5], [1.0, np.nan]])
    returns = np.array([[np.nan, np.nan], [0.4, 0.4], [0.1, 0.3]])
    daily = backtest.daily_returns(weights, returns)
    np.testing.assert_allclose(daily, [np.nan, np.nan, 0.2])


def test_equal_weights_hold_the_universe_alone() -> None:
    weights = backtest.equal_weights(np.array([[0.0, 0.0], [1.0, 0.0], [1.0, 1.0]]))
    assert np.isnan(weights[0]).all()
    assert weights[1:].tolist() == [[1.0, 0.0], [0.5, 0.5]]


def test_the_figures_of_a_known_course() -> None:
    weights = np.array([[1.0], [1.0], [0.5]])
    figures = backtest.measure(weights, np.array([[np.nan], [0.25], [-0.5]]))
    assert figures.drawdown == pytest.approx(-0.5)
    assert figures.turnover == pytest.approx(0.25)
    assert figures.growth == pytest.approx((1.25 * 0.5) ** (252 / 2) - 1.0)


def test_a_difference_is_measured_and_misplaced_nan_is_none() -> None:
    expected = np.array([np.nan, 1.0, 2.0])
    assert backtest.largest_difference(expected, expected.copy()) == 0.0
    assert backtest.largest_difference(expected, np.array([np.nan, 1.0, 2.5])) == 0.5
    assert backtest.largest_difference(expected, np.array([0.0, 1.0, 2.0])) is None


def test_the_filter_takes_the_best_by_the_selection_days(
    simulated: simulation.Simulation,
) -> None:
    ranked = {name: signal.sharpe for name, signal in simulated.signals.items()}
    ranked = {name: sharpe for name, sharpe in ranked.items() if not np.isnan(sharpe)}
    best = sorted(ranked, key=ranked.__getitem__)[-graphs.TAKEN_SIGNALS :]
    assert len(ranked) > graphs.TAKEN_SIGNALS
    assert pool.taken(simulated.signals) == sorted(best)


def test_stages_scale_and_cap_and_leave_the_state_keys(
    whole: market.Market, simulated: simulation.Simulation
) -> None:
    staged = stages.run(whole, simulated.signals)
    np.testing.assert_allclose(staged["cautious"].weights, simulated.weights * 0.5, rtol=1e-12)
    assert set(staged["cautious"].states) == set(simulated.states)
    assert set(staged["patient"].states) == {*simulated.states, "turnover.root"}
    free, capped = (
        np.abs(np.diff(np.nan_to_num(weights[WARM_UP:]), axis=0)).sum(axis=1)
        for weights in (simulated.weights, staged["patient"].weights)
    )
    assert free.max() > 0.02
    assert capped.max() <= 0.02 + 1e-12


def test_the_turnover_cap_goes_part_of_the_way_and_on_from_a_state() -> None:
    cap = TurnoverCap(0.5)
    missing = np.array([np.nan, np.nan])
    assert np.isnan(cap(missing)).all()
    assert cap(np.array([1.0, 0.0])).tolist() == [1.0, 0.0]
    assert cap(np.array([0.0, 1.0])).tolist() == [0.75, 0.25]
    restored = TurnoverCap(0.5)
    restored.restore(cap.get_state().state_data)
    assert restored(np.array([0.75, np.nan])).tolist()[0] == 0.75
    assert cap(np.array([0.0, 1.0])).tolist() == [0.5, 0.5]
