"""Functions over the kernels of c_kernels.c, compiled once a process."""

from __future__ import annotations

import ctypes
import functools
import os
import shlex
import shutil
import subprocess
import tempfile
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from support.row_kernels import (
    KINDS,
    ROW_KERNEL,
    STATELESS,
    Doubles,
    Failure,
    RowKernel,
    Rows,
    RunRows,
    capsule_of,
)

ROOT = Path(__file__).parents[2]
INCLUDE = ROOT / "simulator_engine" / "include"


def compiler() -> list[str]:
    """The command of a C compiler; the test is skipped where there is none."""
    chosen = os.environ.get("CC")
    found = chosen or next(filter(None, map(shutil.which, ("cc", "gcc", "clang"))), None)
    if found is None:
        pytest.skip("no C compiler: install one, or name it with CC", allow_module_level=True)
    return shlex.split(found)


def compile_library(source: Path, library: Path) -> None:
    options = ["-std=c11", "-O3", "-Wall", "-Wextra", "-Werror", "-ffp-contract=off"]
    subprocess.run(
        [*compiler(), *options, "-shared", "-fPIC", f"-I{INCLUDE}", source, "-o", library],
        check=True,
    )


@functools.cache
def library() -> ctypes.CDLL:
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "kernels.so")
        compile_library(Path(__file__).with_name("c_kernels.c"), path)
        return ctypes.CDLL(str(path))


class CFunction:
    """A function whose rows the kernel `name` computes; `state` is what the kernel works on."""

    arity = 1

    def __init__(self, name: str, state: np.ndarray | None = None) -> None:
        self.stateful = state is not None
        self.state = state
        self.structure = RowKernel(
            ctypes.sizeof(RowKernel),
            0 if self.stateful else STATELESS,
            None if state is None else state.ctypes.data,
            RunRows((name, library())),
        )
        self.capsule = capsule_of(self.structure, ROW_KERNEL)

    def __call__(self, *rows: np.ndarray, context: Any = None) -> np.ndarray:
        """One row, by the same machine code."""
        arguments = (Rows * len(rows))(*[Rows(row.ctypes.data_as(Doubles), 0) for row in rows])
        result, failure = np.empty(rows[0].shape, dtype=np.float64), Failure()
        status = self.structure.run(
            self.structure.state,
            arguments,
            len(rows),
            1,
            result.size,
            result.ctypes.data_as(Doubles),
            failure,
        )
        if status != 0:
            errors = {kind: error for error, kind in KINDS.items()}
            raise errors[failure.kind](failure.text.decode())
        return result

    def get_state(self) -> dict[str, Any]:
        assert self.state is not None
        return {"count": int(self.state[0]), "state": self.state.tolist()}

    def __quernbrook_row_kernel__(self) -> Any:
        return self.capsule
