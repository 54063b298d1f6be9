"""CSV files as Arrow tables: dates and symbols stay texts, everything else is a number."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from pathlib import Path

import pyarrow as pa
from pyarrow import csv
from quernbrook.workbench.panels.labels import PanelError

Label = Callable[[int], str]


def read_header(path: Path) -> list[str]:
    with csv.open_csv(path) as reader:
        return [*reader.schema.names]


def read_numbers(
    path: Path, names: list[str], texts: set[str], label: Callable[[pa.Table, str, int], str]
) -> pa.Table:
    """Return the columns `names`: texts those of `texts`, float64 the others, null where empty.

    A column of true and false counts as one of numbers. `label` tells whose cell it is: of the
    whole table as texts, a column's name and a row.

    Raises PanelError for a cell that is no number.
    """
    try:
        return _read(path, {name: pa.string() if name in texts else pa.float64() for name in names})
    except pa.ArrowInvalid:
        # Once more, slowly, to find the cell at fault.
        table = _read(path, dict.fromkeys(names, pa.string()), strings_can_be_null=True)
    columns = []
    for name, column in zip(table.schema.names, table.columns, strict=True):
        if name not in texts:
            column = _as_numbers(column, partial(label, table, name))
        columns.append(column)
    return pa.table(columns, names=table.schema.names)


def _read(path: Path, types: dict[str, pa.DataType], strings_can_be_null: bool = False) -> pa.Table:
    # include_columns would take a name that stands there twice only once.
    options = csv.ConvertOptions(column_types=types, strings_can_be_null=strings_can_be_null)
    table = csv.read_csv(path, convert_options=options)
    return table.select([k for k, name in enumerate(table.schema.names) if name in types])


def _as_numbers(column: pa.ChunkedArray, label: Label) -> pa.ChunkedArray:
    for kind in (pa.float64(), pa.bool_()):
        try:
            return column.cast(kind)
        except pa.ArrowInvalid:
            continue
    for row, text in enumerate(column):
        try:
            text.cast(pa.float64())
        except pa.ArrowInvalid as error:
            raise PanelError(f"{label(row)} is no number: {text.as_py()!r}") from error
    raise AssertionError("a column that can't be cast has a cell that can't")
