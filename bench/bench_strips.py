"""Functions in machine code and functions of blocks, against loops by hand and other libraries.

Everything runs in one thread. Whole runs are timed, their set-up with them.
"""

from __future__ import annotations

import ctypes
import os
from collections.abc import Callable
from functools import cache
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from support.c_kernels import CFunction, compile_library
from support.graphs import feature, number, rotation
from support.runs import make_context

from bench.evaluators import MODULE, load

BOUND_UFUNC = "bound numpy.add, row by row"
BY_HAND = "loop in C by hand"
BLOCKS = "blocks in NumPy"
ROWS_OF_BLOCKS = "the same, row by row"
Run = Callable[[], Any]


class Ufunc:
    """A NumPy function, for single rows."""

    arity = 2
    stateful = False

    def __init__(self, function: np.ufunc) -> None:
        self.function = function

    def __call__(self, *rows: np.ndarray, context: Any = None) -> np.ndarray:
        return self.function(*rows)


class Blocks(Ufunc):
    def __quernbrook_row_block__(self, *blocks: np.ndarray) -> np.ndarray:
        return self.function(*blocks)


class BareAdd:
    """numpy.add itself, called without a step in Python."""

    arity = 2
    stateful = False
    __call__ = staticmethod(np.add)


UFUNCS = {"add": np.add, "subtract": np.subtract, "multiply": np.multiply, "divide": np.divide}
MAKERS: dict[str, Callable[[str], Any]] = {
    MODULE: CFunction,
    BLOCKS: lambda name: Blocks(UFUNCS[name]),
    ROWS_OF_BLOCKS: lambda name: Ufunc(UFUNCS[name]),
    BOUND_UFUNC: lambda name: BareAdd(),
}


def bind(graph: Any, make: Callable[[str], Any], path: str = "root") -> dict[str, Any]:
    bound = {path: make(graph.node)} if graph.type == "rotation" else {}
    for place, child in enumerate(graph.children or ()):
        bound.update(bind(child, make, f"{path}.c{place}"))
    return bound


def evaluation(graph: Any, features: dict[str, np.ndarray], contender: str) -> Run:
    evaluator = load(MODULE)
    context = make_context(evaluator, features)
    context._collect_node_outputs = False
    bound = bind(graph, MAKERS[contender])
    return lambda: evaluator.evaluate(graph, context, bound_function_instances=bound).weights


def matrices(names: str, rows: int, columns: int) -> dict[str, np.ndarray]:
    random = np.random.default_rng(0)
    return {name: 100.0 + random.standard_normal((rows, columns)) for name in names}


# --- a chain of additions ------------------------------------------------------------------------

ADDITIONS, CHAIN_ROWS, CHAIN_COLUMNS = 20, 5_000, 500
#: As the evaluator takes them for two live buffers.
ROWS_AT_ONCE = 256 * 1024 // 8 // (CHAIN_COLUMNS * 3)


def chain() -> Any:
    graph: Any = feature("a")
    for _ in range(ADDITIONS):
        graph = rotation("add", graph, feature("b"))
    return graph


@cache
def loop_by_hand() -> Any:
    build = Path(__file__).resolve().parents[1] / "build"
    compile_library(Path(__file__).with_name("strip_loop.c"), build / "strip_loop.so")
    loop = ctypes.CDLL(str(build / "strip_loop.so")).add_chain
    loop.argtypes = [*[ctypes.c_void_p] * 3, *[ctypes.c_ssize_t] * 3, ctypes.c_int, ctypes.c_void_p]
    loop.restype = None
    return loop


def chain_by_hand(features: dict[str, np.ndarray]) -> Run:
    loop, (first, second) = loop_by_hand(), features.values()
    buffers = np.empty((2, ROWS_AT_ONCE, CHAIN_COLUMNS))

    def run() -> np.ndarray:
        result = np.empty(first.shape)
        pointers = (first.ctypes.data, second.ctypes.data, result.ctypes.data)
        loop(*pointers, *first.shape, ROWS_AT_ONCE, ADDITIONS, buffers.ctypes.data)
        return result

    return run


@pytest.mark.parametrize("contender", [MODULE, BY_HAND, BOUND_UFUNC])
def test_chain(measure: Callable[..., None], contender: str) -> None:
    features = matrices("ab", CHAIN_ROWS, CHAIN_COLUMNS)
    by_hand = chain_by_hand(features)
    run = by_hand if contender == BY_HAND else evaluation(chain(), features, contender)
    assert np.array_equal(run(), by_hand())
    measure(
        run,
        workload=f"chain of {ADDITIONS} additions over {CHAIN_ROWS:,} x {CHAIN_COLUMNS}",
        contender=contender,
        count=ADDITIONS * CHAIN_ROWS * CHAIN_COLUMNS,
        unit="ns a cell and addition",
        floor=contender == BY_HAND,
        part="the additions" if contender == BY_HAND else "",
        rounds=7 if contender != BOUND_UFUNC else 3,
    )


# --- a formula of twelve functions ---------------------------------------------------------------


def formula(o: Any, h: Any, l: Any, c: Any) -> Any:  # noqa: E741 - the field's names
    return (c - o) / (h - l + 0.001) * ((c - l) - (h - c)) / (h - l + 0.002) + o


def graph_of_formula() -> Any:
    o, h, l, c = (feature(name) for name in "ohlc")  # noqa: E741
    body = rotation(
        "divide",
        rotation("subtract", c, o),
        rotation("add", rotation("subtract", h, l), number(0.001)),
    )
    place = rotation("subtract", rotation("subtract", c, l), rotation("subtract", h, c))
    scaled = rotation("add", rotation("subtract", h, l), number(0.002))
    product = rotation("divide", rotation("multiply", body, place), scaled)
    return rotation("add", product, o)


def with_pandas(features: dict[str, np.ndarray]) -> Run:
    import pandas

    frames = [pandas.DataFrame(matrix) for matrix in features.values()]
    return lambda: formula(*frames).to_numpy()


def with_polars(features: dict[str, np.ndarray]) -> Run:
    """All cells of a matrix as one column, the quickest form there."""
    os.environ["POLARS_MAX_THREADS"] = "1"
    import polars

    assert polars.thread_pool_size() == 1
    frame = polars.DataFrame({name: matrix.ravel() for name, matrix in features.items()})
    shape = features["o"].shape
    expression = formula(*(polars.col(name) for name in "ohlc"))
    return lambda: frame.select(expression).to_series().to_numpy().reshape(shape)


def with_numexpr(features: dict[str, np.ndarray]) -> Run:
    import numexpr

    numexpr.set_num_threads(1)
    text = "(c - o) / (h - l + 0.001) * ((c - l) - (h - c)) / (h - l + 0.002) + o"
    return lambda: numexpr.evaluate(text, local_dict=features)


PEERS: dict[str, Callable[[dict[str, np.ndarray]], Run]] = {
    "pandas": with_pandas,
    "polars": with_polars,
    "numexpr": with_numexpr,
}
SHAPES = [(8_313, 20), (2_000, 500), (260, 64)]


@pytest.mark.parametrize("shape", SHAPES, ids=str)
@pytest.mark.parametrize("contender", [MODULE, BLOCKS, ROWS_OF_BLOCKS, *PEERS])
def test_formula(measure: Callable[..., None], contender: str, shape: tuple[int, int]) -> None:
    features = matrices("ohlc", *shape)
    if contender in PEERS:
        run = PEERS[contender](features)
    else:
        run = evaluation(graph_of_formula(), features, contender)
    assert np.allclose(run(), formula(*features.values()), rtol=1e-12)
    measure(
        run,
        workload=f"formula of 12 functions over {shape[0]:,} x {shape[1]}",
        contender=contender,
        count=1,
        unit="ms a run",
        iterations=20 if shape[0] == 260 and contender != ROWS_OF_BLOCKS else 1,
    )
