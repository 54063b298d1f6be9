"""Peak memory of a call, read in a process of its own.

tracemalloc sees only what passes through Python's allocators; the kernels' own memory and that of
other libraries shows in the resident set alone.
"""

from __future__ import annotations

import multiprocessing
import re
import sys
from collections.abc import Callable
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path
from typing import Any

# The high-water mark of the resident set and the means to reset it.
CAN_BE_READ = sys.platform == "linux"


def peak_growth(prepare: Callable[[int], Any], size: int, call: Callable[[Any], Any]) -> int:
    """By how many bytes the resident set grows at most while `call` works on `prepare(size)`.

    Both functions have to be importable, or partials of such.
    """
    with ProcessPoolExecutor(1, multiprocessing.get_context("spawn")) as pool:
        return pool.submit(_peak_growth_here, prepare, size, call).result()


def beyond_result(
    prepare: Callable[[int], Any], size: int, call: Callable[[Any], Any], result: int
) -> str:
    """The peak less the `result` bytes that every caller gets; empty where it can't be read."""
    if not CAN_BE_READ:
        return ""
    return f"{max(peak_growth(prepare, size, call) - result, 0) / 2**20:,.0f} MiB"


def _peak_growth_here(prepare: Callable[[int], Any], size: int, call: Callable[[Any], Any]) -> int:
    # What comes with the first call only: modules, threads, compiled code.
    call(prepare(size // 100))
    prepared = prepare(size)
    Path("/proc/self/clear_refs").write_text("5")
    before = _resident("VmRSS")
    kept = call(prepared)
    growth = _resident("VmHWM") - before
    # The result, and what it holds alive, counts like everything else until here.
    del kept
    return growth


def _resident(field: str) -> int:
    status = Path("/proc/self/status").read_text()
    found = re.search(rf"^{field}:\s+(\d+) kB$", status, re.MULTILINE)
    assert found is not None
    return 1024 * int(found[1])
