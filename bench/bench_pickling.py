"""Pickling a context whose matrices leave the pickle as buffers, and taking it back."""

from __future__ import annotations

import pickle
from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine import expression_evaluator
from support.runs import make_context

from bench.evaluators import MODULE
from bench.workloads import COLUMNS, random_matrix

ROWS, FEATURES = 5000, 4
BARE = "the bare matrices"


def value_of(contender: str) -> Any:
    matrices = {f"feature {k}": random_matrix(ROWS, seed=k) for k in range(FEATURES)}
    if contender == BARE:
        return tuple(matrices.values())
    return make_context(expression_evaluator, matrices)


def first_matrix(value: Any) -> np.ndarray:
    return value[0] if isinstance(value, tuple) else value.features[0]


@pytest.mark.parametrize("contender", [MODULE, BARE])
@pytest.mark.parametrize("step", ["dumps", "loads"])
def test_pickling(measure: Callable[..., None], contender: str, step: str) -> None:
    value = value_of(contender)

    def dump() -> tuple[bytes, list[pickle.PickleBuffer]]:
        buffers: list[pickle.PickleBuffer] = []
        return pickle.dumps(value, protocol=5, buffer_callback=buffers.append), buffers

    data, buffers = dump()

    def load() -> Any:
        return pickle.loads(data, buffers=buffers)

    assert np.shares_memory(first_matrix(load()), first_matrix(value))
    measure(
        {"dumps": dump, "loads": load}[step],
        workload=f"pickle.{step} of {FEATURES} features of {ROWS:,} x {COLUMNS}, out of band",
        contender=contender,
        floor=contender == BARE,
        count=1,
        unit="µs a context",
        rounds=15,
        iterations=100,
    )
