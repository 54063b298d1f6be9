"""Function instances that record how they were called."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import Any

import numpy as np


@dataclass
class Call:
    """One call: the argument objects themselves, copies of their values, the keywords."""

    args: tuple[Any, ...]
    values: tuple[Any, ...]
    kwargs: dict[str, Any]
    views: tuple[bool, ...]


def first_argument(*args: Any, **_: Any) -> Any:
    """The result of a function that returns a copy of its first row."""
    return np.array(args[0], copy=True)


class RecordingFunction:
    """A function instance. `result` is a callable of the call's arguments, or the value itself.

    `arity` and `window` exist on the instance only when given.
    """

    def __init__(
        self,
        result: Any = first_argument,
        *,
        stateful: Any = False,
        state: Any = None,
        config: dict[str, Any] | None = None,
        **attributes: Any,
    ) -> None:
        self.result = result
        self.stateful = stateful
        self.state = state
        self.config = config
        self.calls: list[Call] = []
        self.state_reads = 0
        for name, value in attributes.items():
            setattr(self, name, value)

    def __call__(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append(
            Call(
                args=args,
                values=tuple(np.array(arg, copy=True) for arg in args),
                kwargs=kwargs,
                views=tuple(isinstance(arg, np.ndarray) and arg.base is not None for arg in args),
            )
        )
        return self.result(*args, **kwargs) if callable(self.result) else self.result

    def get_state(self) -> Any:
        self.state_reads += 1
        return self.state() if callable(self.state) else self.state


def raising(error: BaseException) -> Callable[..., Any]:
    """A callable that raises `error` whatever it is given."""

    def raise_error(*_: Any, **__: Any) -> Any:
        raise error

    return raise_error
