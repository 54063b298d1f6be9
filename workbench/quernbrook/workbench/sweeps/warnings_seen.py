"""Warnings of one thread, as texts. Python's own means of catching them is for all threads."""

from __future__ import annotations

import threading
import warnings
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any

_MOST = 20
_here = threading.local()


@contextmanager
def shown_to_collectors() -> Iterator[None]:
    """While this lasts, warnings are shown to collectors, around all threads that collect."""
    with warnings.catch_warnings():
        show_to_collectors()
        yield


def show_to_collectors() -> None:
    """Have warnings in blocks of `collected` go there from now on, every one of them."""
    before = warnings.showwarning

    def show(message: Any, category: type[Warning], *place: Any, **others: Any) -> None:
        texts = getattr(_here, "texts", None)
        if texts is None:
            before(message, category, *place, **others)
            return
        text = f"{category.__name__}: {message}"
        if text not in texts and len(texts) < _MOST:
            texts.append(text)

    warnings.simplefilter("always")
    warnings.showwarning = show


@contextmanager
def collected() -> Iterator[list[str]]:
    """Give the texts of this thread's warnings, each once, of the first 20 kinds."""
    texts: list[str] = []
    _here.texts = texts
    try:
        yield texts
    finally:
        _here.texts = None
