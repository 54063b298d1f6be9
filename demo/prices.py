"""Daily prices from a CSV file, plain or gzipped."""

from __future__ import annotations

import csv
import gzip
import math
import zlib
from collections.abc import Iterator
from dataclasses import dataclass
from datetime import date
from pathlib import Path
from typing import TextIO

import numpy as np
from numpy.typing import NDArray


class PriceFileError(Exception):
    """A file that can't be used; the message is one sentence that names file, line and value."""


@dataclass(frozen=True)
class Prices:
    """One row a day, one column a share; NaN before a share's first price."""

    dates: NDArray[np.datetime64]
    tickers: tuple[str, ...]
    values: NDArray[np.float64]

    def first(self, days: int) -> Prices:
        return Prices(self.dates[:days], self.tickers, self.values[:days])


def load(path: Path) -> Prices:
    """Read a column "Date" (ISO, ascending) and one column of prices a share.

    A share that begins later has empty cells before its first price, and none after it.
    Raises PriceFileError.
    """
    try:
        with _open(path) as file:
            return _read(path, file)
    except (OSError, EOFError, zlib.error, UnicodeDecodeError, csv.Error) as error:
        reason = getattr(error, "strerror", None) or str(error)
        raise PriceFileError(f"{path} can't be read as prices: {reason}.") from error


def _open(path: Path) -> TextIO:
    if path.suffix == ".gz":
        return gzip.open(path, "rt", encoding="utf-8", newline="")
    return path.open(encoding="utf-8", newline="")


def _read(path: Path, file: TextIO) -> Prices:
    reader = csv.reader(file)
    header = next(reader, [])
    date_column, tickers = _read_header(path, header)
    dates: list[date] = []
    rows: list[list[float]] = []
    for cells in reader:
        where = f"{path}, line {reader.line_num}"
        if len(cells) != len(header):
            raise PriceFileError(f"{where}: {len(cells)} cells, but the header has {len(header)}.")
        day = _read_date(where, cells.pop(date_column))
        if dates and day <= dates[-1]:
            raise PriceFileError(f"{where}: the date {day} doesn't come after {dates[-1]}.")
        before = rows[-1] if rows else [math.nan] * len(tickers)
        dates.append(day)
        rows.append(list(_read_prices(where, tickers, cells, before)))
    if not rows:
        raise PriceFileError(f"{path}, line 1: no day of prices follows the header.")
    return Prices(np.array(dates, dtype="datetime64[D]"), tickers, np.array(rows))


def _read_header(path: Path, header: list[str]) -> tuple[int, tuple[str, ...]]:
    shown = ",".join(header)[:60]
    if "Date" not in header:
        raise PriceFileError(f"{path}, line 1: there is no column 'Date' in '{shown}'.")
    date_column = header.index("Date")
    tickers = tuple(name for i, name in enumerate(header) if i != date_column)
    if len(tickers) < 2:
        raise PriceFileError(
            f"{path}, line 1: '{shown}' names fewer than two shares to choose from."
        )
    for name in tickers:
        if not name or header.count(name) > 1:
            fault = "stands there twice" if name else "has no name"
            raise PriceFileError(f"{path}, line 1: a column '{name}' {fault}.")
    return date_column, tickers


def _read_date(where: str, text: str) -> date:
    try:
        return date.fromisoformat(text)
    except ValueError:
        raise PriceFileError(f"{where}: '{text}' is no date like 1990-01-02.") from None


def _read_prices(
    where: str, tickers: tuple[str, ...], cells: list[str], before: list[float]
) -> Iterator[float]:
    for ticker, text, last in zip(tickers, cells, before, strict=True):
        if not text and math.isnan(last):
            yield math.nan
            continue
        try:
            price = float(text)
        except ValueError:
            raise PriceFileError(f"{where}: the price '{text}' of {ticker} is no number.") from None
        if not 0.0 < price < math.inf:
            raise PriceFileError(
                f"{where}: the price '{text}' of {ticker} isn't positive and finite."
            )
        yield price
