"""Kills a live run again and again, and tells whether what it left was right each time.

python killing.py GRAPH IN HISTORY REFERENCE SCRATCH MODE KILLS

REFERENCE is the output folder of a run that wasn't killed. Each run is a fork of this process and
goes on in the folder that the one before left, or in a new one when that was done. MODE "steps"
kills before and after every system call of the run's writing, one after the other, KILLS at most;
"any" kills at KILLS random calls and returns of Python functions and random instants of the clock.

Prints a JSON document with the number of kills, of those that met a tick half way, and of the runs
that were finished.
"""

from __future__ import annotations

import json
import os
import random
import signal
import sys
import time
from collections.abc import Callable
from pathlib import Path
from types import FrameType
from typing import Any

from quernbrook.reference_host import default_registry
from quernbrook.workbench.command_line.commands.live import command
from quernbrook.workbench.command_line.graph_argument import read_graph
from quernbrook.workbench.live import OutputFolder

Profile = Callable[[FrameType, str, Any], None]

FILE_STEPS = {"mkdir", "open", "write", "flush", "fsync", "__exit__", "close", "replace", "unlink"}


class Killed:
    """The run, and what is known of it."""

    def __init__(self, graph: str, days: str, history: str, reference: str, scratch: str) -> None:
        self.graph, self.days, self.history = graph, days, Path(history)
        self.expected = {path.name: path.read_bytes() for path in Path(reference).iterdir()}
        self.scratch = Path(scratch)
        self.kills = self.half_way = self.finished = 0
        # What a run imports and reads once, so that the kills meet what it does afterwards.
        read_graph(graph)
        default_registry()

    @property
    def out(self) -> Path:
        return self.scratch / f"out-{self.finished}"

    def once(self, profile: Profile | None, seconds: float | None = None) -> None:
        """Start the run; kill it after `seconds`, unless `profile` does."""
        child = os.fork()
        if child == 0:
            self._be_killed(profile)
        if seconds is not None:
            time.sleep(seconds)
            os.kill(child, signal.SIGKILL)
        _, status = os.waitpid(child, 0)
        if os.WIFSIGNALED(status):
            assert os.WTERMSIG(status) == signal.SIGKILL
            self.kills += 1
            self._require_whole()
        else:
            assert os.WEXITSTATUS(status) == 0
            self._require_finished()
            self.finished += 1

    def finish(self) -> None:
        before = self.finished
        self.once(None)
        assert self.finished == before + 1

    def _be_killed(self, profile: Profile | None) -> None:
        try:
            os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
            sys.setprofile(profile)
            command(self.graph, self.days, self.out, history=self.history, once=True)
            sys.setprofile(None)
            os._exit(0)
        finally:
            sys.setprofile(None)
            sys.excepthook(*sys.exc_info())
            os._exit(1)

    def _require_whole(self) -> None:
        if not self.out.exists():
            return
        found = {path.name: path.read_bytes() for path in self.out.iterdir()}
        weights = {name: content for name, content in found.items() if name.startswith("weights")}
        for name, content in weights.items():
            assert content == self.expected[name], name
        self.half_way += any(name.startswith(".") for name in found)
        with OutputFolder(self.out) as output:
            last = "" if output.progress is None else f"weights-{output.progress.last_date.date()}"
        dates = sorted(name for name in self.expected if name.startswith("weights"))
        behind = [name for name in dates if name.partition(".")[0] <= last]
        assert set(behind) <= set(weights)
        ahead = sorted(set(weights) - set(behind))
        assert ahead in ([], dates[len(behind) : len(behind) + 1])
        self.half_way += bool(ahead)

    def _require_finished(self) -> None:
        found = {path.name: path.read_bytes() for path in self.out.iterdir()}
        assert found == self.expected


def kill_at(count: int, is_counted: Callable[[str, Any], bool]) -> Profile:
    left = count

    def profile(frame: FrameType, event: str, argument: Any) -> None:
        nonlocal left
        if is_counted(event, argument):
            left -= 1
            if left < 0:
                os.kill(os.getpid(), signal.SIGKILL)

    return profile


def any_event(event: str, argument: Any) -> bool:
    return True


def file_step(event: str, argument: Any) -> bool:
    """Before and after whatever makes, writes, syncs, renames and removes files."""
    return event.startswith("c_") and argument.__name__ in FILE_STEPS and _is_of_files(argument)


def _is_of_files(function: Any) -> bool:
    # Texts have a `replace`, too.
    owner = type(getattr(function, "__self__", None)).__module__
    return function.__module__ in ("posix", "io", "_io") or owner == "_io"


def kill_at_steps(run: Killed, kills: int) -> None:
    for step in range(kills):
        run.once(kill_at(step, file_step))
    run.finish()


def kill_at_any(run: Killed, kills: int) -> None:
    draw = random.Random(11)
    start = time.perf_counter()
    run.finish()
    # Some of the runs end before they are killed.
    longest = 0.2 * (time.perf_counter() - start)
    while run.kills < kills:
        if draw.random() < 0.5:
            run.once(None, draw.uniform(0.0, longest))
        else:
            run.once(kill_at(round(10.0 ** draw.uniform(0.0, 5.0)), any_event))
    run.finish()


if __name__ == "__main__":
    *paths, mode, kill_count = sys.argv[1:]
    killed = Killed(*paths)
    {"steps": kill_at_steps, "any": kill_at_any}[mode](killed, int(kill_count))
    found = {"kills": killed.kills, "half_way": killed.half_way, "finished": killed.finished}
    print(json.dumps(found))
