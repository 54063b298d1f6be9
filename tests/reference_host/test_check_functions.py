"""Faults of functions: names, configuration, operands, windows."""

from __future__ import annotations

from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.graphs import (
    reduction,
    rotation,
)
from support.checks import X, found

FUNCTIONS: list[tuple[Any, list[str]]] = [
    (
        rotation("longitudinal_maen", X, 3),
        [
            "root: the registry has no function 'longitudinal_maen'; "
            "did you mean 'longitudinal_mean'?"
        ],
    ),
    (
        rotation("best", X),
        [
            "root: 'best' can't be called as a rotation, with 1 row(s): "
            "missing a required argument: 'signal_pnl'"
        ],
    ),
    (
        reduction("latitudinal_rank"),
        [
            "root: 'latitudinal_rank' can't be called as a reduction: it is a function of rows",
        ],
    ),
    (
        reduction("echo"),
        [
            "root: 'echo' can't be called as a reduction: got an unexpected keyword argument "
            "'signal_pnl'"
        ],
    ),
    (
        reduction("best"),
        [
            "root: 'best' isn't stateful: as a reduction it is the plain mean, and its "
            "instance is never called"
        ],
    ),
    (
        rotation("undecided", X),
        ["root: an instance of 'undecided' has no attribute 'stateful'"],
    ),
    (rotation("broken", X), ["root: 'broken' can't be made: OSError: no model file"]),
    (
        rotation("forgetful", X),
        [
            "root: 'forgetful' is registered with stateful=False, but its instance has "
            "stateful=True",
            "root: an instance of 'forgetful' has no attribute 'get_state'",
            "root: an instance of 'forgetful' has no attribute 'restore'",
        ],
    ),
]

CONFIGURATION: list[tuple[Any, list[str]]] = [
    (
        rotation("longitudinal_mean", X, config={"widnow": 3}),
        ["root: 'longitudinal_mean' has no parameter 'widnow'; did you mean 'window'?"],
    ),
    (
        rotation("longitudinal_mean", X),
        ["root: 'longitudinal_mean' lacks its parameter 'window' (int)"],
    ),
    (
        rotation("band", X, X),
        [
            "root: 'band' lacks its parameter 'low' (float)",
            "root: 'band' lacks its parameter 'high' (float)",
        ],
    ),
    (
        rotation("longitudinal_mean", X, 3.0),
        ["root.c1: parameter 'window' of 'longitudinal_mean' must be int; got 3.0"],
    ),
    (
        rotation("longitudinal_mean", X, config={"window": "3"}),
        ["root: parameter 'window' of 'longitudinal_mean' must be int; got '3'"],
    ),
    (
        rotation("longitudinal_mean", X, 0),
        ["root: Function 'longitudinal_mean': window must be at least 1; got 0"],
    ),
    (
        rotation("latitudinal_rank", X, config={"A": 1, "N_alloc": 2}),
        [
            "root: 'A' is the engine's own; no graph may set it",
            "root: 'N_alloc' is the engine's own; no graph may set it",
        ],
    ),
    (
        Node("rotation", "latitudinal_rank", [X], {1: 2}),
        ["root: the name of a parameter must be a text; got 1"],
    ),
    (
        rotation("numerical_add", X, 1),
        [
            "root.c1: 'numerical_add' has no parameter for this int, which would become "
            "'window'; write a float for a row of numbers",
            "root: 'numerical_add' takes 2 operand(s); it has 1",
        ],
    ),
    (
        rotation("latitudinal_rank", X, True, "net"),
        [
            "root.c1: 'latitudinal_rank' has no parameter for this bool, which would become "
            "'invert'",
            "root.c2: 'latitudinal_rank' has no parameter for this string, which would become "
            "'pnl_column'",
        ],
    ),
    (
        rotation("longitudinal_mean", X, 5, 7),
        ["root.c1: this int is dropped: another one takes its place"],
    ),
    (
        reduction("weighted_by_pnl", 3, "gross_returns", True, "cost", "net_returns"),
        [
            "root.c1: this string is dropped: another one takes its place",
            "root.c4: this string is dropped: another one takes its place",
        ],
    ),
    (
        reduction("weighted_by_vol", 3, "volatility"),
        [
            "root: Function 'weighted_by_vol': unknown stat_name 'volatility'; known: vol, "
            "downside_vol"
        ],
    ),
]

ARITY: list[tuple[Any, list[str]]] = [
    (rotation("numerical_add", X), ["root: 'numerical_add' takes 2 operand(s); it has 1"]),
    (
        rotation("longitudinal_mean", X, 3, 2.0),
        ["root: 'longitudinal_mean' takes 1 operand(s); it has 2"],
    ),
    (
        rotation("plain", X),
        [
            "root: 'plain' can't be called as a rotation, with 1 row(s): "
            "missing a required argument: 'other'"
        ],
    ),
]

WINDOWS: list[tuple[Any, list[str]]] = [
    (
        rotation("longitudinal_mean", X, 31),
        ["root: 'longitudinal_mean' is full after 31 rows; the history has 30"],
    ),
    (
        rotation("longitudinal_mean", X, config={"window": 31}),
        ["root: 'longitudinal_mean' is full after 31 rows; the history has 30"],
    ),
    (
        rotation(
            "latitudinal_rank",
            rotation("longitudinal_mean", rotation("longitudinal_std", X, 16), 16),
        ),
        ["root.c0: 'longitudinal_mean' is full after 31 rows; the history has 30"],
    ),
    (
        rotation("longitudinal_sum", rotation("longitudinal_mean", X, 100), 100),
        ["root.c0: 'longitudinal_mean' is full after 100 rows; the history has 30"],
    ),
]


@pytest.mark.parametrize(("graph", "faults"), FUNCTIONS + CONFIGURATION + ARITY + WINDOWS)
def test_each_fault_alone(graph: Any, faults: list[str]) -> None:
    assert found(graph) == faults
