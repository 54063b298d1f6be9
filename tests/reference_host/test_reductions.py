"""Reductions against plain NumPy formulas."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import default_registry

ROWS, SIGNALS, COLUMNS, WINDOW = 12, 3, 5, 4

rng = np.random.default_rng(3)
BLOCKS = rng.normal(size=(ROWS, SIGNALS, COLUMNS))
# Mixed signs, but every window's mean is positive for the first two signals.
PNL = rng.normal(size=(ROWS, SIGNALS)) * 0.1 + np.array([0.5, 0.3, -0.5])
PNL[:, 0] -= 2 * PNL[:, 0] * (np.arange(ROWS) % WINDOW == 0)


def downside(pnl: np.ndarray) -> np.ndarray:
    return np.sqrt(np.mean(np.where(pnl < 0, pnl, 0.0) ** 2, axis=0))


def ratio(numerator: np.ndarray, denominator: np.ndarray) -> np.ndarray:
    return np.array([n / d if d else 0.0 for n, d in zip(numerator, denominator, strict=True)])


PNL_STATISTICS: dict[tuple[str, str | None], Callable[[np.ndarray], np.ndarray]] = {
    ("weighted_by_vol", "vol"): lambda pnl: pnl.std(axis=0),
    ("weighted_by_vol", "downside_vol"): downside,
    ("weighted_by_sharpe", "sharpe"): lambda pnl: pnl.mean(axis=0) / pnl.std(axis=0),
    ("weighted_by_sharpe", "sortino"): lambda pnl: ratio(pnl.mean(axis=0), downside(pnl)),
    ("weighted_by_pnl", None): lambda pnl: pnl.mean(axis=0),
}


def make(name: str, **config: Any) -> Any:
    return default_registry().create_instance(name, **config)


def run(instance: Any, blocks: np.ndarray = BLOCKS, pnl: np.ndarray = PNL) -> np.ndarray:
    results = []
    for block, signal_pnl in zip(blocks, pnl, strict=True):
        before = block.copy()
        result = instance(block, signal_pnl=signal_pnl)
        np.testing.assert_array_equal(block, before)
        assert not np.shares_memory(result, block)
        results.append(result)
    return np.array(results)


def share(statistic: np.ndarray, invert: bool) -> np.ndarray:
    shares = [0.0 if s <= 0 else 1 / s if invert else s for s in statistic]
    if sum(shares) == 0.0:
        shares = [1.0] * len(shares)
    return np.array(shares) / sum(shares)


@pytest.mark.parametrize("invert", [False, True])
@pytest.mark.parametrize(("name", "stat_name"), PNL_STATISTICS)
def test_weights_follow_the_statistic(name: str, stat_name: str | None, invert: bool) -> None:
    config = {} if stat_name is None else {"stat_name": stat_name}
    result = run(make(name, window=WINDOW, invert=invert, **config))
    assert np.isnan(result[: WINDOW - 1]).all()
    for t in range(WINDOW - 1, ROWS):
        statistic = PNL_STATISTICS[name, stat_name](PNL[t - WINDOW + 1 : t + 1])
        np.testing.assert_allclose(result[t], share(statistic, invert) @ BLOCKS[t], rtol=1e-12)


@pytest.mark.parametrize(
    ("name", "stat_name"),
    [("weighted_by_vol", "vol"), ("weighted_by_sharpe", "sharpe")],
)
def test_first_statistic_is_the_default(name: str, stat_name: str) -> None:
    chosen = run(make(name, window=WINDOW, stat_name=stat_name))
    assert run(make(name, window=WINDOW)).tobytes() == chosen.tobytes()


def test_turnover() -> None:
    blocks = BLOCKS.copy()
    blocks[5, 1, 2] = np.nan
    held = np.nan_to_num(np.concatenate([np.zeros((1, SIGNALS, COLUMNS)), blocks]))
    turnover = np.abs(np.diff(held, axis=0)).sum(axis=2)
    result = run(make("weighted_by_turnover", window=WINDOW), blocks)
    for t in range(WINDOW - 1, ROWS):
        statistic = turnover[t - WINDOW + 1 : t + 1].mean(axis=0)
        np.testing.assert_allclose(result[t], share(statistic, False) @ blocks[t], rtol=1e-12)


def test_signal_without_a_share_brings_no_nan_in() -> None:
    blocks = BLOCKS.copy()
    blocks[:, 2] = np.nan
    result = run(make("weighted_by_pnl", window=WINDOW), blocks)
    assert np.isfinite(result[WINDOW - 1 :]).all()


def test_nan_of_a_signal_with_a_share_stays() -> None:
    blocks = BLOCKS.copy()
    blocks[:, 0, 3] = np.nan
    result = run(make("weighted_by_pnl", window=WINDOW), blocks)
    assert np.isnan(result[WINDOW - 1 :, 3]).all()
    assert np.isfinite(result[WINDOW - 1 :, :3]).all()


def test_signal_with_unknown_pnl_gets_no_share_while_it_is_in_the_window() -> None:
    pnl = PNL.copy()
    pnl[5, 0] = np.nan
    result = run(make("weighted_by_pnl", window=WINDOW), pnl=pnl)
    for t in range(5, 5 + WINDOW):
        np.testing.assert_allclose(result[t], BLOCKS[t, 1], rtol=1e-12)
    unharmed = run(make("weighted_by_pnl", window=WINDOW))
    np.testing.assert_array_equal(result[5 + WINDOW :], unharmed[5 + WINDOW :])


@pytest.mark.parametrize("invert", [False, True])
@pytest.mark.filterwarnings("error")
def test_no_share_for_anyone_gives_the_plain_mean(invert: bool) -> None:
    result = run(make("weighted_by_vol", window=2, invert=invert), pnl=np.full_like(PNL, 0.1))
    np.testing.assert_array_equal(result[1:], BLOCKS[1:].mean(axis=1))


def test_no_signals() -> None:
    instance = make("weighted_by_vol", window=1)
    result = instance(np.empty((0, COLUMNS)), signal_pnl=np.empty(0))
    np.testing.assert_array_equal(result, np.full(COLUMNS, np.nan))


def test_another_number_of_signals_is_refused() -> None:
    instance = make("weighted_by_vol", window=2)
    instance(BLOCKS[0], signal_pnl=PNL[0])
    with pytest.raises(ValueError, match="row has 2 values; the window holds rows of 3"):
        instance(BLOCKS[1, :2], signal_pnl=PNL[1, :2])


def test_plain_mean() -> None:
    instance = make("reduction_mean")
    assert not instance.stateful
    np.testing.assert_array_equal(instance(BLOCKS[0]), BLOCKS[0].mean(axis=0))
