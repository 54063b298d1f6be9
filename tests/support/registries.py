"""A registry that records every call made to it.

This module must not define a class named `FunctionState`: a registry's module declares its typed
state by such a class, and `RecordingRegistry` is the registry without one.
"""

from __future__ import annotations

from collections.abc import Iterable
from types import SimpleNamespace
from typing import Any

from support.functions import RecordingFunction


def entry(**attributes: Any) -> SimpleNamespace:
    """A registry entry that has the given attributes and no others."""
    return SimpleNamespace(**attributes)


class RecordingRegistry:
    """Knows the names of `entries` and `factories`.

    `factories` maps a name to a callable of the configuration keywords that makes an instance, or
    to an instance, which then serves every creation; a name without one gets a new
    `RecordingFunction`. `real_factories` are the names that `has_factory` affirms. `instances`
    holds what was created, as (name, instance), and `calls` every call as
    (method, function name, restored state or None, configuration).
    """

    def __init__(
        self,
        entries: dict[str, Any] | None = None,
        factories: dict[str, Any] | None = None,
        *,
        real_factories: Iterable[str] = (),
    ) -> None:
        self.entries = {} if entries is None else entries
        self.factories = {} if factories is None else factories
        self.real_factories = frozenset(real_factories)
        self.instances: list[tuple[str, Any]] = []
        self.calls: list[tuple[str, str, Any, dict[str, Any]]] = []

    def names(self, method: str) -> list[str]:
        """The function names that `method` was called with, in order."""
        return [name for called, name, _, _ in self.calls if called == method]

    def has(self, name: str) -> bool:
        self._log("has", name)
        return name in self.entries or name in self.factories

    def has_factory(self, name: str) -> bool:
        self._log("has_factory", name)
        return name in self.real_factories

    def get_entry(self, name: str) -> Any:
        self._log("get_entry", name)
        return self.entries.get(name, entry())

    def create_instance(self, name: str, **config: Any) -> Any:
        self._log("create_instance", name, None, config)
        return self._create(name, config)

    def create_instance_from_state(self, name: str, restore_state: Any, **config: Any) -> Any:
        self._log("create_instance_from_state", name, restore_state, config)
        return self._create(name, config)

    def _log(
        self, method: str, name: str, state: Any = None, config: dict[str, Any] | None = None
    ) -> None:
        self.calls.append((method, name, state, {} if config is None else config))

    def _create(self, name: str, config: dict[str, Any]) -> Any:
        factory = self.factories.get(name)
        instance: Any
        if factory is None:
            instance = RecordingFunction(config=config)
        elif isinstance(factory, type) or not hasattr(factory, "stateful"):
            instance = factory(**config)
        else:
            instance = factory
        self.instances.append((name, instance))
        return instance
