"""Where days come from: a folder of files, or lines of JSON."""

from __future__ import annotations

import os
from collections.abc import Iterator
from pathlib import Path

import pandas as pd
from quernbrook.workbench.live.days import Day, date_of_file, day_of_file, day_of_line
from quernbrook.workbench.live.ending import Ending
from quernbrook.workbench.live.errors import LiveError
from quernbrook.workbench.live.output import OutputFolder

_PIECE = 1 << 16


def days_of_folder(
    folder: Path, output: OutputFolder, ending: Ending, poll: float | None
) -> Iterator[Day]:
    """Give the days of a folder's files that the run hasn't seen, by date.

    It ends when that is asked for. The folder is looked through again after each pass, and every
    `poll` seconds while there is nothing new; None ends it there.

    Raises LiveError for files that the run can't go on with.
    """
    while not ending.asked:
        paths = _new_files(folder, output)
        for path in paths:
            if ending.asked:
                return
            yield day_of_file(path)
        if not paths and (poll is None or ending.wait(poll)):
            return


def days_of_lines(descriptor: int, output: OutputFolder, ending: Ending) -> Iterator[Day]:
    """Give the days of lines that the run hasn't seen, until the lines end or an end is asked for.

    Raises LiveError for lines that the run can't go on with.
    """
    before: pd.Timestamp | None = None
    for number, line in enumerate(_lines(descriptor, ending), 1):
        if not line.strip():
            continue
        day = day_of_line(f"line {number}", line)
        if before is not None and day.date <= before:
            raise LiveError(
                f"line {number}: {day.date.date()} follows {before.date()}; dates must increase"
            )
        before = day.date
        if not output.is_done(day.date, f"line {number} ({day.date.date()})"):
            yield day


def _new_files(folder: Path, output: OutputFolder) -> list[Path]:
    files: dict[pd.Timestamp, Path] = {}
    try:
        names = sorted(os.listdir(folder))
    except OSError as error:
        raise LiveError(f"{folder} can't be read: {error.strerror}") from error
    for name in names:
        if name.startswith(".") or name.endswith(".tmp"):
            continue
        path = folder / name
        other = files.setdefault(date_of_file(path), path)
        if other is not path:
            raise LiveError(f"{path}: {other.name} is of the same date; take one of them away")
    return [path for date, path in sorted(files.items()) if not output.is_done(date, str(path))]


def _lines(descriptor: int, ending: Ending) -> Iterator[bytes]:
    """Lines as they come; the last may lack its end. None after an end has been asked for."""
    rest = b""
    while not ending.asked:
        if ending.wait(None, descriptor):
            return
        piece = os.read(descriptor, _PIECE)
        if not piece:
            if rest:
                yield rest
            return
        *lines, rest = (rest + piece).split(b"\n")
        for line in lines:
            if ending.asked:
                return
            yield line
