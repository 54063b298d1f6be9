"""A registry whose module declares a typed function state."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from support.registries import RecordingRegistry


@dataclass
class FunctionState:
    function_name: str
    function_version: Any
    data: Any


class TypedStateRegistry(RecordingRegistry):
    pass
