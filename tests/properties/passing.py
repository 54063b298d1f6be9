"""Inputs that tell their host when the evaluator meets them, so that it can meddle."""

from __future__ import annotations

from typing import Any

import numpy as np
from quernbrook.simulator_engine._types import UsefulSignal


class PassedMatrix(np.ndarray):
    """Tells its host when a row is taken."""

    host: Any = None

    def __getitem__(self, key: Any) -> Any:
        if self.host is not None:
            self.host.passes("feature")
        return np.asarray(self)[key]


class PassedSignal:
    """Tells its host when its arrays are read."""

    def __init__(self, host: Any, signal: UsefulSignal) -> None:
        self.host, self.signal = host, signal
        self.fields = signal.fields

    @property
    def weights(self) -> Any:
        self.host.passes("weights")
        return self.signal.weights

    @property
    def pnl(self) -> Any:
        self.host.passes("pnl")
        return self.signal.pnl


class PassedOutputs(dict):
    """Tells its host when it is asked for an identity."""

    def __init__(self, host: Any, stored: dict[Any, Any]) -> None:
        super().__init__(stored)
        self.host = host

    def __contains__(self, key: object) -> bool:
        self.host.passes("membership")
        return super().__contains__(key)
