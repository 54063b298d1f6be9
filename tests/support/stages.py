"""A pipeline, and a stand-in for the host's transform merge."""

from __future__ import annotations

from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest
from support.graphs import rotation

PIPELINE = ["any truthy thing"]


class RecordingMerge:
    """Takes the place of `combine_signal_and_transforms`; `calls` holds (positional, keywords)."""

    def __init__(self, answer: Callable[[Any], Any]) -> None:
        self.answer = answer
        self.calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append((args, kwargs))
        return self.answer(args[0])


def lay_around(signal: Any) -> Any:
    """The signal below one more function, "top", which has no identity of its own."""
    return rotation("top", signal)


def replace_merge(
    monkeypatch: pytest.MonkeyPatch,
    evaluator: ModuleType,
    answer: Callable[[Any], Any] = lay_around,
) -> RecordingMerge:
    """From here on the transform merge answers as told."""
    merge = RecordingMerge(answer)
    monkeypatch.setattr(evaluator, "combine_signal_and_transforms", merge)
    return merge
