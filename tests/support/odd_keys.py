"""Keys of dictionaries that have the hash of a name and run code when they are compared with it."""

from __future__ import annotations

import sys
from collections.abc import Callable
from typing import Any


class OddKey:
    """Equal to nothing; `act` runs at every comparison but those that it makes itself."""

    def __init__(self, name: str, act: Callable[[], Any]) -> None:
        self.name = name
        self.act = act
        self.acts = False

    def __hash__(self) -> int:
        return hash(self.name)

    def __eq__(self, other: object) -> bool:
        if other == self.name and not self.acts:
            self.acts = True
            try:
                self.act()
            finally:
                self.acts = False
        return False


def put_in_front(owner: Any, name: str, act: Callable[[], Any]) -> None:
    """Lays the key before the attribute `name` of an instance, so that look-ups meet it."""
    owner.__dict__ = {OddKey(name, act): None, **vars(owner)}


def odd_class(base: type, name: str, act: Callable[[], Any]) -> type:
    """A subclass whose dictionary holds the key, so that look-ups on the class meet it."""

    def forget_and_act() -> None:
        act()
        clear_type_cache()

    members: dict[Any, Any] = {OddKey(name, forget_and_act): None}
    return type(base.__name__, (base,), members)


def clear_type_cache() -> None:
    """The interpreter remembers what it found on a class; then it has to look again."""
    sys._clear_type_cache()
