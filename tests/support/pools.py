"""Pools of useful signals, and a stand-in for the host's filters."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import UsefulSignal

LABELS = ["gross_returns", "net_returns"]


def make_pool(ids: Iterable[str] = "abc", rows: int = 4, columns: int = 3) -> dict[str, Any]:
    """Signals whose numbers tell the signal (hundreds), the row (tens) and the column (ones).

    Their PnL columns are those that `LABELS` names, and the numbers are negative.
    """
    pool = {}
    for k, sid in enumerate(ids, start=1):
        row = 100.0 * k + 10.0 * np.arange(rows, dtype=np.float64)[:, np.newaxis]
        pnl = -row - np.arange(len(LABELS), dtype=np.float64)
        pool[sid] = UsefulSignal(row + np.arange(columns, dtype=np.float64), pnl)
    return pool


def block(pool: dict[str, Any], ids: Iterable[str], t: int) -> np.ndarray:
    """The weights of `ids` in row `t`, a row each."""
    return np.array([pool[sid].weights[t] for sid in ids], dtype=np.float64)


class RecordingFiltrations:
    """Takes the place of the class `FiltrationInstance`.

    `answers` maps the operator of a filtration node to the ids that pass, or to a function of the
    pool that gives them. `builds` holds the arguments of every construction, as (positional,
    keywords), and `calls` those of every call.
    """

    def __init__(self, answers: dict[str, Any]) -> None:
        self.answers = answers
        self.builds: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
        self.calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.builds.append((args, kwargs))
        answer = self.answers[args[0].function_name]

        def filtration(*pools: Any, **options: Any) -> Any:
            self.calls.append((pools, options))
            return answer(*pools) if callable(answer) else answer

        return filtration


def replace_filters(
    monkeypatch: pytest.MonkeyPatch, evaluator: ModuleType, **answers: Any
) -> RecordingFiltrations:
    """From here on the filters of `evaluator` answer as told."""
    filtrations = RecordingFiltrations(answers)
    monkeypatch.setattr(evaluator, "FiltrationInstance", filtrations)
    return filtrations


def array_failure(act: Callable[[], Any]) -> tuple[type[Exception], str]:
    """The type and the text of the exception that the array library raises in `act`."""
    try:
        act()
    except (IndexError, OverflowError, TypeError, ValueError) as error:
        return type(error), str(error)
    raise AssertionError("the array library raises nothing")
