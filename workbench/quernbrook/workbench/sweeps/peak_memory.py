"""The most that a process had in memory while a block ran. Linux alone tells it."""

from __future__ import annotations

import re
import sys
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass

_HIGH_WATER = re.compile(rb"^VmHWM:\s+(\d+) kB$", re.MULTILINE)


@dataclass
class Peak:
    """size: in bytes, once the block has ended; None where it can't be told."""

    size: int | None = None


@contextmanager
def measured() -> Iterator[Peak]:
    peak = Peak()
    if sys.platform != "linux":
        yield peak
        return
    try:
        with open("/proc/self/clear_refs", "wb") as file:
            # Sets the high-water mark back.
            file.write(b"5")
    except OSError:
        # Some containers allow no writing there. The mark since the process began is still one.
        pass
    try:
        yield peak
    finally:
        with open("/proc/self/status", "rb") as file:
            found = _HIGH_WATER.search(file.read())
        if found is not None:
            peak.size = 1024 * int(found[1])
