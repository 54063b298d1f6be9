"""The folder of a sweep: weights by run, the manifest, and what is there only while it goes on."""

from __future__ import annotations

import fcntl
import os
import secrets
import shutil
from collections.abc import Iterable, Iterator, Mapping, Sequence
from contextlib import contextmanager, suppress
from pathlib import Path
from typing import Any

from quernbrook.workbench.sweeps import shells
from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.manifest import DONE, Manifest, row_of
from quernbrook.workbench.sweeps.runs import folder_name
from quernbrook.workbench.sweeps.work import Outcome

WEIGHTS = "weights"
_FILE = "weights.parquet"
_LOCK = ".lock"
_WORKPLACE = ".working-"


class Output:
    """A folder that this process alone writes to.

    workplace: a folder for files of this sweep. They are whole before they are moved from there.
    """

    def __init__(self, folder: Path, workplace: Path) -> None:
        self.workplace = workplace
        self.staging = workplace / "results"
        self.staging.mkdir()
        self.manifest = Manifest(folder)
        self._weights = folder / WEIGHTS
        self._weights.mkdir(exist_ok=True)

    def has(self, name: str, key: str, *, failures_count: bool) -> bool:
        """Whether the run has ended with this key, and its file, if it has one, is as long as it
        was written."""
        row = self.manifest.rows.get(name)
        if row is None or row.get("key") != key:
            return False
        if row["status"] != DONE:
            return failures_count
        if not row["bytes"]:
            return True
        try:
            return self._file(name).stat().st_size == row["bytes"]
        except FileNotFoundError:
            return False

    def clear(self, names: Iterable[str]) -> None:
        """Forget runs that are to be done, and their files."""
        names = list(names)
        self.manifest.drop(names)
        present = set(os.listdir(self._weights))
        for name in names:
            if folder_name(name) in present:
                self._file(name).unlink(missing_ok=True)

    def keep(
        self,
        outcomes: Iterable[Outcome],
        facts: Mapping[str, Mapping[str, Any]],
        shell: Sequence[bytes] | None,
    ) -> None:
        """Move the files of these outcomes into the data set, and then write their rows.

        shell: of the outcomes that have weights and no file. Raises OSError.
        """
        rows = []
        for outcome in outcomes:
            size = 0
            if outcome.weights is not None:
                assert shell is not None
                outcome.file = self.staging / f"{outcome.task.key}.parquet"
                shells.write(outcome.file, shell, outcome.weights)
            if outcome.file is not None:
                size = outcome.file.stat().st_size
                place = self._file(outcome.task.name)
                place.parent.mkdir(exist_ok=True)
                os.replace(outcome.file, place)
            rows.append(row_of(outcome, facts[outcome.task.name], size))
        self.manifest.add(rows)

    def _file(self, name: str) -> Path:
        return self._weights / folder_name(name) / _FILE


@contextmanager
def opened(folder: Path) -> Iterator[Output]:
    """Lock the folder, which is made if it isn't there.

    Raises SweepError if another process writes to it, and for a folder of something else.
    """
    lock = _locked(folder)
    try:
        # Of processes that were killed.
        for left in folder.glob(f"{_WORKPLACE}*"):
            shutil.rmtree(left, ignore_errors=True)
        workplace = folder / f"{_WORKPLACE}{secrets.token_hex(8)}"
        workplace.mkdir()
        try:
            output = Output(folder, workplace)
            try:
                yield output
            finally:
                output.manifest.close()
        finally:
            shutil.rmtree(workplace, ignore_errors=True)
    except OSError as error:
        raise SweepError(
            f"{folder} can't be written: {error.strerror or error}. What was done is kept; put that"
            " right and give the same call again"
        ) from error
    finally:
        os.close(lock)


def _locked(folder: Path) -> int:
    try:
        folder.mkdir(parents=True, exist_ok=True)
        descriptor = os.open(folder / _LOCK, os.O_RDWR | os.O_CREAT, 0o666)
    except OSError as error:
        raise SweepError(f"{folder} can't be written: {error.strerror}") from error
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        holder = os.read(descriptor, 100).decode(errors="replace") or "another process"
        os.close(descriptor)
        raise SweepError(
            f"{folder} is written by {holder}: wait for it, or name another folder"
        ) from None
    with suppress(OSError):
        os.ftruncate(descriptor, 0)
        os.pwrite(descriptor, f"process {os.getpid()} on {os.uname().nodename}".encode(), 0)
    return descriptor
