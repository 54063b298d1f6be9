"""Kills a process at every step of a save in turn; prints what a reader finds after each.

A step is a call of a function, of Python's or of C, or the return from one. Each line is the
number of rows of the checkpoint that was found, the last one after a process that lived.
"""

from __future__ import annotations

import itertools
import os
import signal
import sys
from pathlib import Path
from types import FrameType
from typing import Any

from quernbrook.simulator_engine import expression_evaluator as native
from support.checkpoint_writer import load, save
from support.graphs import feature, integer, rotation
from support.restores import History, plain

OLD, NEW = 10, 11
# More states would be written in more steps of the same kind.
GRAPH = rotation("longitudinal_mean", feature("a"), integer(3))


def save_for(steps: int, path: Path, rows: int, result: Any) -> None:
    """Save, but die after so many steps."""
    left = steps

    def step(frame: FrameType, event: str, argument: Any) -> None:
        nonlocal left
        if left == 0:
            os.kill(os.getpid(), signal.SIGKILL)
        left -= 1

    sys.setprofile(step)
    save(path, rows, result)
    sys.setprofile(None)


def main(path: Path) -> None:
    history = History(NEW)
    results = {rows: history.run(native, GRAPH, 0, rows) for rows in (OLD, NEW)}
    rows = NEW
    for steps in itertools.count():
        if rows == NEW:
            save(path, OLD, results[OLD])
        process = os.fork()
        if process == 0:
            save_for(steps, path, NEW, results[NEW])
            os._exit(0)
        _, status = os.waitpid(process, 0)
        rows, _, found = load(path)
        if plain(found) != plain(results[rows].states):
            sys.exit(f"killed after {steps} steps: {found}")
        print(rows)
        if not os.WIFSIGNALED(status):
            sys.exit(os.waitstatus_to_exitcode(status))


if __name__ == "__main__":
    main(Path(sys.argv[1]))
