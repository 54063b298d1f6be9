"""The functions in machine code, a function at a time, against whole-matrix functions of others."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import pytest
from quernbrook import row_kernels
from support.kernel_calls import KernelCall

from bench import row_function_peers as peers
from bench.row_function_peers import PEERS, Matrix, operands_of

SHAPES = [(2000, 500), (260, 64)]
WINDOWS = [5, 20, 60, 250]
UNIT = "ns a cell"
KERNEL, IN_CACHE, CALLS = "row kernel", "row kernel in the cache", "call, row by row"
# What a peer computes of a sample only.
SAMPLES = {
    "longitudinal_sample_variance": "longitudinal_variance",
    "longitudinal_sample_covariance": "longitudinal_covariance",
}
# Cells of a strip: as many as a second-level cache holds beside other strips.
STRIP = 8 * 1024
# Whole runs to a round, so that it takes some milliseconds.
ITERATIONS = {(2000, 500): 1, (260, 64): 20}

shapes = pytest.mark.parametrize(("rows", "columns"), SHAPES)


def workload(name: str, rows: int, columns: int, window: int) -> str:
    return f"{name}{f' over {window}' if window else ''}, {rows:,} x {columns}"


def cases() -> list[Any]:
    """(name, window) of all rotations; the window is 0 where there is none."""
    found = []
    kinds = {name: row_kernels.FUNCTIONS[of] for name, of in SAMPLES.items()}
    for name, kind in (row_kernels.FUNCTIONS | kinds).items():
        if hasattr(kind, "arity"):
            windows = WINDOWS if hasattr(kind, "window") else [0]
            found += [pytest.param(name, window, id=f"{name}-{window}") for window in windows]
    return found


def instance_of(name: str, window: int) -> Any:
    if name in SAMPLES:
        return row_kernels.FUNCTIONS[SAMPLES[name]](window=window, sample=True)
    return row_kernels.FUNCTIONS[name](**({"window": window} if window else {}))


def strip_calls(
    kernel: KernelCall, operands: list[Matrix], result: Matrix, strip: int, contender: str
) -> list[Callable[[], None]]:
    """A call for each strip; in the cache over one strip again and again, as inside a graph."""
    calls = []
    for start in range(0, len(result), strip):
        rows = min(strip, len(result) - start)
        part = slice(0, rows) if contender == IN_CACHE else slice(start, start + rows)
        calls.append(kernel.bound(result[part], [operand[part] for operand in operands]))
    return calls


def run_calls(instance: Any, operands: list[Matrix], result: Matrix) -> None:
    for row, arguments in enumerate(zip(*operands, strict=True)):
        result[row] = instance(*arguments)


@pytest.mark.parametrize(("name", "window"), cases())
@shapes
@pytest.mark.parametrize("contender", [KERNEL, IN_CACHE, CALLS])
def test_kernel(
    measure: Callable[..., None], name: str, window: int, rows: int, columns: int, contender: str
) -> None:
    instance = instance_of(name, window)
    operands = operands_of(name, instance.arity, rows, columns)
    result = np.empty((rows, columns))
    strips = strip_calls(KernelCall(instance), operands, result, STRIP // columns, contender)

    def call() -> None:
        if contender == CALLS:
            run_calls(instance, operands, result)
            return
        for run_strip in strips:
            run_strip()

    measure(
        call,
        workload=workload(name, rows, columns, window),
        contender=contender,
        count=rows * columns,
        unit=UNIT,
        iterations=ITERATIONS[rows, columns],
    )


@pytest.mark.parametrize(("name", "window"), cases())
@shapes
@pytest.mark.parametrize("library", peers.LIBRARIES)
def test_peer(
    measure: Callable[..., None], name: str, window: int, rows: int, columns: int, library: str
) -> None:
    peer = PEERS[library].get(name)
    if peer is None:
        pytest.skip(f"{library} has no {name}")
    instance = instance_of(name, window)
    sample = operands_of(name, instance.arity, rows, 4)
    ours = KernelCall(instance)(sample, rows, 4)
    theirs = peers.result_of(library, name, sample, window)
    np.testing.assert_allclose(theirs[window:], ours[window:], rtol=1e-7, atol=1e-7)

    prepare = peers.preparation(library, name)
    operands = [prepare(operand) for operand in operands_of(name, instance.arity, rows, columns)]
    measure(
        lambda: peer(*operands, window),
        workload=workload(name, rows, columns, window),
        contender=library,
        count=rows * columns,
        unit=UNIT,
        rounds=3,
        iterations=ITERATIONS[rows, columns],
    )
