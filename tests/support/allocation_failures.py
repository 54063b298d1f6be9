"""Lets the allocations of runs fail one by one; a process of its own, for it may crash.

    python -m support.allocation_failures MODULE ROAD...

Writes a line of JSON when a road is begun and one when it is through.
"""

from __future__ import annotations

import faulthandler
import gc
import importlib
import json
import logging
import sys
import threading
import warnings
from collections.abc import Callable, Iterator
from typing import Any

import numpy as np
import structlog
from support.leak_roads import FAILING_ROADS, GOOD_ROADS, Run
from support.strip_roads import FAILING_STRIP_ROADS, GOOD_STRIP_ROADS

_testcapi: Any = importlib.import_module("_testcapi")

#: So many runs in a row that end well tell that no allocation is left to fail.
UNTOUCHED = 20
MOST_ODD = 10
LOST: tuple[str, ...] = (
    "_PyEval_EvalFrameDefault returned NULL without setting an exception",
    "can't allocate lock",
    "import of module",
)
if sys.version_info >= (3, 11):
    # Any call and any look-up of an attribute may lose its error there.
    LOST += ("error return without exception set", "returned NULL without setting an exception")
#: Casting an object to a number, NumPy forgets the error that the interpreter has set.
CASTS = {"objects", "object row"}
LOST_CAST = "_evaluate_unlocked> returned NULL without setting an exception"
#: A registry that fails to give its entry closes the road, and the row loop finds no factory.
CLOSED_ROADS = {"longitudinal", "longitudinal, masked"}
CLOSED_ROAD = "'longitudinal_std'"


def chain(error: BaseException | None) -> Iterator[BaseException]:
    while error is not None:
        yield error
        error = error.__cause__ or error.__context__


def outcome(run: Run) -> Any:
    try:
        result = run()
    except BaseException as error:  # noqa: BLE001 - interrupts are among the roads
        return error
    return result


def described(found: Any) -> Any:
    """What a run ended with, to compare."""
    if isinstance(found, BaseException):
        try:
            return type(found).__name__, str(found)
        except RuntimeError:
            return type(found).__name__, "mute"
    weights = getattr(found, "weights", None)
    if weights is None:
        return "other result"
    return weights.tobytes(), sorted(found.node_outputs)


def failing_allocation(number: int, run: Run) -> Any:
    """The outcome of a run whose allocation with this number fails."""
    _testcapi.set_nomemory(number, number + 1)
    try:
        return outcome(run)
    except (MemoryError, SystemError) as error:
        return error  # of the call of `outcome` itself
    finally:
        _testcapi.remove_mem_hooks()


def is_of_the_interpreter(found: Any, expected: Any, tolerated: tuple[str, ...]) -> bool:
    """Ends that the interpreter and NumPy make of their own lost allocations."""
    kind, text = described(found) if isinstance(found, BaseException) else (None, "")
    if kind is None or not isinstance(text, str):
        return False
    # An error whose text could not be made is raised without it.
    without_text = kind == expected[0] and expected[1].startswith(text)
    # Frames, NumPy's casts of objects, locks and pickle lose the error on the way.
    return without_text or any(one in text for one in tolerated)


def sweep(run: Run, tolerated: tuple[str, ...]) -> dict[str, Any]:
    """How many runs ended in MemoryError, and the descriptions of ends that should not be."""
    for _ in range(3):  # what is made once and kept
        expected = described(outcome(run))
    failed, untouched, number = 0, 0, 0
    odd: list[str] = []
    while untouched < UNTOUCHED and len(odd) < MOST_ODD:
        found = failing_allocation(number, run)
        if isinstance(found, BaseException) and any(
            isinstance(one, MemoryError) for one in chain(found)
        ):
            failed += 1
            untouched = 0
        elif described(found) == expected or is_of_the_interpreter(found, expected, tolerated):
            untouched += 1
        else:
            odd.append(f"allocation {number}: {str(described(found))[:300]}")
            untouched = 0
        found = None
        number += 1
    after = described(outcome(run))
    if after != expected:
        odd.append(f"afterwards: {str(after)[:300]}")
    return {"failed": failed, "odd": odd}


def tolerated(road: str) -> tuple[str, ...]:
    if road in CASTS:
        return (*LOST, LOST_CAST)
    return (*LOST, CLOSED_ROAD) if road in CLOSED_ROADS else LOST


def locks(run: Callable[[], Any]) -> Iterator[Any]:
    """The locks of the contexts that the run holds on to."""
    pending = [run]
    while pending:
        for cell in pending.pop().__closure__ or ():
            lock = getattr(cell.cell_contents, "_evaluation_lock", None)
            if lock is not None:
                yield lock
            elif hasattr(cell.cell_contents, "__closure__"):
                pending.append(cell.cell_contents)


def free_elsewhere(lock: Any) -> bool:
    taken = []
    thread = threading.Thread(target=lambda: taken.append(lock.acquire(blocking=False)))
    thread.start()
    thread.join()
    return taken == [True]


def main(module: str, *names: str) -> None:
    faulthandler.enable()
    warnings.simplefilter("ignore")
    structlog.configure(wrapper_class=structlog.make_filtering_bound_logger(logging.CRITICAL))
    sys.unraisablehook = lambda *_: None
    evaluator = importlib.import_module(module)
    roads = {**GOOD_ROADS, **FAILING_ROADS, **GOOD_STRIP_ROADS, **FAILING_STRIP_ROADS}
    np.seterr(all="ignore")
    for name in names:
        print(json.dumps({"begun": name}), flush=True)
        run = roads[name](evaluator)
        report = sweep(run, tolerated(name))
        report["locked"] = sum(not free_elsewhere(lock) for lock in locks(run))
        print(json.dumps({"road": name, **report}), flush=True)
        gc.collect()


if __name__ == "__main__":
    main(*sys.argv[1:])
