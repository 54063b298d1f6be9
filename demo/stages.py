"""Stages laid around the strategy: how much money is at work, and how fast weights may change."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import turnover_cap
from graphs import strategy_graph
from market import Market, Matrix
from pool import SignalRun
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import rotation, signal
from quernbrook.simulator_engine._types import TransformStage
from quernbrook.simulator_engine.expression_evaluator import evaluate

SCALING = TransformStage(
    "scaling",
    default="full",
    options={"full": None, "half": rotation("latitudinal_scale", signal(), 0.5)},
)
TURNOVER = TransformStage(
    "turnover",
    default="free",
    options={
        "free": None,
        "capped": rotation(turnover_cap.TurnoverCap.name, signal(), 0.02),
    },
)

# What each pool of money chooses; a stage that it doesn't name takes its default.
OPTIONS: dict[str, dict[str, str]] = {
    "cautious": {"scaling": "half"},
    "patient": {"turnover": "capped"},
}


@dataclass(frozen=True)
class StagedRun:
    """The strategy of one pool, with its options in the order of the stages."""

    options: tuple[str | None, ...]
    weights: Matrix
    states: Mapping[str, Any]


def run(market: Market, signals: Mapping[str, SignalRun]) -> dict[str, StagedRun]:
    """Evaluate the strategy for every pool, by the pool's name."""
    registry = default_registry()
    registry.register(turnover_cap.ENTRY)
    useful_signals = {name: signal.as_useful() for name, signal in signals.items()}
    runs = {}
    for pool_id, options in OPTIONS.items():
        context = market.context(
            slice(None),
            registry,
            useful_signals,
            metaparameters=OPTIONS,
            # A run empties the pipeline that it has merged.
            transform_pipeline=[SCALING, TURNOVER],
            pool_id=pool_id,
        )
        weights, states = evaluate(strategy_graph(), context)
        chosen = tuple(options.get(stage.name, stage.default) for stage in (SCALING, TURNOVER))
        runs[pool_id] = StagedRun(chosen, weights, states)
    return runs
