"""What a stateful instance hands out for a checkpoint."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any


@dataclass
class SavedState:
    """The state of one instance: its function's name and plain data that JSON can hold.

    It has the fields of the evaluator's own ``FunctionState`` and is taken wherever that is; it
    stands here because the evaluator imports this package's siblings, and not they the evaluator.
    """

    name: str
    state_data: dict[str, Any] = field(default_factory=dict)
