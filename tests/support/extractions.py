"""Runs of a reduction over a pool, and what it was handed."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
from support.functions import RecordingFunction
from support.graphs import filtration, reduction
from support.reductions import run_reductions, stateful

PLAIN = reduction("f")
FILTERED = reduction("f", filtration("first"))


def run(
    evaluator: ModuleType, graph: Any = PLAIN, instance: Any = None, **options: Any
) -> tuple[Any, Any]:
    """The instance of "f" and the context of a run; the function "g" gives zeros."""
    instance = stateful() if instance is None else instance
    functions = {"f": instance, "g": RecordingFunction(0.0)}
    return instance, run_reductions(evaluator, graph, functions, **options)[0]


def blocks(instance: Any) -> list[np.ndarray]:
    """What a reduction was handed, row by row, as it stood then."""
    return [call.values[0] for call in instance.calls]
