"""The functions in machine code give the bits of their plain definitions, however they are run."""

from __future__ import annotations

from itertools import cycle, repeat
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import default_registry
from support.kernel_calls import KernelCall, ReductionCall, strips
from support.library_configs import cases
from support.rough_rows import bits, rough_matrix, rough_row

COMPILED = default_registry(compiled=True)
PLAIN = default_registry(compiled=False)

# Around the widths at which registers, pairwise sums, sorting and pieces of long rows change.
WIDTHS = [1, 2, 3, 7, 8, 9, 16, 17, 127, 128, 129, 136, 257, 1025]
WIDE = [4097, 8193, 16390]
STRIPS = [1, 2, 3, 16, 50]

stateless = pytest.mark.parametrize(("name", "config"), cases("numerical_", "latitudinal_"))
weighted = pytest.mark.parametrize(("name", "config"), cases("weighted_by_"))


def arguments_of(instance: Any, seed: int, rows: int, columns: int) -> list[np.ndarray]:
    return [rough_matrix(seed + place, rows, columns) for place in range(instance.arity)]


def row_by_row(instance: Any, arguments: list[np.ndarray]) -> np.ndarray:
    return np.array([instance(*rows) for rows in zip(*arguments, strict=True)])


@stateless
def test_calls(name: str, config: dict[str, Any]) -> None:
    compiled = COMPILED.create_instance(name, **config)
    plain = PLAIN.create_instance(name, **config)
    rng = np.random.default_rng(3)
    for columns in [0, *WIDTHS, *WIDE]:
        for kind in range(6):
            rows = [rough_row(rng, columns, kind + 5 * place) for place in range(compiled.arity)]
            assert bits(compiled(*rows)) == bits(plain(*rows)), (columns, rows)


@stateless
@pytest.mark.parametrize("columns", [1, 5, 20, 65])
def test_strips(name: str, config: dict[str, Any], columns: int) -> None:
    compiled = COMPILED.create_instance(name, **config)
    rows = 50
    arguments = arguments_of(compiled, 11, rows, columns)
    expected = bits(row_by_row(PLAIN.create_instance(name, **config), arguments))
    kernel = KernelCall(compiled)
    for length in STRIPS:
        parts = [
            kernel([argument[part] for argument in arguments], part.stop - part.start, columns)
            for part in strips(rows, repeat(length))
        ]
        assert bits(np.concatenate(parts)) == expected, length


@stateless
def test_rows_that_lie_apart_backwards_or_once(name: str, config: dict[str, Any]) -> None:
    compiled = COMPILED.create_instance(name, **config)
    plain = PLAIN.create_instance(name, **config)
    kernel = KernelCall(compiled)
    rows, columns = 9, 33
    arguments = arguments_of(compiled, 5, rows, columns)
    wide = [np.hstack([argument, argument + 1.0])[:, :columns] for argument in arguments]
    backwards = [argument[::-1] for argument in arguments]
    for shape in (wide, backwards):
        assert bits(kernel(shape, rows, columns)) == bits(row_by_row(plain, shape))
    for place in range(compiled.arity):
        literal = [*arguments]
        literal[place] = arguments[place][0]
        spread = [*arguments]
        spread[place] = np.broadcast_to(arguments[place][0], (rows, columns))
        assert bits(kernel(literal, rows, columns)) == bits(row_by_row(plain, spread))


def test_mean_of_signals() -> None:
    compiled = COMPILED.create_instance("reduction_mean")
    plain = PLAIN.create_instance("reduction_mean")
    for signals in [0, 1, 2, 9, 130]:
        for columns in [1, 2, 50]:
            block = rough_matrix(signals + columns, signals, columns)
            expected = bits(plain(block))
            assert bits(compiled(block)) == expected
            assert bits(compiled(np.asfortranarray(block))) == expected
            assert bits(ReductionCall(compiled)(block, None)) == expected


@weighted
@pytest.mark.parametrize(("signals", "columns"), [(0, 3), (1, 1), (1, 5), (2, 1), (5, 7), (60, 3)])
def test_weighted_signals(name: str, config: dict[str, Any], signals: int, columns: int) -> None:
    plain = PLAIN.create_instance(name, **config)
    called = COMPILED.create_instance(name, **config)
    run = COMPILED.create_instance(name, **config)
    mixed = COMPILED.create_instance(name, **config)
    kernel, own_or_kernel = ReductionCall(run), cycle([mixed, ReductionCall(mixed)])
    for step in range(20):
        block = rough_matrix(step, signals, columns)
        pnl = rough_row(np.random.default_rng(step), signals, step)
        expected = bits(plain(block, signal_pnl=pnl))
        assert bits(called(block, signal_pnl=pnl)) == expected
        assert bits(kernel(block, pnl)) == expected
        assert bits(next(own_or_kernel)(block, pnl)) == expected
    for instance in (called, run, mixed):
        assert repr(instance.get_state()) == repr(plain.get_state())
