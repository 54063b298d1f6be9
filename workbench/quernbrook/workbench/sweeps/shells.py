"""Files of weights, of which all but the weights is the same for all runs over one slice.

The labels of 166,260 cells take ten times as long to encode as the weights. So a Parquet file with
a pattern in the place of the weights is made once a slice, and cut where the pattern stands: plain,
uncompressed float64 values. A run's file is those pieces with its weights between them.
"""

from __future__ import annotations

import os
from collections.abc import Sequence
from contextlib import suppress
from pathlib import Path
from typing import TYPE_CHECKING

import numpy as np
from quernbrook.workbench.sweeps.work import Matrix, StorageError

if TYPE_CHECKING:
    import pandas as pd

_ROWS_A_GROUP = 2**20


def make(dates: pd.DatetimeIndex, symbols: pd.Index) -> list[bytes]:
    """Return the pieces of a file with the columns date, symbol and weight, a row for each cell.

    Dates are timestamps in nanoseconds with the panel's time zone, symbols texts. Every piece but
    the last starts with how many weights follow it, 8 bytes, which don't stand in the file.
    """
    import pyarrow as pa
    import pyarrow.parquet as pq

    shape = len(dates), len(symbols)
    numbers = np.random.default_rng(0).random(shape[0] * shape[1])
    kinds = {
        "date": pa.timestamp("ns", tz=dates.tz),
        "symbol": pa.dictionary(pa.int32(), pa.string()),
        "weight": pa.float64(),
    }
    names = pa.array([str(symbol) for symbol in symbols], pa.string())
    places = np.tile(np.arange(shape[1], dtype=np.int32), shape[0])
    columns = [
        pa.array(np.repeat(dates.to_numpy(dtype="datetime64[ns]").view(np.int64), shape[1])).cast(
            kinds["date"]
        ),
        pa.DictionaryArray.from_arrays(pa.array(places), names),
        pa.array(numbers),
    ]
    schema = pa.schema([pa.field(name, kind, nullable=False) for name, kind in kinds.items()])
    sink = pa.BufferOutputStream()
    pq.write_table(
        pa.Table.from_arrays(columns, schema=schema),
        sink,
        row_group_size=_ROWS_A_GROUP,
        compression={"date": "zstd", "symbol": "zstd", "weight": "none"},
        use_dictionary=["date", "symbol"],
        write_statistics=["date", "symbol"],
        data_page_size=2**30,
    )
    return _cut_at(sink.getvalue().to_pybytes(), numbers)


def size(pieces: Sequence[bytes]) -> int:
    """The bytes of a file."""
    return sum(len(piece) - 8 + 8 * _count(piece) for piece in pieces[:-1]) + len(pieces[-1])


def write(path: Path, pieces: Sequence[bytes], weights: Matrix) -> None:
    """Write a file. Raises StorageError, and leaves no part of it behind."""
    values = weights.reshape(-1).data.cast("B")
    start = 0
    try:
        with open(path, "wb", buffering=0) as file:
            for piece in pieces[:-1]:
                stop = start + 8 * _count(piece)
                _write_all(file.fileno(), memoryview(piece)[8:])
                _write_all(file.fileno(), values[start:stop])
                start = stop
            _write_all(file.fileno(), memoryview(pieces[-1]))
    except OSError as error:
        with suppress(OSError):
            path.unlink()
        raise StorageError(error.errno, error.strerror, str(path)) from None


def _write_all(descriptor: int, data: memoryview) -> None:
    while data:
        data = data[os.write(descriptor, data) :]


def _count(piece: bytes) -> int:
    return int.from_bytes(piece[:8], "little")


def _cut_at(file: bytes, numbers: Matrix) -> list[bytes]:
    """Cut out the pages of the numbers, as long as they are."""
    whole, pattern = np.frombuffer(file, np.uint8), numbers.view(np.uint8)
    pieces, end, start = [], 0, 0
    while start < pattern.size:
        place = file.find(pattern[start : start + 8].tobytes(), end)
        if place < 0:
            raise AssertionError("pyarrow has written weights in another form than plain")
        length = min(whole.size - place, pattern.size - start)
        differs = whole[place : place + length] != pattern[start : start + length]
        same = int(np.argmax(differs)) // 8 * 8 if differs.any() else length
        pieces.append((same // 8).to_bytes(8, "little") + file[end:place])
        end, start = place + same, start + same
    return [*pieces, file[end:]]
