"""Functions along time: near to their plain definitions, and the same bits however a run is cut."""

from __future__ import annotations

import json
import pickle
from itertools import cycle, repeat
from typing import Any

import numpy as np
import pytest
from quernbrook import row_kernels
from quernbrook.reference_host import SavedState, default_registry
from support.kernel_calls import KernelCall, KernelFailure, strips
from support.library_configs import cases
from support.rough_rows import bits, rough_matrix

COMPILED = default_registry(compiled=True)
PLAIN = default_registry(compiled=False)

# These pick, count or subtract once: nothing is rounded twice.
EXACT = {
    "longitudinal_delay",
    "longitudinal_delta",
    "longitudinal_max",
    "longitudinal_min",
    "longitudinal_days_since_max",
    "longitudinal_days_since_min",
    "longitudinal_rank",
}

along_time = pytest.mark.parametrize(("name", "config"), cases("longitudinal_"))
VALUE_ERROR = 1


def panel(seed: int, rows: int, columns: int, hole: float = 0.02) -> np.ndarray:
    """Random walks near 100, some held still, some rounded, with gaps."""
    rng = np.random.default_rng(seed)
    matrix = 100.0 + np.cumsum(rng.normal(size=(rows, columns)), axis=0)
    matrix[:, ::4] = np.round(matrix[:, ::4])
    matrix[rows // 3 : rows // 2, 1::5] = 7.25
    matrix[rng.random((rows, columns)) < hole] = np.nan
    return matrix


def arguments_of(instance: Any, rows: int, columns: int) -> list[np.ndarray]:
    return [panel(seed, rows, columns) for seed in range(instance.arity)]


def whole(instance: Any, arguments: list[np.ndarray]) -> np.ndarray:
    return KernelCall(instance)(arguments, *arguments[0].shape)


@along_time
@pytest.mark.parametrize(("rows", "columns"), [(40, 1), (90, 5), (90, 33), (60, 200)])
def test_near_to_the_definition(name: str, config: dict[str, Any], rows: int, columns: int) -> None:
    plain = PLAIN.create_instance(name, **config)
    arguments = arguments_of(plain, rows, columns)
    expected = np.array([plain(*row) for row in zip(*arguments, strict=True)])
    result = whole(COMPILED.create_instance(name, **config), arguments)
    if name in EXACT:
        np.testing.assert_array_equal(result, expected)
    else:
        # Values of a few units whose definitions here round them off by more than the kernels do.
        np.testing.assert_allclose(result, expected, rtol=1e-9, atol=1e-9)
    assert np.isfinite(result).any() or config["window"] < 4


@along_time
@pytest.mark.parametrize("columns", [3, 70])
def test_cut_anywhere(name: str, config: dict[str, Any], columns: int) -> None:
    rows = 50
    arguments = arguments_of(COMPILED.create_instance(name, **config), rows, columns)
    expected = bits(whole(COMPILED.create_instance(name, **config), arguments))
    for lengths in (repeat(1), repeat(7), cycle([1, 5, 2, 13])):
        instance = COMPILED.create_instance(name, **config)
        kernel, parts = KernelCall(instance), []
        for number, part in enumerate(strips(rows, lengths)):
            taken = [argument[part] for argument in arguments]
            if number % 3 == 2:
                parts.append(np.array([instance(*row) for row in zip(*taken, strict=True)]))
            else:
                parts.append(kernel(taken, part.stop - part.start, columns))
        assert bits(np.concatenate(parts)) == expected


@along_time
@pytest.mark.parametrize("saved_after", [0, 1, 2, 6, 7, 8, 20])
def test_restored_anywhere(name: str, config: dict[str, Any], saved_after: int) -> None:
    rows, columns = 40, 9
    arguments = arguments_of(COMPILED.create_instance(name, **config), rows, columns)
    before = [argument[:saved_after] for argument in arguments]
    after = [argument[saved_after:] for argument in arguments]
    expected = whole(COMPILED.create_instance(name, **config), arguments)[saved_after:]

    compiled = COMPILED.create_instance(name, **config)
    plain = PLAIN.create_instance(name, **config)
    if saved_after > 0:
        whole(compiled, before)
    for row in zip(*before, strict=True):
        plain(*row)
    states = [compiled.get_state(), plain.get_state()]
    assert repr(states[0]) == repr(states[1])
    for state in states:
        data = json.loads(json.dumps(state.state_data))
        saved = SavedState(state.name, data)
        going_on = COMPILED.create_instance_from_state(name, saved, **config)
        assert bits(whole(going_on, after)) == bits(expected)
        other = PLAIN.create_instance_from_state(name, saved, **config)
        result = np.array([other(*row) for row in zip(*after, strict=True)])
        np.testing.assert_allclose(result, expected, rtol=1e-9, atol=1e-9)


@along_time
def test_hard_values_leave_no_trace(name: str, config: dict[str, Any]) -> None:
    """After they have left the window, values are those of an instance that never saw them."""
    window = config["window"]
    rows, columns = 12 * window + 12, 16
    arguments = arguments_of(COMPILED.create_instance(name, **config), rows, columns)
    hard = [argument.copy() for argument in arguments]
    for place, argument in enumerate(hard):
        argument[: 4 * window + 3] = rough_matrix(place, 4 * window + 3, columns)
    clean = whole(COMPILED.create_instance(name, **config), arguments)
    result = whole(COMPILED.create_instance(name, **config), hard)
    assert bits(result[6 * window + 4 :]) == bits(clean[6 * window + 4 :])


@along_time
def test_constant_windows(name: str, config: dict[str, Any]) -> None:
    instance = COMPILED.create_instance(name, **config)
    plain = PLAIN.create_instance(name, **config)
    # No sum of several of these is exact.
    arguments = [np.full((20, 3), 0.1 + place) for place in range(instance.arity)]
    result = whole(instance, arguments)[-1]
    expected = np.array([plain(*row) for row in zip(*arguments, strict=True)])[-1]
    np.testing.assert_array_equal(np.isnan(result), np.isnan(expected))
    if name.endswith(("_std", "_variance", "_zscore", "_covariance", "_slope", "_residual")):
        np.testing.assert_array_equal(result, expected)
    else:
        np.testing.assert_allclose(result, expected, rtol=1e-15)


@pytest.mark.parametrize("registry", [COMPILED, PLAIN], ids=["compiled", "plain"])
def test_correlation_of_two_rows(registry: Any) -> None:
    """Two points lie on a line, whatever their distance."""
    least, greatest = 5e-324, 1.7e308
    x = np.array([[0.1, 0.1, 0.0, -greatest, 3.0, -0.0, 1.0, np.nan, 1.0],
                  [0.3, 0.3, least, greatest, 3.0, 0.0, np.inf, 1.0, 2.0]])  # fmt: skip
    y = np.array([[7.0, 7.1, 1e-9, -1e-200, 1.0, 1.0, 1.0, 1.0, -np.inf],
                  [7.1, 7.0, 1e9, -1e-100, 2.0, 2.0, 2.0, 2.0, 1.0]])  # fmt: skip
    correlation = registry.create_instance("longitudinal_correlation", window=2)
    assert np.isnan(correlation(x[0], y[0])).all()
    expected = [1.0, -1.0, 1.0, -1.0, np.nan, np.nan, np.nan, np.nan, np.nan]
    np.testing.assert_array_equal(correlation(x[1], y[1]), expected)


@pytest.mark.parametrize("registry", [COMPILED, PLAIN], ids=["compiled", "plain"])
@pytest.mark.parametrize("window", [3, 5, 6, 20])
def test_correlation_of_deviations_whose_squares_vanish(registry: Any, window: int) -> None:
    """Their products beside larger ones don't, and are no correlation by themselves."""
    rng = np.random.default_rng(2)
    x, y = rng.normal(size=(2, window, 9))
    correlation = registry.create_instance("longitudinal_correlation", window=window)
    for scale in (1e-165, -1e-165):
        for first, second in ((scale * x, y), (y, scale * x)):
            for row in zip(first, second, strict=True):
                result = correlation(*row)
            assert np.isnan(result).all()


@along_time
def test_pickled_anywhere(name: str, config: dict[str, Any]) -> None:
    """An instance that was pickled goes on with the same bits."""
    window, columns = config["window"], 9
    rows = 3 * window + 5
    arguments = arguments_of(COMPILED.create_instance(name, **config), rows, columns)
    expected = bits(whole(COMPILED.create_instance(name, **config), arguments))
    instance = COMPILED.create_instance(name, **config)
    parts = []
    for part in strips(rows, cycle([1, 3, window])):
        taken = [argument[part] for argument in arguments]
        parts.append(KernelCall(instance)(taken, part.stop - part.start, columns))
        instance = pickle.loads(pickle.dumps(instance))
    assert bits(np.concatenate(parts)) == expected


@along_time
def test_changed_width(name: str, config: dict[str, Any]) -> None:
    for registry in (COMPILED, PLAIN):
        instance = registry.create_instance(name, **config)
        instance(*[np.ones(3)] * instance.arity)
        before = repr(instance.get_state())
        with pytest.raises(ValueError, match=r"^row has 2 values; the window holds rows of 3$"):
            instance(*[np.ones(2)] * instance.arity)
        assert repr(instance.get_state()) == before
    instance = COMPILED.create_instance(name, **config)
    kernel = KernelCall(instance)
    kernel([np.ones((4, 3))] * instance.arity, 4, 3)
    with pytest.raises(KernelFailure) as caught:
        kernel([np.ones((4, 2))] * instance.arity, 4, 2)
    assert (caught.value.kind, caught.value.row) == (VALUE_ERROR, 0)
    assert instance.get_state().state_data["count"] == 4


@along_time
def test_states_that_do_not_fit(name: str, config: dict[str, Any]) -> None:
    for registry in (COMPILED, PLAIN):
        instance = registry.create_instance(name, **config)
        instance(*[np.ones(3)] * instance.arity)
        data = instance.get_state().state_data
        key = "buffer" if instance.arity == 1 else "buffers"
        one_row = [[1.0, 2.0]] if instance.arity == 1 else [[[1.0, 2.0]]] * instance.arity
        no_rows = [] if instance.arity == 1 else [[]] * instance.arity
        reasons = {
            "saved with window 99": {"window": 99},
            "count must be an int; got 1.5": {"count": 1.5},
            "1 rows of 0 for a window of": {"count": 0, key: one_row},
            "0 rows of 3 for a window of": {"count": 3, key: no_rows},
        }
        if instance.arity == 2:
            reasons["1 buffers for 2 inputs"] = {key: [[[1.0]]]}
            reasons["buffers hold rows of different widths"] = {key: [[[1.0]], [[1.0, 2.0]]]}
        for reason, changes in reasons.items():
            with pytest.raises(Exception, match=reason):
                registry.create_instance_from_state(name, {**data, **changes}, **config)
        with pytest.raises(Exception, match=f"KeyError: '{key}'"):
            registry.create_instance_from_state(
                name, {"count": data["count"], "window": data["window"]}, **config
            )


@along_time
def test_windows_that_no_memory_holds(name: str, config: dict[str, Any]) -> None:
    for window in (2**48 + 1, 2**61 - 1, 2**61, 2**63 - 1):
        with pytest.raises(ValueError, match=rf"^window must be at most {2**48}; got {window}$"):
            row_kernels.FUNCTIONS[name](**{**config, "window": window})


@along_time
def test_counts_that_could_not_be_counted_on(name: str, config: dict[str, Any]) -> None:
    instance = COMPILED.create_instance(name, **config)
    rows = [np.ones(3)] * instance.arity
    for _ in range(config["window"] + 1):
        instance(*rows)
    data = instance.get_state().state_data
    for count in (2**62 + 1, 2**63 - 1, 10**30, -(10**30)):
        with pytest.raises(ValueError, match=rf"^count must be from 0 to {2**62}; got {count}$"):
            instance.restore({**data, "count": count})
    instance.restore({**data, "count": 2**62})
    instance(*rows)
    assert instance.get_state().state_data == {**data, "count": 2**62 + 1}


def test_a_literal_serves_all_rows() -> None:
    instance = COMPILED.create_instance("longitudinal_sum", window=3)
    result = KernelCall(instance)([np.array([1.0, 2.0])], 5, 2)
    np.testing.assert_array_equal(result[:, 1], [np.nan, np.nan, 6.0, 6.0, 6.0])
