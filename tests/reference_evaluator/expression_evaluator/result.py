"""What a run gives back."""

from collections.abc import Iterator
from typing import Any

import numpy as np


class EvaluationResult:
    """Array-like evaluate() result that still unpacks as (weights, states)."""

    def __init__(
        self, weights: Any, states: Any, nan_source: Any = None, node_outputs: Any = None
    ) -> None:
        self.weights = weights
        self.states = states
        self.nan_source = nan_source if nan_source is not None else {}
        self.node_outputs = node_outputs if node_outputs is not None else {}

    def __iter__(self) -> Iterator[Any]:
        yield self.weights
        yield self.states

    def __len__(self) -> int:
        return 2

    def __getitem__(self, index: Any) -> Any:
        return (self.weights, self.states)[index]

    def __array__(self, dtype: Any = None) -> np.ndarray:
        if dtype is None:
            return np.asarray(self.weights)
        return np.asarray(self.weights, dtype=dtype)

    def __getattr__(self, name: str) -> Any:
        return getattr(self.weights, name)
