"""The registry: functions by name, and their instances.

This module must not hold a class named ``FunctionState``: the evaluator would take it for the
registry's own typed state and convert every state to it before a restore.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from dataclasses import replace
from importlib import import_module
from typing import Any

from quernbrook.reference_host import (
    arithmetic,
    cross_sectional,
    logic,
    reductions,
    rolling,
    rolling_moments,
    rolling_order,
    rolling_trend,
    shares,
)
from quernbrook.reference_host.entries import FunctionEntry, name_of
from quernbrook.simulator_engine._types import FunctionExecutionError


class FunctionRegistry:
    """Knows functions by name and makes their instances."""

    def __init__(self, entries: Iterable[FunctionEntry] = ()) -> None:
        self._entries: dict[str, FunctionEntry] = {}
        for entry in entries:
            self.register(entry)

    def register(self, entry: FunctionEntry) -> None:
        """Add a function, or replace the one of the same name.

        Its instances need the attribute ``stateful`` and are called with rows: a rotation as
        ``instance(*rows, context=context)`` in a registry run and ``instance(*rows)`` when bound,
        a reduction as ``instance(block, signal_pnl=signal_pnl)``. Rows are float64 vectors of
        N_alloc, and so is the result. A stateful instance also has ``get_state()`` and
        ``restore(state_data)``, a stateful reduction also ``window``.

        Raises TypeError for anything but a FunctionEntry.
        """
        if not isinstance(entry, FunctionEntry):
            raise TypeError(f"a registry takes a FunctionEntry; got {entry!r}")
        self._entries[entry.name] = entry

    def names(self) -> list[str]:
        """Return the names of all functions, sorted."""
        return sorted(self._entries)

    def __iter__(self) -> Iterator[str]:
        """The names of all functions."""
        return iter(self._entries)

    @property
    def compiled(self) -> frozenset[str]:
        """The names of the functions whose instances are in machine code."""
        return frozenset(name for name, entry in self._entries.items() if entry.compiled)

    def __repr__(self) -> str:
        return (
            f"<{type(self).__name__}: {len(self._entries)} functions, "
            f"{len(self.compiled)} in machine code>"
        )

    def has(self, name: str) -> bool:
        return name in self._entries

    def has_factory(self, name: str) -> bool:
        """Whether `name` is a function of the user's own, and not one of the library."""
        return name in self._entries and self._entries[name].factory is not None

    def get_entry(self, name: str) -> FunctionEntry:
        """Raises FunctionExecutionError for an unknown name."""
        if name not in self._entries:
            raise FunctionExecutionError(f"Function '{name}' is not registered")
        return self._entries[name]

    def create_instance(self, name: str, /, **config: Any) -> Any:
        """Raises FunctionExecutionError for an unknown name and for a faulty configuration."""
        entry = self.get_entry(name)
        try:
            complete = entry.complete_config(config)
            return entry.build(**complete)
        except ValueError as error:
            raise FunctionExecutionError(f"Function '{name}': {error}") from error
        except TypeError as error:
            given = ", ".join(f"{key}={value!r}" for key, value in complete.items())
            raise FunctionExecutionError(
                f"Function '{name}' can't be made with {given or 'no parameters'}: "
                f"TypeError: {error}"
            ) from error

    def create_instance_from_state(self, name: str, restore_state: Any, /, **config: Any) -> Any:
        """Return an instance that goes on, bit for bit, where the saved one stood.

        `restore_state` is an object with ``name`` and ``state_data``, or the data itself.
        Raises FunctionExecutionError like `create_instance`, and for a state that is another
        function's, was saved under another window, or isn't a state of this function at all.
        """
        instance = self.create_instance(name, **config)
        saved_name = getattr(restore_state, "name", name)
        if saved_name != name:
            raise FunctionExecutionError(
                f"Function '{name}' can't go on from a state of '{saved_name}'"
            )
        if not instance.stateful:
            raise FunctionExecutionError(f"Function '{name}' has no state to restore")
        if not hasattr(instance, "restore"):
            raise FunctionExecutionError(
                f"Function '{name}' can't restore its state: {name_of(type(instance))} has no "
                "method restore(state_data)"
            )
        try:
            instance.restore(getattr(restore_state, "state_data", restore_state))
        except (KeyError, TypeError, ValueError) as error:
            raise FunctionExecutionError(
                f"Function '{name}' can't restore its state: {type(error).__name__}: {error}"
            ) from error
        return instance


def default_registry(*, compiled: bool | None = None) -> FunctionRegistry:
    """Return a new registry with all functions of the library.

    Functions in machine code are taken where the distribution quernbrook-row-kernels is installed.
    They take the same parameters, go on from the same states and give the same results, along time
    but for rounding. `compiled` insists: True on them, with an ImportError where they are missing,
    False on the plain definitions here.
    """
    entries = (
        *arithmetic.FUNCTIONS,
        *logic.FUNCTIONS,
        *cross_sectional.FUNCTIONS,
        *shares.FUNCTIONS,
        *reductions.FUNCTIONS,
        *rolling.FUNCTIONS,
        *rolling_moments.FUNCTIONS,
        *rolling_order.FUNCTIONS,
        *rolling_trend.FUNCTIONS,
    )
    types = _compiled_types(compiled)
    return FunctionRegistry(
        replace(entry, build=types[entry.name], compiled=True) if entry.name in types else entry
        for entry in entries
    )


def _compiled_types(compiled: bool | None) -> Mapping[str, type]:
    if compiled is False:
        return {}
    try:
        # Not at the top: whoever makes no registry pays nothing for it.
        row_kernels = import_module("quernbrook.row_kernels")
    except ModuleNotFoundError as error:
        if compiled or error.name != "quernbrook.row_kernels":
            raise
        return {}
    return row_kernels.FUNCTIONS
