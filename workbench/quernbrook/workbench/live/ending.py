"""Ends that are asked for: Ctrl-C and SIGTERM, between ticks."""

from __future__ import annotations

import os
import select
import signal
from types import FrameType, TracebackType
from typing import Any

_SIGNALS = (signal.SIGINT, signal.SIGTERM)


class Ending:
    """Takes Ctrl-C and SIGTERM for as long as it is entered; what runs goes on.

    asked: whether one has come.

    For the main thread.
    """

    def __init__(self) -> None:
        self.asked = False
        self._before: dict[signal.Signals, Any] = {}
        self._awake, self._wake = -1, -1

    def __enter__(self) -> Ending:
        self._awake, self._wake = os.pipe()
        self._before = {number: signal.signal(number, self._ask) for number in _SIGNALS}
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        for number, handler in self._before.items():
            signal.signal(number, handler)
        os.close(self._awake)
        os.close(self._wake)

    def wait(self, seconds: float | None = None, descriptor: int | None = None) -> bool:
        """Wait until an end is asked for, `descriptor` can be read or the time is over; say whether
        an end has been asked for."""
        others = [] if descriptor is None else [descriptor]
        select.select([self._awake, *others], [], [], seconds)
        return self.asked

    def _ask(self, number: int, frame: FrameType | None) -> None:
        if not self.asked:
            self.asked = True
            # A select that is under way, or about to begin, returns.
            os.write(self._wake, b"\0")
