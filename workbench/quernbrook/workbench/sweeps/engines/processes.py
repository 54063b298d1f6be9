"""Processes of this machine, which map the files of the features, read-only."""

from __future__ import annotations

import os
import signal
import threading
import time
from collections.abc import Mapping
from concurrent.futures import Future
from concurrent.futures.process import BrokenProcessPool
from pathlib import Path

import joblib
import numpy as np
from joblib.externals.loky import ProcessPoolExecutor
from joblib.externals.loky.process_executor import ShutdownExecutorError
from quernbrook.workbench.sweeps import warnings_seen
from quernbrook.workbench.sweeps.work import Group, Matrix, Outcome, Setup
from quernbrook.workbench.sweeps.worker import evaluate_here, prepare_thread

_SETUP = "setup.joblib"
# Kernels have one thread each; so should what functions call.
_ENVIRONMENT = dict.fromkeys(("OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS"), "1")


class ProcessesPool:
    """Each worker is an executor of its own, so that one that dies takes no other's work along."""

    deaths: tuple[type[BaseException], ...] = (BrokenProcessPool,)
    is_concurrent = True

    def __init__(
        self,
        fields: Mapping[str, Matrix],
        universe: Matrix | None,
        setup: Setup,
        workers: int,
        folder: Path,
    ) -> None:
        joblib.dump((dict(fields), universe, setup), folder / _SETUP)
        self._seats = [_Seat(folder) for _ in range(workers)]

    def capacity(self) -> int:
        return len(self._seats)

    def submit(self, group: Group) -> Future[list[Outcome]]:
        seat = next(seat for seat in self._seats if seat.is_free())
        return seat.submit(group)

    def is_evaluating(self, future: Future[list[Outcome]]) -> bool:
        return self._seat(future).is_ready()

    def stop(self, future: Future[list[Outcome]]) -> None:
        self._seat(future).end()

    def close(self) -> None:
        for seat in self._seats:
            seat.end()

    def _seat(self, future: Future[list[Outcome]]) -> _Seat:
        return next(seat for seat in self._seats if seat.future is future)


class _Seat:
    """The place of one worker process, which is filled again when it has died."""

    def __init__(self, folder: Path) -> None:
        self.future: Future[list[Outcome]] | None = None
        self._folder = folder
        self._executor, self._ready = _filled(folder)

    def is_free(self) -> bool:
        return self.future is None or self.future.done()

    def is_ready(self) -> bool:
        return self._ready.done()

    def submit(self, group: Group) -> Future[list[Outcome]]:
        try:
            self.future = self._executor.submit(evaluate_here, group)
        except (BrokenProcessPool, ShutdownExecutorError):
            # It died with its last group or while it had none, or was ended.
            self.end()
            self._executor, self._ready = _filled(self._folder)
            self.future = self._executor.submit(evaluate_here, group)
        return self.future

    def end(self) -> None:
        self._executor.shutdown(wait=True, kill_workers=True)


def _filled(folder: Path) -> tuple[ProcessPoolExecutor, Future[None]]:
    # Loky replaces a worker that has grown much, which must be prepared, too.
    executor = ProcessPoolExecutor(
        1, initializer=_prepare, initargs=(folder, os.getpid()), env=_ENVIRONMENT
    )
    return executor, executor.submit(_stand_ready)


def _prepare(folder: Path, driver: int) -> None:
    # Ctrl-C goes to all processes of a terminal; the driver decides what becomes of workers.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    threading.Thread(target=_end_with, args=(driver,), daemon=True).start()
    fields, universe, setup = joblib.load(folder / _SETUP, mmap_mode="r")
    plain = {name: np.asarray(values) for name, values in fields.items()}
    warnings_seen.show_to_collectors()
    prepare_thread(plain, None if universe is None else np.asarray(universe), setup)


def _stand_ready() -> None:
    """The first task of a worker, which ends when its preparations have."""


def _end_with(driver: int) -> None:
    """A driver that was killed ends nobody."""
    while True:
        if os.getppid() != driver:
            os._exit(1)
        time.sleep(1.0)
