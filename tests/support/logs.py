"""A logger that keeps what it is told."""

from __future__ import annotations

from typing import Any


class RecordingLogger:
    """`events` holds (level, positional arguments, fields); `fault` is raised when there is one.

    It knows the level "error" alone: any other fails with an AttributeError.
    """

    def __init__(self, fault: BaseException | None = None) -> None:
        self.fault = fault
        self.events: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = []

    def error(self, *args: Any, **fields: Any) -> None:
        self.events.append(("error", args, fields))
        if self.fault is not None:
            raise self.fault
