"""Objects that tell what was read of them, and fail where nothing should have been read."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any


class Trap:
    """Has only the attributes given; any other that is read fails the test.

    `reads` holds the names that were read, in order. An attribute that is an exception is raised.
    """

    def __init__(self, **attributes: Any) -> None:
        object.__setattr__(self, "_given", attributes)
        object.__setattr__(self, "reads", [])

    def __getattribute__(self, name: str) -> Any:
        if name == "reads" or name.startswith("__"):
            return object.__getattribute__(self, name)
        self.reads.append(name)
        given = object.__getattribute__(self, "_given")
        if name not in given:
            raise AssertionError(f"{name} was read")
        value = given[name]
        if isinstance(value, BaseException):
            raise value
        return value


class Unsure:
    """Its truth value fails."""

    def __init__(self, fault: BaseException) -> None:
        self.fault = fault

    def __bool__(self) -> bool:
        raise self.fault


class Said:
    """Has a truth value and counts how often it was asked for."""

    def __init__(self, truth: bool) -> None:
        self.truth = truth
        self.asked = 0

    def __bool__(self) -> bool:
        self.asked += 1
        return self.truth


def permissive(**attributes: Any) -> SimpleNamespace:
    """The attributes of a context that every fast road reads, none of them in its way."""
    required: dict[str, Any] = {
        "useful_signals": {},
        "transform_pipeline": [],
        "metaparameters": {},
    }
    defaults = {**required, "registry": None, "feature_index": {"a": 0, "b": 1}}
    return SimpleNamespace(**{**defaults, **attributes})
