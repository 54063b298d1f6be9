"""The plain definitions of rotations against NumPy formulas."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from hypothesis.extra import numpy as arrays
from quernbrook.reference_host import default_registry

NAN, INF = np.nan, np.inf

WINDOW_FORMULAS: dict[str, Callable[[np.ndarray], np.ndarray]] = {
    "longitudinal_sum": lambda rows: rows.sum(axis=0),
    "longitudinal_mean": lambda rows: rows.mean(axis=0),
    "longitudinal_std": lambda rows: rows.std(axis=0),
    "longitudinal_zscore": lambda rows: (rows[-1] - rows.mean(axis=0)) / rows.std(axis=0),
}


def make(name: str, **config: Any) -> Any:
    return default_registry(compiled=False).create_instance(name, **config)


def apply(name: str, *rows: list[float], **config: Any) -> np.ndarray:
    """One call of a new instance, which must leave its inputs alone and return a new row."""
    inputs = [np.array(row, dtype=np.float64) for row in rows]
    before = [row.copy() for row in inputs]
    result = make(name, **config)(*inputs)
    assert result.dtype == np.float64
    for row, kept in zip(inputs, before, strict=True):
        np.testing.assert_array_equal(row, kept)
        assert not np.shares_memory(result, row)
    return result


def run(name: str, matrix: np.ndarray, **config: Any) -> np.ndarray:
    instance = make(name, **config)
    return np.array([instance(row) for row in matrix])


def matrix_with_holes() -> np.ndarray:
    rng = np.random.default_rng(7)
    matrix = rng.normal(3.0, 2.0, size=(60, 4))
    matrix[20, 1] = matrix[33, 2] = NAN
    return matrix


@pytest.mark.parametrize("name", ["latitudinal_rank", "numerical_negate"])
def test_called_with_and_without_context(name: str) -> None:
    row = np.array([2.0, 1.0])
    np.testing.assert_array_equal(make(name)(row), make(name)(row, context=object()))


class TestRank:
    @pytest.mark.parametrize(
        ("row", "ranks"),
        [
            ([30.0, 10.0, 20.0], [1.0, 0.0, 0.5]),
            ([1.0, NAN, 5.0], [0.0, NAN, 1.0]),
            ([NAN, 4.0, NAN], [NAN, 0.5, NAN]),
            ([NAN, NAN], [NAN, NAN]),
            ([2.0, 1.0, 2.0], [0.75, 0.0, 0.75]),
            ([1.0, 1.0, 1.0, 1.0], [0.5, 0.5, 0.5, 0.5]),
            ([INF, -INF, 0.0], [1.0, 0.0, 0.5]),
            ([NAN, INF, 1.0], [NAN, 1.0, 0.0]),
            ([INF, INF, 1.0], [0.75, 0.75, 0.0]),
            ([0.0, -0.0, 1.0], [0.25, 0.25, 1.0]),
            ([], []),
        ],
    )
    def test_known_rows(self, row: list[float], ranks: list[float]) -> None:
        np.testing.assert_array_equal(apply("latitudinal_rank", row), ranks)

    @given(
        arrays.arrays(
            np.float64,
            st.integers(2, 12),
            elements=st.sampled_from([-2.0, -1.0, 0.0, 0.5, 3.0, NAN]),
        )
    )
    def test_is_the_mean_place_of_equal_values(self, row: np.ndarray) -> None:
        values = row[~np.isnan(row)]
        expected = np.full(row.shape, NAN)
        for i, value in enumerate(row):
            if values.size == 1 and not np.isnan(value):
                expected[i] = 0.5
            elif not np.isnan(value):
                below, equal = np.sum(values < value), np.sum(values == value)
                expected[i] = (below + (equal - 1) / 2) / (values.size - 1)
        np.testing.assert_array_equal(apply("latitudinal_rank", row.tolist()), expected)


class TestCrossSectional:
    ROW = (3.0, NAN, -1.0, 8.0)

    def test_demean(self) -> None:
        np.testing.assert_allclose(
            apply("latitudinal_demean", self.ROW), np.array(self.ROW) - np.nanmean(self.ROW)
        )

    def test_zscore(self) -> None:
        expected = (np.array(self.ROW) - np.nanmean(self.ROW)) / np.nanstd(self.ROW)
        np.testing.assert_allclose(apply("latitudinal_zscore", self.ROW), expected)

    @pytest.mark.parametrize("name", ["latitudinal_demean", "latitudinal_zscore"])
    def test_equal_values_give_exact_zeros(self, name: str) -> None:
        # The mean of three times 0.1 is not 0.1.
        np.testing.assert_array_equal(apply(name, [0.1, 0.1, NAN, 0.1]), [0.0, 0.0, NAN, 0.0])

    @pytest.mark.parametrize("config", [{}, {"total": 4.0}])
    def test_scale(self, config: dict[str, float]) -> None:
        result = apply("latitudinal_scale", self.ROW, **config)
        total = config.get("total", 1.0)
        np.testing.assert_allclose(result, np.array(self.ROW) * total / 12.0)

    def test_scale_leaves_zeros(self) -> None:
        np.testing.assert_array_equal(apply("latitudinal_scale", [0.0, NAN, 0.0]), [0.0, NAN, 0.0])

    @pytest.mark.parametrize(
        "name", ["latitudinal_demean", "latitudinal_zscore", "latitudinal_scale"]
    )
    @pytest.mark.filterwarnings("error")
    def test_row_without_values(self, name: str) -> None:
        np.testing.assert_array_equal(apply(name, [NAN, NAN]), [NAN, NAN])
        assert apply(name, []).shape == (0,)

    @pytest.mark.parametrize(
        "name", ["latitudinal_demean", "latitudinal_zscore", "latitudinal_scale"]
    )
    @pytest.mark.filterwarnings("error")
    def test_infinities_warn_of_nothing(self, name: str) -> None:
        assert apply(name, [INF, -INF, 1.0]).shape == (3,)


class TestArithmetic:
    LEFT = (1.0, -2.0, 0.0, NAN, INF)
    RIGHT = (4.0, 0.0, 0.0, 1.0, INF)

    @pytest.mark.parametrize(
        ("name", "expected"),
        [
            ("numerical_add", [5.0, -2.0, 0.0, NAN, INF]),
            ("numerical_subtract", [-3.0, -2.0, 0.0, NAN, NAN]),
            ("numerical_multiply", [4.0, 0.0, 0.0, NAN, INF]),
            ("numerical_divide", [0.25, -INF, NAN, NAN, NAN]),
        ],
    )
    @pytest.mark.filterwarnings("error")
    def test_two_inputs(self, name: str, expected: list[float]) -> None:
        np.testing.assert_array_equal(apply(name, self.LEFT, self.RIGHT), expected)

    def test_negate(self) -> None:
        np.testing.assert_array_equal(
            apply("numerical_negate", self.LEFT), [-1.0, 2.0, 0.0, NAN, -INF]
        )

    @pytest.mark.parametrize(("name", "count"), [("numerical_add", 3), ("numerical_negate", 2)])
    def test_surplus_input_is_refused_and_not_written_to(self, name: str, count: int) -> None:
        rows = [np.ones(2) for _ in range(count)]
        with pytest.raises(TypeError, match=rf"{name} takes {count - 1} input\(s\); got {count}"):
            make(name)(*rows)
        np.testing.assert_array_equal(rows[-1], [1.0, 1.0])


class TestRolling:
    @pytest.mark.parametrize("name", sorted(WINDOW_FORMULAS))
    @pytest.mark.parametrize("window", [2, 7])
    def test_against_each_window(self, name: str, window: int) -> None:
        matrix = matrix_with_holes()
        expected = np.full(matrix.shape, NAN)
        for t in range(window - 1, len(matrix)):
            expected[t] = WINDOW_FORMULAS[name](matrix[t - window + 1 : t + 1])
        np.testing.assert_allclose(run(name, matrix, window=window), expected, rtol=1e-12)

    @pytest.mark.parametrize("window", [1, 5])
    def test_delay(self, window: int) -> None:
        matrix = matrix_with_holes()
        expected = np.full(matrix.shape, NAN)
        expected[window:] = matrix[:-window]
        np.testing.assert_array_equal(run("longitudinal_delay", matrix, window=window), expected)

    @pytest.mark.parametrize("window", [1, 5])
    def test_delta(self, window: int) -> None:
        matrix = matrix_with_holes()
        expected = np.full(matrix.shape, NAN)
        expected[window:] = matrix[window:] - matrix[:-window]
        np.testing.assert_array_equal(run("longitudinal_delta", matrix, window=window), expected)

    @pytest.mark.parametrize("name", ["longitudinal_std", "longitudinal_zscore"])
    def test_equal_values_give_exact_zeros(self, name: str) -> None:
        result = run(name, np.full((6, 2), 0.1), window=3)
        assert np.isnan(result[:2]).all()
        np.testing.assert_array_equal(result[2:], 0.0)

    def test_window_of_one(self) -> None:
        matrix = matrix_with_holes()
        np.testing.assert_array_equal(run("longitudinal_mean", matrix, window=1), matrix)
        zeros = np.where(np.isnan(matrix), NAN, 0.0)
        np.testing.assert_array_equal(run("longitudinal_std", matrix, window=1), zeros)

    @pytest.mark.parametrize("name", sorted(WINDOW_FORMULAS))
    def test_value_depends_on_its_window_alone(self, name: str) -> None:
        matrix = matrix_with_holes()[34:]
        late_start = run(name, matrix[5:], window=6)[5:]
        assert run(name, matrix, window=6)[10:].tobytes() == late_start.tobytes()

    @pytest.mark.parametrize("name", sorted(WINDOW_FORMULAS))
    @pytest.mark.filterwarnings("error")
    def test_recovers_from_infinities_without_a_warning(self, name: str) -> None:
        matrix = np.random.default_rng(1).normal(size=(12, 1))
        matrix[3], matrix[4] = INF, -INF
        result = run(name, matrix, window=3)
        assert np.isnan(result[4]).all()
        assert np.isfinite(result[7:]).all()

    def test_keeps_a_copy_of_its_input(self) -> None:
        instance = make("longitudinal_sum", window=2)
        register = np.array([1.0])
        instance(register)
        register[0] = 100.0
        np.testing.assert_array_equal(instance(np.array([2.0])), [3.0])

    @pytest.mark.parametrize("name", [*sorted(WINDOW_FORMULAS), "longitudinal_delay"])
    def test_results_are_not_overwritten(self, name: str) -> None:
        instance = make(name, window=2)
        results, copies = [], []
        for row in matrix_with_holes():
            results.append(instance(row))
            copies.append(results[-1].copy())
        np.testing.assert_array_equal(results, copies)

    def test_another_width_is_refused(self) -> None:
        instance = make("longitudinal_mean", window=2)
        instance(np.ones(3))
        with pytest.raises(ValueError, match="row has 1 values; the window holds rows of 3"):
            instance(np.ones(1))
