"""One run after the other, in the thread of the caller."""

from __future__ import annotations

from collections.abc import Mapping
from concurrent.futures import Future

from quernbrook.workbench.sweeps.work import Group, Matrix, Outcome, Setup
from quernbrook.workbench.sweeps.worker import Worker


class SerialPool:
    deaths: tuple[type[BaseException], ...] = ()
    is_concurrent = False

    def __init__(self, fields: Mapping[str, Matrix], universe: Matrix | None, setup: Setup) -> None:
        self._worker = Worker(fields, universe, setup)

    def capacity(self) -> int:
        return 1

    def submit(self, group: Group) -> Future[list[Outcome]]:
        future: Future[list[Outcome]] = Future()
        future.set_result(self._worker.evaluate(group))
        return future

    def is_evaluating(self, future: Future[list[Outcome]]) -> bool:
        return True

    def stop(self, future: Future[list[Outcome]]) -> None:
        raise NotImplementedError("a thread can't be ended")

    def close(self) -> None:
        pass
