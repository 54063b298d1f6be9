"""Faults of filters and of the reductions above them."""

from __future__ import annotations

from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions.filtrations_evaluation import OPERATORS
from quernbrook.reference_host.graphs import (
    condition,
    filtration,
    number,
    reduction,
    string,
)
from quernbrook.simulator_engine.expression_evaluator import (
    FILTRATION_NODE_TYPES,
)
from support.checks import X, found

FILTERS: list[tuple[Any, list[str]]] = [
    (
        reduction("reduction_mean", condition("top_n", "sharpe", 1)),
        [
            "root.c0: filter 'top_n' stands outside a filtration and filters nothing; "
            "did you mean 'filtration'?"
        ],
    ),
    (
        reduction("reduction_mean", Node("filtraton", "filtration")),
        ["root.c0: unknown kind 'filtraton', which filters nothing; did you mean 'filtration'?"],
    ),
    (
        reduction(
            "reduction_mean",
            filtration("filtration", Node("top_m", "top_n", [string("sharpe")])),
        ),
        ["root.c0.c0: unknown kind 'top_m', which filters nothing; did you mean 'top_n'?"],
    ),
    (
        reduction("reduction_mean", filtration("to_n", "sharpe", 1)),
        ["root.c0: unknown filter 'to_n'; did you mean 'top_n'?"],
    ),
    (
        reduction(
            "reduction_mean",
            filtration("filtration", Node("gt", "lt", [string("sharpe"), number(1.0)])),
        ),
        ["root.c0.c0: the kind of this filter is 'gt', its operator 'lt'"],
    ),
    (
        reduction("reduction_mean", filtration("top_n", "sharpe", 2.0)),
        [
            "root.c0.c1: filter 'top_n' passes over this float",
            "root.c0: filter 'top_n' lacks n",
        ],
    ),
    (
        reduction("reduction_mean", filtration("gt", "sharpe", 0.5, 3, "class", True, X)),
        [
            "root.c0.c2: filter 'gt' passes over this int",
            "root.c0.c3: filter 'gt' passes over this string",
            "root.c0.c4: filter 'gt' passes over this bool",
            "root.c0.c5: filter 'gt' passes over this feature",
        ],
    ),
    (
        reduction("reduction_mean", filtration("between", "sharpe", 2.0, 1.0)),
        ["root.c0: filter 'between' needs low <= high; got 2.0 and 1.0"],
    ),
    (
        reduction("reduction_mean", filtration("not_")),
        ["root.c0: filter 'not_' takes exactly one filter; got 0"],
    ),
    (
        reduction("reduction_mean", filtration("gt", "sharp", 0.5)),
        ["root.c0.c0: 2 of 2 signals have no field 'sharp', first 'carry'; did you mean 'sharpe'?"],
    ),
    (
        reduction("reduction_mean", filtration("gt", "sharpe", 9.0)),
        ["root.c0: none of 2 signals passes gt(sharpe, 9.0)"],
    ),
    (
        reduction("reduction_mean", filtration("gt", "class", 9.0)),
        [
            "root.c0: filter gt(class, 9.0): '>' not supported between instances of 'str' "
            "and 'float'"
        ],
    ),
    (
        reduction("reduction_mean", filtration("filtration"), filtration("filtration")),
        ["root.c1: a reduction takes one filtration; this one would be mixed in"],
    ),
    (
        reduction("weighted_by_pnl", X, 3),
        ["root.c0: a reduction gets signals alone; this feature never reaches 'weighted_by_pnl'"],
    ),
    (
        reduction("weighted_by_pnl", 3, config={"pnl_column": "net_return"}),
        ["root: column_labels has no PnL column 'net_return'; did you mean 'net_returns'?"],
    ),
    (
        reduction("weighted_by_pnl", 3, "costs"),
        ["root.c1: column_labels has no PnL column 'costs'; did you mean 'cost'?"],
    ),
]


@pytest.mark.parametrize(("graph", "faults"), FILTERS)
def test_each_fault_alone(graph: Any, faults: list[str]) -> None:
    assert found(graph) == faults


def test_a_reduction_without_signals() -> None:
    graph = reduction("reduction_mean", filtration("top_n", "sharpe", 1))
    assert found(graph, useful_signals={}) == [
        "root: the context has no useful_signals for 'reduction_mean'"
    ]


def test_pnl_columns_of_vectors() -> None:
    graph = reduction("weighted_by_pnl", 3, "cots")
    vectors = {"carry": {"cost": 1.0}, "momentum": {"net": 2.0}}
    assert found(graph, signal_pnl_vectors=vectors) == [
        "root.c1: signal_pnl_vectors has no PnL column 'cots'; did you mean 'cost'?"
    ]
    assert found(graph, signal_pnl_vectors={}) == []
    assert found(graph, column_labels=[]) == []


def test_operators_are_those_of_the_evaluator() -> None:
    assert OPERATORS == FILTRATION_NODE_TYPES
