"""Hands groups to workers, and finds the runs whose workers die or take too long."""

from __future__ import annotations

import time
from collections import deque
from collections.abc import Iterable, Iterator
from concurrent.futures import FIRST_COMPLETED, Future, wait
from dataclasses import replace
from typing import Protocol

from quernbrook.workbench.sweeps.work import Group, Outcome

DIED, OVERRAN = "WorkerDied", "TimeLimitExceeded"
_LOOK_EVERY = 0.1


class Pool(Protocol):
    """Workers.

    deaths: what a future raises whose worker was lost.
    is_concurrent: whether `submit` returns before the group has ended.
    """

    deaths: tuple[type[BaseException], ...]
    is_concurrent: bool

    def capacity(self) -> int:
        """How many groups can be with workers at once."""

    def submit(self, group: Group) -> Future[list[Outcome]]:
        """Hand a group to a worker that has none."""

    def is_evaluating(self, future: Future[list[Outcome]]) -> bool:
        """Whether its worker has begun, all preparations done."""

    def stop(self, future: Future[list[Outcome]]) -> None:
        """End the worker that has this group."""

    def close(self) -> None:
        """End all workers, whatever they do."""


class Scheduler:
    """A fault of a worker that had several runs has each of them tried by itself. A run by itself
    is tried `tries` times, and not at once again: what was wrong may pass.

    time_limit: seconds for a run, and for the first attempt at several in one call.
    """

    def __init__(self, pool: Pool, time_limit: float | None, tries: int) -> None:
        self._pool = pool
        self._time_limit = time_limit
        self._tries = tries
        self._most_at_once: int | None = None
        self._waiting: deque[Group] = deque()
        self._running: dict[Future[list[Outcome]], Group] = {}
        self._begun: dict[Future[list[Outcome]], float] = {}

    def outcomes(self, groups: Iterable[Group]) -> Iterator[tuple[Group, list[Outcome]]]:
        """Yield what becomes of the groups, and of parts of them, as they end."""
        self._waiting.extend(groups)
        while self._waiting or self._running:
            self._hand_out()
            timeout = None if self._time_limit is None else _LOOK_EVERY
            ended, _ = wait(self._running, timeout, FIRST_COMPLETED)
            found = [one for future in ended for one in self._outcomes_of(future)]
            found += self._end_overdue()
            if self._pool.is_concurrent:
                # Before outcomes are kept, so that workers go on meanwhile.
                self._hand_out()
            yield from found
            for future in ended:
                error = future.exception()
                if error is not None and not isinstance(error, self._pool.deaths):
                    raise error

    def _hand_out(self) -> None:
        while self._waiting and len(self._running) < max(1, self._pool.capacity()):
            group = self._next()
            self._running[self._pool.submit(group)] = group

    def _outcomes_of(self, future: Future[list[Outcome]]) -> Iterator[tuple[Group, list[Outcome]]]:
        group = self._forget(future)
        error = future.exception()
        if error is None:
            outcomes = future.result()
            for outcome in outcomes:
                outcome.tries = group.tries + 1
            yield group, outcomes
        elif isinstance(error, self._pool.deaths):
            yield from self._after_fault(group, DIED, f"its worker died: {_line(error)}")

    def _next(self) -> Group:
        group = self._waiting.popleft()
        most = self._most_at_once
        if most is not None and len(group.tasks) > most:
            self._waiting.appendleft(replace(group, tasks=group.tasks[most:]))
            group = replace(group, tasks=group.tasks[:most])
        return group

    def _end_overdue(self) -> Iterator[tuple[Group, list[Outcome]]]:
        if self._time_limit is None:
            return
        now = time.monotonic()
        for future in list(self._running):
            if self._pool.is_evaluating(future):
                self._begun.setdefault(future, now)
            begun = self._begun.get(future)
            if begun is None or now - begun < self._time_limit or future.done():
                continue
            group = self._forget(future)
            self._pool.stop(future)
            if len(group.tasks) > 1:
                # Perhaps no run is at fault, and they are only too many for the time of one.
                self._most_at_once = max(1, len(group.tasks) // 2)
            yield from self._after_fault(
                group, OVERRAN, f"it took more than {self._time_limit:g} seconds"
            )

    def _after_fault(
        self, group: Group, error: str, message: str
    ) -> Iterator[tuple[Group, list[Outcome]]]:
        if len(group.tasks) > 1:
            alone = [replace(group, tasks=(task,)) for task in group.tasks]
            self._waiting.extendleft(reversed(alone))
            return
        tries = group.tries + 1
        if tries < self._tries:
            self._waiting.append(replace(group, tries=tries))
            return
        yield group, [Outcome(group.tasks[0], error=error, message=message, tries=tries)]

    def _forget(self, future: Future[list[Outcome]]) -> Group:
        self._begun.pop(future, None)
        return self._running.pop(future)


def _line(error: BaseException) -> str:
    lines = [line for line in str(error).splitlines() if line.strip()]
    # Loky tells the exit code in a line of its own.
    codes = [line for line in lines if "exit code" in line]
    return (codes or lines or [type(error).__name__])[0].strip()
