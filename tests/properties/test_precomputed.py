"""Outputs that the host computed before, and their marks of missing data."""

from __future__ import annotations

from typing import Any

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import CallCase, Deed, RunCase, ValueCase
from properties.cells import Cells
from properties.compare import NATIVE, require_agreement
from properties.graphs import CANONICAL_IDS, FEATURES, FILTERS, LITERALS, graphs, heads, mostly
from properties.reach import Reached, require_reach
from properties.strategies import draw_setting, draw_states, functions
from properties.tables import rarely, table

IDS = (*CANONICAL_IDS, "third")
LEAVES = tuple(
    leaf if identity is None else type(leaf)(leaf.kind, leaf.value, canonical_id=identity)
    for leaf in (*FEATURES * 5, *LITERALS)
    for identity in (None, *IDS)
)
HEADS = heads(ids=(None, *IDS), identities=(None,), configs=rarely((("k", 1),), one_in=6))
GRAPHS = mostly(graphs(HEADS, LEAVES, FILTERS), LEAVES)
FUNCTIONS = functions(
    ("sum", "first", "running total", "keep", "overwrite", "overwrite all", "store output"),
    families=(None,),
    known=(True,),
    parameters=(None,),
)
FORMS = ("row",) * 6 + ("row list", "matrix", "column", "list", "cube")
FAULTY_FORMS = ("cell", "no dimensions", "text", "none", "words")
TAGS = ("data_nan", "data_nan", "data_nan", "other", None, 1, True)
DTYPES = ("float64",) * 4 + ("float32", ">f8", "int64", "bool", "longdouble", "object")
LAYOUTS = ("C", "C", "C", "reversed", "strided", "misaligned", "read-only", "subclass")


def draw_output(draw: st.DrawFn, cells: Cells, columns: int) -> ValueCase:
    form, width, dtype, layout = draw(
        table(
            rarely(*FAULTY_FORMS, otherwise="row", one_in=6) + FORMS * 3,
            rarely(1, otherwise=0, one_in=12),
            DTYPES,
            LAYOUTS,
        )
    )
    return ValueCase(cells.matrix((1, columns + width), (dtype, layout)), form)


@st.composite
def precomputed_cases(draw: st.DrawFn) -> RunCase:
    graph = draw(GRAPHS)
    cells, setting = draw_setting(draw, graph, FUNCTIONS, universes=(False, False, True))
    columns = setting["shape"][1]
    stored_ids, marked_ids, collect, tags = draw(
        table(
            ((), ("id",), ("id", "other"), ("third", "id"), (None,), None),
            ((), ("id",), ("other", "id"), ("third",), (None, "absent"), None),
            (None, None, True, False),
            TAGS,
        )
    )
    stored: Any = None
    if stored_ids is not None:
        stored = tuple((name, draw_output(draw, cells, columns)) for name in stored_ids)
    calls = []
    for run in range(draw(st.sampled_from([1, 1, 2]))):
        bound, nan_features, with_states, deed = draw(
            table(
                ("no", "all"),
                (None, None, ("a",), ("b", "c"), ("a", "b", "c")),
                rarely(True, otherwise=False, one_in=4),
                (None, "store", "marks", "outputs", "turn"),
            )
        )
        before: tuple[Deed, ...] = ()
        if run and deed == "store" and stored is not None:
            before = (("store output", "third", draw_output(draw, cells, columns)),)
        elif run and deed == "marks":
            before = (("alter context", "_precomputed_node_nan_source", {"id": "data_nan"}),)
        elif run and deed == "outputs":
            before = (("alter context", "_precomputed_node_outputs", None),)
        elif run and deed == "turn":
            before = (("turned context",),)
        states = draw_states(draw, graph) if with_states else None
        calls.append(CallCase(before, states, False, bound, nan_features))
    return RunCase(
        **setting,
        precomputed=stored,
        precomputed_nan=None if marked_ids is None else tuple((name, tags) for name in marked_ids),
        collect=collect,
        calls=tuple(calls),
    )


@NATIVE
@given(case=precomputed_cases())
def test_precomputed_outputs(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


def test_outputs_are_stored_and_marked():
    def count(reached: Reached) -> None:
        case, outcome = reached.case, reached.outcome()
        good = "weights" in outcome
        ids = {node.canonical_id for _, node in case.graph.paths_of(())} - {None}
        stored = {name for name, _ in case.precomputed or ()}
        reached.counts["stored"] += good and bool(ids & stored)
        marked = outcome.get("nan_source", ["dict"])[1:]
        reached.counts["marked"] += bool(marked)
        reached.counts["climbed"] += any(path == "'root'" for path, _ in marked)
        reached.counts["failed"] += not good

    goals = {"stored": 10, "marked": 10, "climbed": 3, "failed": 5}
    require_reach(precomputed_cases(), count, goals)
