"""Graphs, functions and contexts that the checks of graphs are tried on."""

from __future__ import annotations

from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host import FunctionEntry, Parameter, check_graph, default_registry
from quernbrook.reference_host.graphs import feature
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext

T, N = 30, 3
PRICE = np.random.default_rng(3).normal(size=(T, N))
SIGNALS = {
    sid: UsefulSignal(PRICE, PRICE, {"sharpe": sharpe, "class": "equity"})
    for sid, sharpe in (("carry", 0.9), ("momentum", 1.2))
}
X = feature("price")


class Best:
    """A reduction that the evaluator never calls, for it isn't stateful."""

    stateful = False

    def __call__(self, block: np.ndarray, signal_pnl: np.ndarray) -> np.ndarray:
        return block[0]


class Plain:
    """A rotation that tells no arity."""

    stateful = False

    def __call__(self, row: np.ndarray, other: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row + other


class Echo:
    stateful = False

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row


class Undecided:
    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row


class Broken:
    stateful = False
    arity = 1

    def __init__(self) -> None:
        raise OSError("no model file")


class Forgetful:
    stateful = True
    arity = 1

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row


REGISTRY = default_registry()
for entry in (
    FunctionEntry("best", "mine", Best),
    FunctionEntry("plain", "mine", Plain),
    FunctionEntry("echo", "mine", Echo),
    FunctionEntry("undecided", "mine", Undecided),
    FunctionEntry("broken", "mine", Broken),
    FunctionEntry("forgetful", "mine", lambda: Forgetful()),
    FunctionEntry(
        "band",
        "mine",
        lambda low, high: Plain(),
        dict.fromkeys(("low", "high"), Parameter("float")),
    ),
):
    REGISTRY.register(entry)


def context(**arguments: Any) -> Any:
    given: dict[str, Any] = {
        "registry": REGISTRY,
        "useful_signals": SIGNALS,
        "column_labels": ["gross_returns", "net_returns", "cost"],
        "stage_data": StageData({"risk": PRICE, "beta": PRICE[0]}),
    }
    features = arguments.pop("features", (PRICE, PRICE))
    return EvaluationContext(features, {"price": 0, "volume": 1}, **{**given, **arguments})


def found(graph: Any, arguments: dict[str, Any] | None = None, **settings: Any) -> list[str]:
    return [
        str(fault)
        for fault in check_graph(graph, REGISTRY, context(**settings), **(arguments or {}))
    ]
