"""The library with functions that misbehave, for workers to import."""

from __future__ import annotations

import ctypes
import os
import signal
import sys
import time
import warnings
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, default_registry

Row = NDArray[np.float64]

#: Names the folder in which functions leave traces.
FOLDER = "SWEEP_TEST_FOLDER"


def make() -> FunctionRegistry:
    registry = default_registry()
    for function in (dies, dies_once, crashes, sleeps, warns, fails, interrupts, rests, exits):
        entry = FunctionEntry(function.__name__, "rotations", _build(function))
        registry.register(entry)
    return registry


def _build(function: Any) -> Any:
    class Function:
        name = function.__name__
        stateful = False

        def __call__(self, row: Row, context: Any = None) -> Row:
            function(row)
            return row.copy()

    return Function


def dies(row: Row) -> None:
    with open(Path(os.environ[FOLDER], "deaths"), "a") as file:
        file.write("x")
    os.kill(os.getpid(), signal.SIGKILL)


def dies_once(row: Row) -> None:
    trace = Path(os.environ[FOLDER], "died")
    if not trace.exists():
        trace.touch()
        os.kill(os.getpid(), signal.SIGKILL)


def crashes(row: Row) -> None:
    ctypes.string_at(0)


def sleeps(row: Row) -> None:
    time.sleep(30.0)


def warns(row: Row) -> None:
    warnings.warn("a row of odd numbers", RuntimeWarning, stacklevel=1)


def fails(row: Row) -> None:
    if row[0] > 2.0:
        raise ValueError("too large")


def rests(row: Row) -> None:
    time.sleep(0.0001)


def exits(row: Row) -> None:
    sys.exit(3)


def interrupts(row: Row) -> None:
    raise KeyboardInterrupt
