"""What the host offers to a run: the registry, the filter library, stage data."""

from __future__ import annotations

from collections.abc import Callable
from types import SimpleNamespace
from typing import Any

import numpy as np
from properties.describe import described
from quernbrook.functions._typed_shapes import StageData


class LoggingRegistry:
    def __init__(self, host: Any) -> None:
        self.host = host

    def __deepcopy__(self, _: Any) -> LoggingRegistry:
        return self

    def has(self, name: str) -> bool:
        self.host.asked("has", name)
        return name in self.host.functions and self.host.functions[name].known

    def has_factory(self, name: str) -> bool:
        self.host.asked("has_factory", name)
        return name not in self.host.functions or self.host.functions[name].factory

    def get_entry(self, name: str) -> Any:
        self.host.asked("get_entry", name)
        case = self.host.functions[name]
        attributes: dict[str, Any] = {"stateful": case.stateful, **dict(case.entry)}
        if case.family is not None:
            attributes["family"] = case.family
        if case.parameters is not None:
            attributes["param_schema"] = [
                {"name": parameter, "type": kind} for parameter, kind in case.parameters
            ]
        return SimpleNamespace(**attributes)

    def create_instance(self, name: str, **config: Any) -> Any:
        self.host.asked("create_instance", name, described(config))
        return self.host.new_instance(name, self.host.functions[name])

    def create_instance_from_state(self, name: str, restore_state: Any, **config: Any) -> Any:
        self.host.asked("restore", name, described(restore_state), described(config))
        data = getattr(restore_state, "data", restore_state)
        data = getattr(data, "state_data", data)
        count = data.get("count", 0) if isinstance(data, dict) else 0
        calls = count if isinstance(count, int) and count < 99 else 0
        return self.host.new_instance(name, self.host.functions[name], calls)


class TypedRegistry(LoggingRegistry):
    """Its class says that it comes from a module with a state class of its own."""

    __module__ = "support.typed_registry"


REGISTRIES: dict[str, Any] = {
    "plain": LoggingRegistry,
    "typed": TypedRegistry,
    "none": lambda _: None,
}


class LoggingFilter:
    """Lets pass what the case says."""

    def __init__(self, host: Any, tree: Any, registry: Any) -> None:
        self.host = host
        host.asked("filter", repr(tree), registry is host.context.registry)

    def __call__(self, useful_signals: Any) -> Any:
        self.host.asked("passing", list(useful_signals))
        kind, *ids = self.host.case.passing
        containers: dict[str, Callable[[list[str]], Any]] = {
            "list": list,
            "tuple": tuple,
            "keys": dict.fromkeys,
            "array": np.array,
            "iterator": iter,
            "text": "".join,
            "none": lambda _: None,
        }
        return containers[kind](ids)


class LoggingStageData(StageData):
    """The stage data of the host; it can change between runs."""

    def __init__(self, host: Any) -> None:
        super().__init__()
        self.host = host

    def __deepcopy__(self, _: Any) -> LoggingStageData:
        return self

    def is_empty(self) -> bool:
        self.host.asked("is_empty")
        return not self.host.stage_values

    def value(self, name: str, default: Any = None) -> Any:
        self.host.asked("value", name, default)
        return self.host.stage_values.get(name, default)
