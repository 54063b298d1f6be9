"""Ctrl-C between two steps that belong together."""

from __future__ import annotations

import signal
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from types import FrameType


@contextmanager
def held_back() -> Iterator[None]:
    """Have an interrupt take effect when the block has ended. Only the main thread gets any."""
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    came = False

    def note(number: int, frame: FrameType | None) -> None:
        nonlocal came
        came = True

    before = signal.signal(signal.SIGINT, note)
    try:
        yield
    finally:
        # None stands for a handler that wasn't set from Python, which can't be set back.
        signal.signal(signal.SIGINT, signal.SIG_DFL if before is None else before)
    if came:
        signal.raise_signal(signal.SIGINT)
