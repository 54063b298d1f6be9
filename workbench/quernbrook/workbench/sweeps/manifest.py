"""The manifest: a JSON document a line, one for each run that has ended."""

from __future__ import annotations

import json
import math
import os
from collections.abc import Iterable, Mapping
from datetime import datetime, timezone
from pathlib import Path
from typing import Any

from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.work import Outcome

NAME = "manifest.jsonl"
DONE, FAILED = "done", "failed"

Row = dict[str, Any]


class Manifest:
    """The rows of a folder by the names of runs. Its writer holds the folder's lock."""

    def __init__(self, folder: Path) -> None:
        self._path = folder / NAME
        self.rows = read_rows(folder)
        self._file: Any = None

    def drop(self, names: Iterable[str]) -> None:
        """Write the file anew without these, and without what a fault may have left of a line."""
        for name in names:
            self.rows.pop(name, None)
        fresh = self._path.with_name(f".{NAME}")
        with open(fresh, "wb") as file:
            file.write(b"".join(map(_line, self.rows.values())))
            file.flush()
            os.fsync(file.fileno())
        os.replace(fresh, self._path)
        self.close()
        self._file = open(self._path, "ab", buffering=0)  # noqa: SIM115 - closed by `close`

    def add(self, rows: Iterable[Row]) -> None:
        """Append rows. If that fails, the file ends as before, and OSError is raised."""
        new = list(rows)
        data = memoryview(b"".join(map(_line, new)))
        before = os.fstat(self._file.fileno()).st_size
        try:
            while data:
                data = data[self._file.write(data) :]
        except OSError:
            os.ftruncate(self._file.fileno(), before)
            raise
        self.rows |= {row["run"]: row for row in new}

    def close(self) -> None:
        if self._file is not None:
            self._file.close()
            self._file = None


def read_rows(folder: Path) -> dict[str, Row]:
    """Raises SweepError for a file that is no manifest."""
    try:
        lines = (folder / NAME).read_bytes().split(b"\n")
    except FileNotFoundError:
        return {}
    # What follows the last line break is a line that was never finished.
    rows = {}
    for number, line in enumerate(lines[:-1], start=1):
        try:
            row = json.loads(line)
            rows[row["run"]] = row
        except (ValueError, TypeError, KeyError):
            raise SweepError(
                f"{folder / NAME}, line {number} is no row of a manifest: name another folder, or "
                "delete the line to have its run done again"
            ) from None
    return rows


def row_of(outcome: Outcome, facts: Mapping[str, Any], size: int) -> Row:
    """facts: what is known of the run beforehand. size: of its file, in bytes."""
    return {
        "run": outcome.task.name,
        "status": DONE if outcome.error is None else FAILED,
        **facts,
        "rows": outcome.rows,
        "bytes": size,
        "seconds": round(outcome.seconds, 6),
        "together": outcome.together,
        "peak_memory": outcome.peak_memory,
        "tries": outcome.tries,
        "ended": datetime.now(timezone.utc).isoformat(timespec="milliseconds"),
        "warnings": outcome.warnings,
        "error": outcome.error,
        "message": outcome.message,
        "error_path": outcome.error_path,
        "error_row": outcome.error_row,
        "summary": outcome.summary and _finite(outcome.summary),
    }


def _line(row: Row) -> bytes:
    return json.dumps(row, allow_nan=False).encode() + b"\n"


def _finite(figures: Mapping[str, float]) -> dict[str, float | None]:
    return {name: value if math.isfinite(value) else None for name, value in figures.items()}
