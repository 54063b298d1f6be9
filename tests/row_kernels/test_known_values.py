"""Rules of single functions, in numbers that can be checked by hand; both kinds of instances."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import FunctionRegistry, default_registry

NAN, INF = np.nan, np.inf


@pytest.fixture(params=["compiled", "plain"])
def registry(request: pytest.FixtureRequest) -> FunctionRegistry:
    return default_registry(compiled=request.param == "compiled")


def check(
    registry: FunctionRegistry,
    name: str,
    rows: list[list[float]],
    expected: list[float],
    **config: Any,
) -> None:
    # A registry takes a plain definition where there is nothing else.
    assert name in registry.compiled or not registry.compiled
    result = registry.create_instance(name, **config)(*(np.array(row) for row in rows))
    np.testing.assert_array_equal(result, expected)
    np.testing.assert_array_equal(
        np.signbit(result[result == 0.0]), np.signbit(np.array(expected)[result == 0.0])
    )


@pytest.mark.parametrize(
    ("name", "rows", "expected"),
    [
        ("numerical_divide", [[1.0, -1.0, 0.0, INF], [0.0, 0.0, 0.0, 2.0]], [INF, -INF, NAN, INF]),
        ("numerical_absolute", [[-2.0, -0.0, NAN, -INF]], [2.0, 0.0, NAN, INF]),
        (
            "numerical_sign",
            [[-2.0, -0.0, 0.0, 5e-324, NAN, -INF]],
            [-1.0, 0.0, 0.0, 1.0, NAN, -1.0],
        ),
        ("numerical_logarithm", [[1.0, 0.0, -0.0, -1.0, INF, NAN]], [0.0, NAN, NAN, NAN, INF, NAN]),
        (
            "numerical_power",
            [
                [-2.0, -2.0, -2.0, 0.0, 4.0, NAN, 1.0, -0.0],
                [3.0, 2.0, 0.5, -1.0, 0.5, 0.0, NAN, -3.0],
            ],
            [-8.0, 4.0, NAN, INF, 2.0, NAN, NAN, -INF],
        ),
        (
            "numerical_power",
            [[-1e200, -1e200, INF, 1e-200], [3.0, 2.0, -1.0, 3.0]],
            [-INF, INF, 0.0, 0.0],
        ),
        (
            "numerical_power",
            [[-0.0, -INF, INF, -1.0, NAN, -0.0, -INF, 3.0, 1e-170], [0.5] * 5 + [2.0] * 4],
            [0.0, INF, INF, NAN, NAN, 0.0, INF, 9.0, 0.0],
        ),
        (
            "numerical_signed_power",
            [[-2.0, -2.0, -4.0, 0.0, -0.0, 0.0, NAN], [3.0, 2.0, 0.5, 2.0, 2.0, -1.0, 1.0]],
            [-8.0, -4.0, -2.0, 0.0, 0.0, NAN, NAN],
        ),
        ("numerical_minimum", [[1.0, NAN, 2.0, NAN], [3.0, 4.0, NAN, NAN]], [1.0, 4.0, 2.0, NAN]),
        ("numerical_maximum", [[1.0, NAN, 2.0, NAN], [3.0, 4.0, NAN, NAN]], [3.0, 4.0, 2.0, NAN]),
        ("numerical_minimum", [[0.0, -0.0], [-0.0, 0.0]], [0.0, -0.0]),
        ("numerical_less", [[1.0, 2.0, 2.0, NAN], [2.0, 2.0, 1.0, 1.0]], [1.0, 0.0, 0.0, NAN]),
        (
            "numerical_greater_equal",
            [[1.0, 2.0, 2.0, 1.0], [2.0, 2.0, 1.0, NAN]],
            [0.0, 1.0, 1.0, NAN],
        ),
        ("numerical_equal", [[0.0, 1.0, NAN], [-0.0, 2.0, NAN]], [1.0, 0.0, NAN]),
        ("numerical_not_equal", [[0.0, 1.0, NAN], [-0.0, 2.0, NAN]], [0.0, 1.0, NAN]),
        (
            "numerical_and",
            [[1.0, 1.0, 0.0, NAN, NAN, NAN, 0.0], [-2.0, 0.0, 0.0, 1.0, 0.0, NAN, NAN]],
            [1.0, 0.0, 0.0, NAN, 0.0, NAN, 0.0],
        ),
        (
            "numerical_or",
            [[1.0, 1.0, 0.0, NAN, NAN, NAN, 0.0], [-2.0, 0.0, 0.0, 1.0, 0.0, NAN, NAN]],
            [1.0, 1.0, 0.0, 1.0, NAN, NAN, NAN],
        ),
        ("numerical_not", [[0.0, -0.0, 0.5, NAN]], [1.0, 1.0, 0.0, NAN]),
        (
            "numerical_where",
            [[1.0, 0.0, NAN, -3.0], [1.0, NAN, 3.0, NAN], [5.0, 6.0, 7.0, 8.0]],
            [1.0, 6.0, NAN, NAN],
        ),
        (
            "latitudinal_demean_within_groups",
            [[1.0, 3.0, 10.0, NAN, 5.0, 7.0], [2.0, 2.0, 1.5, 2.0, NAN, -0.0]],
            [-1.0, 1.0, 0.0, NAN, NAN, 0.0],
        ),
        ("latitudinal_relative_rank", [[NAN, 4.0]], [NAN, NAN]),
        ("latitudinal_relative_rank", [[3.0, 4.0, 3.0]], [0.25, 1.0, 0.25]),
        ("latitudinal_rank", [[NAN, 4.0]], [NAN, 0.5]),
        ("latitudinal_scale", [[0.0, -0.0, NAN]], [0.0, -0.0, NAN]),
        ("latitudinal_scale", [[INF, 1.0]], [NAN, 0.0]),
        ("latitudinal_top_share", [[5.0, 1.0, NAN, 5.0, 2.0, 3.0]], [1.0, 0.0, NAN, 1.0, 0.0, 0.0]),
        (
            "latitudinal_bottom_share",
            [[5.0, 1.0, NAN, 5.0, 2.0, 3.0]],
            [0.0, 1.0, NAN, 0.0, 0.0, 0.0],
        ),
        ("latitudinal_winsorize", [[5.0, 1.0, NAN]], [5.0, 1.0, NAN]),
    ],
)
def test_defaults(
    registry: FunctionRegistry, name: str, rows: list[list[float]], expected: list[float]
) -> None:
    check(registry, name, rows, expected)


@pytest.mark.parametrize(
    ("name", "rows", "expected", "config"),
    [
        (
            "numerical_divide",
            [[1.0, INF, 1.0, 6.0], [0.0, 2.0, INF, 3.0]],
            [NAN, NAN, 0.0, 2.0],
            {"infinities_as_nan": True},
        ),
        ("numerical_minimum", [[1.0, NAN], [3.0, 4.0]], [1.0, NAN], {"skip_nan": False}),
        ("numerical_maximum", [[1.0, 3.0], [3.0, NAN]], [3.0, NAN], {"skip_nan": False}),
        ("numerical_less", [[1.0, NAN], [2.0, 2.0]], [1.0, 0.0], {"ieee": True}),
        ("numerical_not_equal", [[1.0, NAN], [1.0, NAN]], [0.0, 1.0], {"ieee": True}),
        ("latitudinal_relative_rank", [[NAN, 4.0]], [NAN, 0.5], {"lone": 0.5}),
        ("latitudinal_scale", [[0.0, 0.0, NAN]], [NAN, NAN, NAN], {"infinities_as_nan": True}),
        ("latitudinal_scale", [[INF, 1.0, -3.0]], [NAN, 0.25, -0.75], {"infinities_as_nan": True}),
        (
            "latitudinal_winsorize",
            [[9.0, 1.0, 2.0, 3.0, NAN, 4.0]],
            [4.0, 2.0, 2.0, 3.0, NAN, 4.0],
            {"share": 0.2},
        ),
        # 0.29 times 100 is a little less than 29.
        (
            "latitudinal_winsorize",
            [[float(value) for value in range(100)]],
            [float(min(max(value, 29), 70)) for value in range(100)],
            {"share": 0.29},
        ),
        ("latitudinal_winsorize", [[1.0, 2.0]], [1.0, 2.0], {"share": 0.4999999999999}),
        (
            "latitudinal_winsorize",
            [[4.0, 1.0, 3.0, 2.0]],
            [3.0, 2.0, 3.0, 2.0],
            {"share": 0.4999999999999},
        ),
        ("latitudinal_top_share", [[1.0, 2.0, 3.0]], [1.0, 1.0, 1.0], {"share": 1.0}),
        ("latitudinal_bottom_share", [[1.0, 2.0, 3.0]], [1.0, 1.0, 0.0], {"share": 0.4}),
    ],
)
def test_choices(
    registry: FunctionRegistry,
    name: str,
    rows: list[list[float]],
    expected: list[float],
    config: dict[str, Any],
) -> None:
    check(registry, name, rows, expected, **config)


@pytest.mark.parametrize("columns", [50, 5000])
def test_ranks_of_tied_rows_are_scipys(registry: FunctionRegistry, columns: int) -> None:
    row = np.random.default_rng(2).integers(0, 30, columns).astype(np.float64)
    places = np.array([(row < value).sum() + ((row == value).sum() - 1) / 2 for value in row])
    result = registry.create_instance("latitudinal_rank")(row)
    np.testing.assert_array_equal(result, places / (columns - 1))


@pytest.mark.parametrize(
    ("name", "config", "reason"),
    [
        (
            "latitudinal_winsorize",
            {"share": 0.5},
            "share must be at least 0 and below 0.5; got 0.5",
        ),
        (
            "latitudinal_winsorize",
            {"share": NAN},
            "share must be at least 0 and below 0.5; got nan",
        ),
        ("latitudinal_top_share", {"share": 0.0}, "share must be above 0 and at most 1; got 0"),
        (
            "latitudinal_bottom_share",
            {"share": 1.5},
            "share must be above 0 and at most 1; got 1.5",
        ),
        (
            "numerical_divide",
            {"infinities_as_nan": 1},
            "parameter 'infinities_as_nan' must be flag; got 1",
        ),
        ("weighted_by_vol", {"window": 0}, "window must be at least 1; got 0"),
        ("weighted_by_vol", {"window": -3}, "window must be at least 1; got -3"),
        (
            "weighted_by_vol",
            {"window": 2, "stat_name": "pnl"},
            "unknown stat_name 'pnl'; known: vol, downside_vol",
        ),
    ],
)
def test_faulty_configuration(
    registry: FunctionRegistry, name: str, config: dict[str, Any], reason: str
) -> None:
    with pytest.raises(Exception) as caught:
        registry.create_instance(name, **config)
    assert str(caught.value) == f"Function '{name}': {reason}"
    assert type(caught.value).__name__ == "FunctionExecutionError"
