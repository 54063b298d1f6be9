"""Errors of functions and of the host, and what describes them."""

from __future__ import annotations

import traceback
from pathlib import Path
from typing import Any

FOLDER = Path(__file__).parent


class MuteError(Exception):
    """Its text cannot be had."""

    def __str__(self) -> str:
        raise RuntimeError("mute")


class OddError(ValueError):
    def __init__(self, *, code: int) -> None:
        super().__init__(code, "odd")


def chained(*_: Any) -> Any:
    try:
        raise KeyError("inner")
    except KeyError as error:
        raise ValueError("outer") from error


def raising(error: type[BaseException], *arguments: Any, **keywords: Any) -> Any:
    def raise_error(*_: Any) -> Any:
        raise error(*arguments, **keywords)

    return raise_error


#: Callables that raise.
ERRORS: dict[str, Any] = {
    "value": raising(ValueError, "broken", 1),
    "key": raising(KeyError, "lost"),
    "attribute": raising(AttributeError, "absent"),
    "type": raising(TypeError, "mistyped"),
    "stop": raising(StopIteration, 3),
    "recursion": raising(RecursionError, "deep"),
    "memory": raising(MemoryError),
    "odd": raising(OddError, code=7),
    "mute": raising(MuteError),
    "chained": chained,
    "keyboard": raising(KeyboardInterrupt),
    "exit": raising(SystemExit, 4),
    "generator": raising(GeneratorExit),
    "base": raising(BaseException, "base"),
}


def text_of(error: BaseException) -> str:
    try:
        return str(error)
    except RuntimeError:
        return "mute"


def origin(error: BaseException) -> str | None:
    """The innermost function of these tests that the error came through."""
    frames = traceback.extract_tb(error.__traceback__)
    names = [frame.name for frame in frames if Path(frame.filename).parent == FOLDER]
    return names[-1] if names else None


def describe_error(error: BaseException | None) -> Any:
    if error is None:
        return None
    return (
        f"{type(error).__module__}.{type(error).__qualname__}",
        text_of(error),
        getattr(error, "filter_diagnostics", None),
        origin(error),
        describe_error(error.__cause__),
        describe_error(error.__context__),
        error.__suppress_context__,
    )
