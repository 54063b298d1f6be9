"""The arrays that a run hands out are the host's own, though their memory is used again later."""

from __future__ import annotations

import gc
import pickle
import threading
import tracemalloc
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from support.bound_runs import bound_run
from support.functions import RecordingFunction
from support.graphs import feature, rotation
from support.registries import RecordingRegistry
from support.runs import make_context, same_bits

# From the smallest arrays to some whose memory isn't kept: 8 bytes to 17 MB.
SHAPES = [(1, 1), (1, 127), (1, 128), (1, 500), (3, 1000), (20, 5000), (3, 700_000)]


def outputs(evaluator: ModuleType, shape: tuple[int, int], value: float) -> list[np.ndarray]:
    """All the arrays of a run whose every number is `value`."""
    graph = rotation("f", feature("a"))
    features = {"a": np.full(shape, value)}
    result = bound_run(evaluator, graph, {"root": RecordingFunction()}, features=features)
    return [result.weights, *result.node_outputs.values()]


@pytest.mark.parametrize("shape", SHAPES)
def test_results_do_not_share_memory(evaluator: ModuleType, shape: tuple[int, int]) -> None:
    kept = [outputs(evaluator, shape, float(value)) for value in range(4)]
    outputs(evaluator, shape, 99.0)
    for value, arrays in enumerate(kept):
        for array in arrays:
            assert (array == value).all()
            array[...] = -1.0
    addresses = {array.ctypes.data for arrays in kept for array in arrays}
    assert len(addresses) == 4 * 3


@pytest.mark.parametrize("shape", SHAPES)
def test_an_array_is_an_owner(evaluator: ModuleType, shape: tuple[int, int]) -> None:
    for array in outputs(evaluator, shape, 2.5):
        assert type(array) is np.ndarray
        assert array.base is None
        assert array.flags.owndata
        assert array.flags.c_contiguous
        assert array.flags.aligned
        assert array.flags.writeable
        same_bits(pickle.loads(pickle.dumps(array)), array)


@pytest.mark.parametrize("shape", SHAPES)
@pytest.mark.parametrize("rows", [0, 1, 2, 5])
def test_an_array_can_be_resized(evaluator: ModuleType, shape: tuple[int, int], rows: int) -> None:
    columns = shape[1]
    for array in outputs(evaluator, shape, 2.5):
        array.resize((rows, columns), refcheck=False)
        kept = min(rows, shape[0])
        same_bits(array[:kept], np.full((kept, columns), 2.5))
        same_bits(array[kept:], np.zeros((rows - kept, columns)))
    same_bits(outputs(evaluator, shape, 7.0)[0], np.full(shape, 7.0))


def test_an_array_can_take_another_form(evaluator: ModuleType) -> None:
    """NumPy gives memory back by the array's size, whatever that has become."""
    for _ in range(3):
        weights, first, second = outputs(evaluator, (1, 500), 2.5)
        weights.dtype = np.int8
        weights.shape = (4000,)
        first.__setstate__((1, (2,), np.dtype(float), False, bytes(16)))
        second.shape = (500, 1)
        del weights, first, second
    same_bits(outputs(evaluator, (1, 500), 7.0)[0], np.full((1, 500), 7.0))


def registers(evaluator: ModuleType, columns: int) -> np.ndarray:
    """The registers that a run puts on its context before the first row."""
    seen = []

    def look(row: Any, context: Any) -> Any:
        seen.append(context.registers)
        return row

    graph = rotation("f", feature("a"))
    context = make_context(evaluator, {"a": np.full((1, columns), 2.5)})
    context.registry = RecordingRegistry(factories={"f": RecordingFunction(look)})
    evaluator.evaluate(graph, context)
    return seen[0]


@pytest.mark.parametrize("columns", [1, 500, 4096, 100_000, 1_100_000])
@pytest.mark.parametrize("rows", [0, 1, 2, 5])
def test_registers_of_the_context_are_owners(
    evaluator: ModuleType, columns: int, rows: int
) -> None:
    array = registers(evaluator, columns)
    assert array.shape == (2, columns)
    assert array.base is None
    assert array.flags.owndata
    assert not array.any()
    array[...] = 3.0
    array.resize((rows, columns), refcheck=False)
    kept = min(rows, 2)
    assert (array[:kept] == 3.0).all()
    assert not array[kept:].any()
    array.__setstate__((1, (2,), np.dtype(float), False, bytes(16)))
    same_bits(array, np.zeros(2))
    assert not registers(evaluator, columns).any()


def test_registers_begin_with_zeros(evaluator: ModuleType) -> None:
    """Where a row of the run before has been."""
    shape = (1, 500)
    outputs(evaluator, shape, 2.5)
    seen = []

    def look(row: Any) -> Any:
        seen.append(row.base.copy())
        return row

    graph = rotation("f", rotation("g", feature("a")))
    bound = {"root.c0": RecordingFunction(look), "root": RecordingFunction()}
    bound_run(evaluator, graph, bound, features={"a": np.full(shape, 3.0)})
    same_bits(seen[0], np.repeat([[3.0], [0.0], [0.0]], 500, axis=1))


def test_memory_profilers_see_the_arrays(evaluator: ModuleType) -> None:
    def traced() -> int:
        gc.collect()
        domain = tracemalloc.DomainFilter(True, np.lib.tracemalloc_domain)
        snapshot = tracemalloc.take_snapshot().filter_traces([domain])
        return sum(trace.size for trace in snapshot.traces)

    outputs(evaluator, (1, 500), 2.5)
    tracemalloc.start()
    try:
        before = traced()
        arrays = outputs(evaluator, (1, 500), 2.5)
        assert traced() - before >= len(arrays) * 500 * 8
        del arrays
        assert traced() - before < 500 * 8
    finally:
        tracemalloc.stop()


def test_arrays_are_let_go_by_other_threads(evaluator: ModuleType) -> None:
    def work(value: float) -> None:
        for _ in range(30):
            arrays = outputs(evaluator, (1, 500), value)
            threads_arrays.append(arrays)
            for array in arrays:
                same_bits(array, np.full((1, 500), value))
            if len(threads_arrays) > 3:
                threads_arrays.pop(0)

    threads_arrays: list[Any] = []
    threads = [threading.Thread(target=work, args=(float(value),)) for value in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def test_many_sizes_in_turn(evaluator: ModuleType) -> None:
    for columns in (*range(100, 2000, 30), 500, 400_000, 900_000, 1_900_000, 500):
        for array in outputs(evaluator, (1, columns), float(columns)):
            same_bits(array, np.full((1, columns), float(columns)))
