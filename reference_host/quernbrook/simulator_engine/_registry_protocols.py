"""What the evaluator asks of a function registry."""

from __future__ import annotations

from typing import Any, Protocol, runtime_checkable


@runtime_checkable
class RegistryProtocol(Protocol):
    """Knows functions by name and makes their instances.

    An entry is any object with the optional attributes ``param_schema``, ``family``,
    ``stateful``, ``function_version``, ``module_path``, ``class_name``, ``factory`` and
    ``implementation``. A registry may also offer ``get_function_version(function_name)``.
    """

    def has(self, name: str) -> bool:
        """Whether `name` is known and can be created."""

    def has_factory(self, name: str) -> bool:
        """Whether code of the host's own stands behind `name`, so that only calls will do."""

    def get_entry(self, name: str) -> Any:
        """Return the entry of `name`."""

    def create_instance(self, name: str, /, **config: Any) -> Any:
        """Return a fresh instance."""

    def create_instance_from_state(self, name: str, restore_state: Any, /, **config: Any) -> Any:
        """Return an instance that goes on from `restore_state`."""
