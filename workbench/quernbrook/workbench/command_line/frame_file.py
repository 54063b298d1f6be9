"""--out: a file, of a wide table mostly, that is there as a whole or not at all."""

from __future__ import annotations

import os
import secrets
from collections.abc import Iterator
from contextlib import contextmanager, suppress
from pathlib import Path
from typing import TYPE_CHECKING, Annotated

import typer
from quernbrook.workbench.command_line.failures import InputError

if TYPE_CHECKING:
    import pandas as pd

OutOption = Annotated[
    Path,
    typer.Option(
        "--out",
        metavar="FILE",
        show_default=False,
        help="The file to write, dates by symbols: .parquet, .csv or .csv.gz.",
    ),
]

# Of wide tables, those that are written and those that are read.
SUFFIXES = (".parquet", ".csv", ".csv.gz")


def require_writable(path: Path, suffixes: tuple[str, ...] = SUFFIXES) -> None:
    """Raise InputError, before any work is done, for a file that can't be made or whose name ends
    in none of the suffixes."""
    if not path.name.endswith(suffixes):
        raise InputError(f"--out {path}: expected a name that ends in {', '.join(suffixes)}")
    require_place("--out", path)


def require_place(option: str, path: Path) -> None:
    """Raise InputError where no file of that name can be made."""
    if path.is_dir():
        raise InputError(f"{option} {path}: this is a folder; name a file in it")
    if not path.parent.is_dir():
        raise InputError(f"{option} {path}: there is no folder {path.parent}; make it first")
    if not os.access(path.parent, os.W_OK | os.X_OK):
        raise InputError(f"{option} {path}: no files can be made in {path.parent}")


def write(frame: pd.DataFrame, path: Path) -> None:
    """Write a frame of dates by symbols. A file of that name stays as it was until it is replaced.

    Raises InputError if that fails.
    """
    from quernbrook.workbench.panels import write_frame

    with replacing(path) as temporary:
        if path.suffix == ".parquet":
            write_frame(frame, temporary)
        else:
            frame.to_csv(temporary)


@contextmanager
def replacing(path: Path) -> Iterator[Path]:
    """Give a path to write to, which takes the place of `path` at the end.

    Raises InputError if that, or the writing, fails.
    """
    temporary = path.with_name(f".{secrets.token_hex(8)}{path.name}")
    try:
        yield temporary
        os.replace(temporary, path)
    except OSError as error:
        raise InputError(f"--out {path} can't be written: {error.strerror or error}") from None
    finally:
        with suppress(OSError):
            temporary.unlink()
