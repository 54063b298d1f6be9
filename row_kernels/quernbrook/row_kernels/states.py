"""What a stateful instance hands out for a checkpoint."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any


@dataclass
class SavedState:
    """The state of one instance: its function's name and plain data that JSON can hold."""

    name: str
    state_data: dict[str, Any] = field(default_factory=dict)


def restored(kind: type, arguments: tuple[Any, ...], state_data: dict[str, Any]) -> Any:
    """An instance that goes on from a state: what pickle calls."""
    instance = kind(*arguments)
    instance.restore(state_data)
    return instance
