"""Threads of this process: features are shared as they are, kernels run side by side."""

from __future__ import annotations

from collections.abc import Mapping
from concurrent.futures import Future, ThreadPoolExecutor

from quernbrook.workbench.sweeps.work import Group, Matrix, Outcome, Setup
from quernbrook.workbench.sweeps.worker import evaluate_here, prepare_thread


class ThreadsPool:
    deaths: tuple[type[BaseException], ...] = ()
    is_concurrent = True

    def __init__(
        self, fields: Mapping[str, Matrix], universe: Matrix | None, setup: Setup, workers: int
    ) -> None:
        self._workers = workers
        self._executor = ThreadPoolExecutor(
            workers, "sweep", initializer=prepare_thread, initargs=(fields, universe, setup)
        )

    def capacity(self) -> int:
        return self._workers

    def submit(self, group: Group) -> Future[list[Outcome]]:
        return self._executor.submit(evaluate_here, group)

    def is_evaluating(self, future: Future[list[Outcome]]) -> bool:
        return future.running()

    def stop(self, future: Future[list[Outcome]]) -> None:
        raise NotImplementedError("a thread can't be ended")

    def close(self) -> None:
        # What is being evaluated can't be broken off.
        self._executor.shutdown(cancel_futures=True)
