"""The whole-matrix roads, over matrices of every dtype, layout and content."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import pytest
import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import CallCase, Cell, FunctionCase, MatrixCase, NodeCase, RunCase
from properties.cells import (
    CELLS,
    CLOSE,
    DRAWS,
    DTYPES,
    FRACTIONS,
    INTEGERS,
    LAYOUTS,
    ODD,
    PAYLOADS,
    Cells,
)
from properties.compare import NATIVE, require_agreement
from properties.reach import Reached, require_reach
from properties.tables import rarely, table

NAMES = ("longitudinal_mean", "longitudinal_std", "longitudinal_zscore")
RANK, MULTIPLY = "latitudinal_rank", "numerical_multiply"
FEATURES = ("a", "b")
LONG = table((12, 3, 7, 1, 2, 0, 20, 33, 64), (2, 3, 1, 4, 5, 8, 9, 17, 0))
WIDE = table((2, 3, 1, 4, 0, 7), (3, 2, 4, 5, 1, 6, 8, 17, 0))
FORMS = table((*DTYPES, "float16", "complex128", "U8"), LAYOUTS)
HUGE = (1.7e308, -1.7e308, 8.9e307, 1.3407807929942596e154, -1e200, 1e-200, 2.0**62, 2.0**63)
DISTINCT = tuple(number * 0.37 - 20.0 for number in range(255))
SEPARATE = (*DISTINCT[:200], *ODD[:4] * 3)
_RANDOM = np.random.default_rng(5)
NOISE = tuple((_RANDOM.standard_normal(255) * 10.0 ** _RANDOM.integers(-9, 9, 255)).tolist())
#: What the cells of a case are drawn from: the fewer kinds, the more often they meet.
PALETTES: tuple[Sequence[Cell], ...] = (
    DISTINCT,
    SEPARATE,
    NOISE,
    (*INTEGERS, *FRACTIONS),
    CELLS,
    (*CLOSE, 1.0, 1.0, 1.0 + 2**-51),
    (*INTEGERS, *[ODD[0]] * 4),
    (*INTEGERS * 3, *ODD[2:4]),
    (*HUGE, *HUGE, *INTEGERS, 5e-324, -5e-324, 2.2250738585072014e-308),
    (7.25,) * 9 + (0.1,) * 9 + (ODD[0],),
    (*PAYLOADS, *ODD[:4], 1.0, 2.0),
)
WINDOWS = (*range(2, 9), 1, 2, 3, 12, 13, 20, 64)
ODD_WINDOWS = (0, -1, -3, True, 2.9, "2", 10**400, "x", None)
ENTRIES = (
    *(((name, value),) for name in ("module_path", "class_name") for value in ("m", "", None)),
    *(((name, value),) for name in ("factory", "implementation") for value in (False, None)),
)
UNIVERSE_CELLS = (*[1.0] * 12, *(0.0, -0.0, 0.5, -1.0), *ODD[:4], 5e-324)
UNIVERSE_SHAPES = ("full",) * 10 + ("one row", "one column", "one cell")


@st.composite
def longitudinal_graphs(draw: st.DrawFn) -> NodeCase:
    """A chain of rolling functions; mostly with one window and one child each."""
    kind, leaf, depth = draw(
        table(("feature", "feature", "aggregation"), (*FEATURES * 6, "zz"), (1, 1, 2, 3))
    )
    graph = NodeCase(kind, leaf)
    for _ in range(depth):
        name, window, shape = draw(
            table(
                (*NAMES * 12, "other"),
                rarely(*ODD_WINDOWS, otherwise=2, one_in=12) + WINDOWS * 20,
                ("after",) * 16
                + ("before",) * 4
                + ("before", "two windows", "string", "bool", "float", "bare"),
            )
        )
        number = NodeCase("int", window)
        children = {
            "after": (graph, number),
            "before": (number, graph),
            "two windows": (NodeCase("int", 2), graph, number),
            "string": (graph, NodeCase("string", "s"), number),
            "bool": (NodeCase("bool", True), graph, number),
            "float": (graph, number, NodeCase("float", 1.0)),
            "bare": (graph,),
        }[shape]
        graph = NodeCase("rotation", name, children)
    return graph


@st.composite
def rank_graphs(draw: st.DrawFn) -> NodeCase:
    product, surplus, kind, *names = draw(
        table(
            (False, True, True),
            (False,) * 9 + (True,),
            ("feature", "feature", "aggregation"),
            (*FEATURES * 4, "zz"),
            (*FEATURES * 4, "zz"),
        )
    )
    ranks = tuple(NodeCase("rotation", RANK, (NodeCase(kind, name),)) for name in names)
    graph = NodeCase("rotation", MULTIPLY, ranks) if product else ranks[0]
    if surplus:
        graph = NodeCase("rotation", graph.value, (*graph.children, NodeCase("int", 2)))
    return graph


LEAF_GRAPHS = st.sampled_from(
    [NodeCase(kind, name) for kind in ("feature", "aggregation") for name in (*FEATURES * 3, "zz")]
)
#: What opens and closes the roads.
GATES = table(
    (0,) * 18 + (8, 64),  # least rows
    rarely("none", otherwise="plain", one_in=16),  # the registry
    rarely(True, otherwise=False, one_in=32),  # a factory
    rarely(*ENTRIES, otherwise=(), one_in=16),
    rarely(False, otherwise=True, one_in=32),  # a known function
    rarely((("s", "option"),), otherwise=(), one_in=32),  # metaparameters
)
INPUTS = table(
    (False, True, True),
    UNIVERSE_SHAPES,
    (True, False),
    (None,) * 10 + ("tall", "wide"),
    (0.0, 101.3),
)
CALLS = table(("no", "no", "none", "all"), rarely((), (("other", {}),), one_in=40), (1, 1, 2))


def draw_universe(
    draw: st.DrawFn, cells: Cells, shape: tuple[int, int], tiles: tuple[int, int], extent: str
) -> MatrixCase:
    rows, columns = shape
    down, across = tiles
    if extent in ("one row", "one cell"):
        rows = down = 1
    if extent in ("one column", "one cell"):
        columns = across = 1
    of_universe = Cells(cells.drawn[::-1], UNIVERSE_CELLS)
    return of_universe.matrix((rows, columns), draw(FORMS), (down, across))


def tiles_of(shape: tuple[int, int], extent: str) -> tuple[int, int]:
    """Tiles that make a tall or a wide matrix out of a small one."""
    rows, columns = (max(1, size) for size in shape)
    if extent == "tall":
        return (150 // rows, 1)
    if extent == "wide":
        return (1, min(1200 // columns, 8000 // (rows * columns)))
    return (1, 1)


@st.composite
def fast_cases(
    draw: st.DrawFn,
    graphs: st.SearchStrategy[NodeCase],
    shapes: st.SearchStrategy[tuple[int, int]],
    palettes: Sequence[Sequence[Cell]],
) -> RunCase:
    graph = draw(graphs)
    shape = draw(shapes)
    least_rows, registry, factory, entry, known, metaparameters = draw(GATES)
    with_universe, extent, validate, size, drift = draw(INPUTS)
    tiles = tiles_of(shape, size)
    palette = draw(st.sampled_from(palettes))
    bound, states, runs = draw(CALLS)
    cells = Cells(draw(DRAWS), palette)
    function = FunctionCase(factory=factory, entry=entry, known=known)
    used = {node.value for _, node in graph.paths_of(("rotation",))} or {RANK}
    universe = draw_universe(draw, cells, shape, tiles, extent) if with_universe else None
    return RunCase(
        graph=graph,
        shape=(shape[0] * tiles[0], shape[1] * tiles[1]),
        features=tuple((name, cells.matrix(shape, draw(FORMS), tiles, drift)) for name in FEATURES),
        functions=tuple((name, function) for name in sorted(used)),
        universe=universe,
        metaparameters=metaparameters,
        registry=registry,
        validate=validate and extent == "full",
        least_rows=least_rows,
        # The whole-matrix roads do not promise the warnings of NumPy's arithmetic.
        arithmetic="ignore",
        calls=(CallCase((), states, False, bound),) * runs,
    )


def longitudinal_cases() -> st.SearchStrategy[RunCase]:
    return fast_cases(longitudinal_graphs(), LONG, PALETTES)


def rank_cases() -> st.SearchStrategy[RunCase]:
    return fast_cases(rank_graphs(), WIDE, (*[DISTINCT, SEPARATE] * 4, *PALETTES))


def leaf_cases() -> st.SearchStrategy[RunCase]:
    return fast_cases(LEAF_GRAPHS, WIDE, PALETTES)


@NATIVE
@given(case=longitudinal_cases())
def test_longitudinal(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


@NATIVE
@given(case=rank_cases())
def test_ranks(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


@NATIVE
@given(case=leaf_cases())
def test_leaves(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


@pytest.mark.parametrize("cases", [longitudinal_cases, rank_cases, leaf_cases])
def test_the_roads_are_taken(cases):
    def count(reached: Reached) -> None:
        outcome = reached.outcome()
        fast = "weights" in outcome and reached.observed["afterwards 0"]["current_day_index"] == 0
        reached.counts["fast"] += fast and reached.case.shape[0] > 1
        reached.counts["slow"] += not fast

    require_reach(cases(), count, {"fast": 10, "slow": 5})
