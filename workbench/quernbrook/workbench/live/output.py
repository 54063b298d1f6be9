"""What a live run leaves on disk, and finds there when it starts again.

A folder holds a file of weights for each tick, and one checkpoint. A tick's weights are on the
disk before the checkpoint says so: whatever a kill or a power cut leaves, the checkpoint is whole,
all weights up to its date are there, and no more than the next tick's file is ahead of it.
"""

from __future__ import annotations

import fcntl
import os
import re
from collections.abc import Mapping
from contextlib import suppress
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Any

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
from quernbrook.workbench.live.errors import LiveError
from quernbrook.workbench.panels import Panel, load_checkpoint, save_checkpoint
from quernbrook.workbench.panels.columns import Vector

CHECKPOINT = "states.checkpoint"
_KEY = "quernbrook-live"
_VERSION = 1
_UNFINISHED_WEIGHTS = ".weights.unfinished"
_UNFINISHED_CHECKPOINT = re.compile(rf"\.{re.escape(CHECKPOINT)}\.[0-9a-f]{{16}}")
_WEIGHTS = re.compile(r"weights-(\d{4}-\d\d-\d\d)\.parquet")


@dataclass(frozen=True)
class Progress:
    """How far a run has come.

    last_date: that of the last row seen. history_end: that of the last row that warmed the run up
    before its first tick, if any did.
    row_count: the rows seen, those of the history included.
    states: those of the functions after these rows.
    formula: the graph as text. fields: the names that its features could have.
    universe: the field that tells who is in, if there is one.
    """

    symbols: pd.Index
    last_date: pd.Timestamp
    history_end: pd.Timestamp | None
    row_count: int
    states: Mapping[str, Any]
    formula: str
    fields: tuple[str, ...]
    universe: str | None


class OutputFolder:
    """The folder of a live run, which one process at a time may have open.

    progress: what the checkpoint says; None where there is none.

    Used with `with`. Entering makes the folder, removes what killed processes left unfinished, and
    raises LiveError for a folder that can't be used or that another process has open, and
    CheckpointError for a damaged checkpoint.
    """

    def __init__(self, path: str | os.PathLike[str]) -> None:
        self.path = Path(path)
        self.progress: Progress | None = None
        self._descriptor = -1
        self._days_ahead: list[str] = []

    def __enter__(self) -> OutputFolder:
        try:
            if not self.path.is_dir():
                self.path.mkdir(exist_ok=True)
                # Without it, a power cut could take the folder back with all that it holds.
                _sync(self.path.absolute().parent)
            self._descriptor = os.open(self.path, os.O_RDONLY | os.O_DIRECTORY)
        except OSError as error:
            raise self._unusable(error) from error
        try:
            # Ends with the process, however that ends.
            fcntl.flock(self._descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
            self._remove_unfinished()
            self.progress = self._load()
            self._days_ahead = self._find_days_ahead()
        except BlockingIOError:
            self._close()
            raise LiveError(
                f"{self.path} is in use by another live run: end that, or name another folder"
            ) from None
        except OSError as error:
            self._close()
            raise self._unusable(error) from error
        except BaseException:
            self._close()
            raise
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self._close()

    def is_done(self, date: pd.Timestamp, what: str) -> bool:
        """Whether the tick of a date is behind the run, or its history covers the date.

        what: the row, for messages.

        Raises LiveError for a date that the run has gone past without it.
        """
        progress = self.progress
        if progress is None or date > progress.last_date:
            return False
        in_history = progress.history_end is not None and date <= progress.history_end
        if in_history or self.weights_path(date).exists():
            return True
        raise LiveError(
            f"{what} comes too late: the run has come to {progress.last_date.date()}; take it away "
            "to go on without it, or begin again in another output folder to have it in"
        )

    def require_no_gap(self, date: pd.Timestamp) -> None:
        """Raise LiveError if an earlier day has weights, but no checkpoint with its row.

        A run that was killed between the two leaves such a day, and must have its row again.
        """
        days = self._days_ahead
        if days and days[0] < str(date.date()):
            path = self.weights_path(pd.Timestamp(days[0]))
            raise LiveError(
                f"{date.date()}: the run broke off between the weights of {days[0]} and their "
                f"checkpoint: take in {days[0]} again first, or delete {path} to go on without it"
            )

    def weights_path(self, date: pd.Timestamp) -> Path:
        return self.path / f"weights-{date.date()}.parquet"

    def write_weights(self, date: pd.Timestamp, symbols: pd.Index, weights: Vector) -> Path:
        """Write a tick's weights, shape (symbols,), in place of what its file held.

        They are on the disk when it returns. Raises LiveError if that fails.
        """
        # States lose the sign and payload of NaN in a checkpoint, so weights lose them always.
        plain = np.where(np.isnan(weights), np.nan, weights)
        table = pa.table({"symbol": pa.array(symbols, pa.string()), "weight": plain})
        unfinished, path = self.path / _UNFINISHED_WEIGHTS, self.weights_path(date)
        try:
            with unfinished.open("wb") as file:
                pq.write_table(table, file)
                file.flush()
                os.fsync(file.fileno())
            unfinished.replace(path)
            # Without it, a power cut could keep the checkpoint's rename, but not this one.
            os.fsync(self._descriptor)
        except OSError as error:
            raise self._unwritable(error) from error
        return path

    def save(self, progress: Progress) -> None:
        """Put a checkpoint in place of the one before. Raises LiveError if that fails."""
        end = progress.history_end
        record = {
            "version": _VERSION,
            "history_end": None if end is None else end.isoformat(),
            "row_count": progress.row_count,
            "formula": progress.formula,
            "fields": list(progress.fields),
            "universe": progress.universe,
        }
        row = Panel(pd.DatetimeIndex([progress.last_date]), progress.symbols, {})
        try:
            save_checkpoint(self._checkpoint, {**progress.states, _KEY: record}, row)
        except OSError as error:
            raise self._unwritable(error) from error
        self.progress = progress
        last = str(progress.last_date.date())
        self._days_ahead = [day for day in self._days_ahead if day > last]

    def _load(self) -> Progress | None:
        if not self._checkpoint.exists():
            return None
        found = load_checkpoint(self._checkpoint)
        states = dict(found.states)
        record = states.pop(_KEY, None)
        if not isinstance(record, dict) or record.get("version") != _VERSION:
            raise LiveError(
                f"{self._checkpoint} is no checkpoint of a live run of this release: name another "
                "folder, or go on with the release that wrote it"
            )
        end = record["history_end"]
        return Progress(
            found.symbols,
            found.last_date,
            None if end is None else pd.Timestamp(end),
            record["row_count"],
            states,
            record["formula"],
            tuple(record["fields"]),
            record["universe"],
        )

    def _find_days_ahead(self) -> list[str]:
        last = "" if self.progress is None else str(self.progress.last_date.date())
        found = map(_WEIGHTS.fullmatch, os.listdir(self._descriptor))
        return sorted(match[1] for match in found if match and match[1] > last)

    @property
    def _checkpoint(self) -> Path:
        return self.path / CHECKPOINT

    def _remove_unfinished(self) -> None:
        for name in os.listdir(self._descriptor):
            if name == _UNFINISHED_WEIGHTS or _UNFINISHED_CHECKPOINT.fullmatch(name):
                (self.path / name).unlink()

    def _close(self) -> None:
        with suppress(OSError):
            os.close(self._descriptor)

    def _unusable(self, error: OSError) -> LiveError:
        return LiveError(f"{self.path} can't be the output folder: {error.strerror or error}")

    def _unwritable(self, error: OSError) -> LiveError:
        return LiveError(
            f"{self.path} can't be written: {error.strerror or error}; put that right and start "
            "again, the run goes on from its checkpoint"
        )


def _sync(folder: Path) -> None:
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def read_weights(folder: str | os.PathLike[str]) -> pd.DataFrame:
    """Return the weights of all ticks in a live run's folder, dates by symbols.

    A run that is at work may have written the last row, but not yet its checkpoint.

    Raises LiveError for a folder without any.
    """
    files = {}
    if Path(folder).is_dir():
        for path in sorted(Path(folder).iterdir()):
            found = _WEIGHTS.fullmatch(path.name)
            if found:
                files[pd.Timestamp(found[1])] = pd.read_parquet(path).set_index("symbol")["weight"]
    if not files:
        raise LiveError(f"{folder} has no weights of a live run: expected weights-DATE.parquet")
    frame = pd.DataFrame(list(files.values()), index=pd.DatetimeIndex(list(files)))
    return frame.rename_axis(columns="symbol")
