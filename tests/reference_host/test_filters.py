"""Filters over a pool of signals."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions.filtrations import FiltrationInstance
from quernbrook.functions.filtrations_evaluation import (
    EmptyFiltrationError,
    EmptyPoolError,
    FilterNode,
    FiltrationResult,
    InvalidFilterError,
)
from quernbrook.simulator_engine._types import UsefulSignal

POOL = {
    sid: UsefulSignal(weights=None, fields={"sharpe": sharpe, "sector": sector})
    for sid, sharpe, sector in [
        ("e", 0.5, "tech"),
        ("a", 1.5, "energy"),
        ("d", 2.0, "tech"),
        ("b", 1.0, "health"),
        ("c", 1.5, "energy"),
    ]
}


def of_field(operator: str, name: str = "sharpe", **params: Any) -> FilterNode:
    return FilterNode(operator, {"field": name, **params})


def combined(operator: str, *children: FilterNode) -> FilterNode:
    return FilterNode(operator, children=list(children))


def passing(node: FilterNode, pool: dict[str, UsefulSignal] = POOL) -> str:
    return "".join(FiltrationInstance(node, None)(pool))


ABOVE_1 = of_field("gt", value=1.0)
TECH = of_field("eq", "sector", value="tech")


@pytest.mark.parametrize(
    ("node", "ids"),
    [
        (of_field("gt", value=1.5), "d"),
        (of_field("gte", value=1.5), "acd"),
        (of_field("lt", value=1.0), "e"),
        (of_field("lte", value=1.0), "be"),
        (of_field("eq", value=1.5), "ac"),
        (of_field("neq", value=1.5), "bde"),
        (TECH, "de"),
        (of_field("neq", "sector", value="tech"), "abc"),
        (of_field("between", low=1.0, high=1.5), "abc"),
        (of_field("in_", "sector", values=["health", "tech"]), "bde"),
        (of_field("top_n", n=1), "d"),
        (of_field("top_n", n=2), "ad"),
        (of_field("bottom_n", n=2), "be"),
        (of_field("top_n", n=9), "abcde"),
        (of_field("top_pct", pct=0.2), "d"),
        (of_field("top_pct", pct=0.21), "ad"),
        (of_field("bottom_pct", pct=0.4), "be"),
        (of_field("bottom_pct", pct=1.0), "abcde"),
        (combined("and_", ABOVE_1, TECH), "d"),
        (combined("or_", ABOVE_1, TECH), "acde"),
        (combined("not_", ABOVE_1), "be"),
        (combined("filtration"), "abcde"),
        (combined("filtration", ABOVE_1), "acd"),
        (combined("filtration", ABOVE_1, TECH), "d"),
        (combined("filtration", combined("not_", combined("or_", ABOVE_1, TECH))), "b"),
    ],
)
def test_who_passes(node: FilterNode, ids: str) -> None:
    assert passing(node) == ids


def test_share_of_the_pool_is_not_pushed_up_by_rounding() -> None:
    pool = {f"s{i:02}": UsefulSignal(None, fields={"x": float(i)}) for i in range(100)}
    assert 0.07 * 100 > 7
    instance = FiltrationInstance(of_field("top_pct", "x", pct=0.07), None)
    assert instance(pool) == [f"s{i}" for i in range(93, 100)]


@pytest.mark.parametrize(
    ("node", "ids"),
    [
        (of_field("gt", value=0.0), "a"),
        (of_field("lte", value=9.0), "a"),
        (of_field("eq", value=np.nan), ""),
        (of_field("neq", value=0.0), "an"),
        (of_field("between", low=0.0, high=9.0), "a"),
        (of_field("top_n", n=2), "a"),
        (of_field("bottom_pct", pct=1.0), "a"),
    ],
)
def test_nan_passes_no_comparison_but_neq(node: FilterNode, ids: str) -> None:
    pool = {
        "a": UsefulSignal(None, fields={"sharpe": 1.0}),
        "n": UsefulSignal(None, fields={"sharpe": np.float64("nan")}),
    }
    if ids:
        assert passing(node, pool) == ids
    else:
        with pytest.raises(EmptyFiltrationError):
            passing(node, pool)


@pytest.mark.parametrize(
    ("node", "reason"),
    [
        (FilterNode("maximum"), "unknown filter 'maximum'"),
        (FilterNode("gt", {}), "filter 'gt' lacks field, value"),
        (of_field("gt"), "filter 'gt' lacks value"),
        (of_field("between", low=1.0), "filter 'between' lacks high"),
        (of_field("between", low=2.0, high=1.0), "filter 'between' needs low <= high; got 2.0"),
        (of_field("in_", "sector"), "filter 'in_' lacks values"),
        (of_field("top_pct", pct=20.0), "filter 'top_pct' needs 0 < pct <= 1; got 20.0"),
        (of_field("bottom_pct", pct=0.0), "filter 'bottom_pct' needs 0 < pct <= 1; got 0.0"),
        (of_field("top_pct", pct=np.nan), "filter 'top_pct' needs 0 < pct <= 1; got nan"),
        (of_field("bottom_n", n=0), "filter 'bottom_n' needs n >= 1; got 0"),
        (combined("not_"), "filter 'not_' takes exactly one filter; got 0"),
        (combined("not_", TECH, TECH), "filter 'not_' takes exactly one filter; got 2"),
        (combined("and_"), "filter 'and_' takes at least one filter; got 0"),
        (combined("or_"), "filter 'or_' takes at least one filter; got 0"),
        (combined("and_", TECH, of_field("lt")), "filter 'lt' lacks value"),
        (
            FilterNode("gt", {"field": "sharpe", "value": 1.0}, [TECH]),
            "filter 'gt' compares a field and takes no filters",
        ),
    ],
)
def test_invalid_tree_is_refused_before_it_sees_a_pool(node: FilterNode, reason: str) -> None:
    with pytest.raises(InvalidFilterError) as caught:
        FiltrationInstance(node, None)
    assert str(caught.value).startswith(reason)


def test_missing_field_names_the_signal() -> None:
    with pytest.raises(InvalidFilterError) as caught:
        passing(combined("filtration", of_field("lt", "beta", value=1.0)))
    assert str(caught.value) == "filter lt(beta, 1.0): signal 'e' has no field 'beta'"


@pytest.mark.parametrize(
    "node", [of_field("lt", "sector", value=1.0), of_field("between", "sector", low=0.0, high=1.0)]
)
def test_text_and_number_do_not_compare(node: FilterNode) -> None:
    with pytest.raises(InvalidFilterError, match="not supported between"):
        passing(node)


def test_empty_pool() -> None:
    with pytest.raises(EmptyPoolError) as caught:
        passing(TECH, {})
    assert caught.value.filter_diagnostics == {"passing_count": 0, "total_pool_size": 0}


def test_nothing_passes() -> None:
    node = combined("filtration", combined("and_", ABOVE_1, of_field("lt", value=1.2)))
    with pytest.raises(EmptyFiltrationError) as caught:
        passing(node)
    inner = "and_(gt(sharpe, 1.0), lt(sharpe, 1.2))"
    assert str(caught.value) == f"none of 5 signals passes filtration({inner})"
    assert caught.value.filter_diagnostics == {
        "passing_count": 0,
        "total_pool_size": 5,
        "filters": [
            {"filter": f"filtration({inner})", "passing_count": 0},
            {"filter": inner, "passing_count": 0},
            {"filter": "gt(sharpe, 1.0)", "passing_count": 3},
            {"filter": "lt(sharpe, 1.2)", "passing_count": 2},
        ],
    }


def test_result_record() -> None:
    result = FiltrationResult(
        passing_ids=["a"], signal_count=1, total_pool_size=5, filter_diagnostics=[]
    )
    assert (result.passing_ids, result.signal_count, result.total_pool_size) == (["a"], 1, 5)
