"""Graphs whose functions opted in, and others: as if none had."""

from __future__ import annotations

from dataclasses import replace
from typing import Any

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.actions import STEADY
from properties.answers import NUMBERS, ROWS
from properties.cases import CallCase, FunctionCase, MatrixCase, NodeCase, RunCase
from properties.cells import FORMS
from properties.compare import NATIVE, differences, program
from properties.graphs import CANONICAL_IDS, FEATURES, FILTERS, LITERALS, graphs, heads
from properties.meddling import MEDDLING
from properties.observe import observe
from properties.reach import Reached, require_reach
from properties.strategies import PNL_VECTORS, draw_setting, draw_states, functions
from properties.tables import rarely, table
from support.opted_in import STEPS, TRAP

LEAVES = (*FEATURES * 8, *LITERALS)
GRAPHS = graphs(
    heads(
        ("rotation",) * 9 + ("reduction",),
        configs=rarely((("pnl_column", "net"),), one_in=6),
        ids=rarely(*CANONICAL_IDS, one_in=10),
        identities=(None,),
    ),
    LEAVES,
    FILTERS,
)
#: Actions that write to nothing but their own memory: the promise allows no others.
QUIET = ("sum", "first", "running total", "mixture", "list", "backwards")
KNOWN: dict[str, Any] = {"known": (True,), "families": (None,)}
QUIET_FUNCTIONS = functions(QUIET, **KNOWN)
LOUD_FUNCTIONS = functions((*STEADY, *ROWS, *NUMBERS, *MEDDLING), **KNOWN)
GUISES = ("kernel", "kernel", "block", "block", None)
FIELDS = (
    rarely(*PNL_VECTORS, one_in=4),
    (None, True, False),
    ("no", "all"),
    rarely(True, otherwise=False, one_in=3),
    rarely(("a",), ("a", "b", "c"), one_in=3),
    (False, True, True),
    rarely(*[(name, row) for name in "abc" for row in range(4)], one_in=3),
    (1, 1, 2),
)


def kinds_by_name(graph: NodeCase) -> dict[str, set[str]]:
    kinds: dict[str, set[str]] = {}
    for _, node in graph.paths_of(("rotation", "reduction")):
        kinds.setdefault(node.value, set()).add(node.kind)
    return kinds


def opt_in(
    draw: st.DrawFn, graph: NodeCase, drawn: tuple[tuple[str, FunctionCase], ...]
) -> tuple[tuple[str, FunctionCase], ...]:
    kinds = kinds_by_name(graph)
    chosen = []
    for name, function in drawn:
        guise, step = draw(table(GUISES, sorted(STEPS)))
        if guise is None or len(kinds[name]) > 1:
            chosen.append((name, function))
            continue
        if kinds[name] == {"reduction"}:
            guise, step = "kernel", "reduce"
        chosen.append((name, replace(function, guise=guise, action=step)))
    return tuple(chosen)


def trapped(matrix: MatrixCase, row: int) -> MatrixCase:
    """The matrix with a cell in front of a row that steps fail at."""
    if row >= len(matrix.rows) or not matrix.rows[row]:
        return matrix
    rows = list(matrix.rows)
    rows[row] = (TRAP, *rows[row][1:])
    return replace(matrix, rows=tuple(rows))


@st.composite
def mixed_cases(draw: st.DrawFn) -> RunCase:
    graph = draw(GRAPHS)
    fields = draw(table(*FIELDS))
    pnl_vectors, collect, bound, with_states, nan_features, reads_ahead, trap, runs = fields
    drawn = QUIET_FUNCTIONS if reads_ahead else LOUD_FUNCTIONS
    _, setting = draw_setting(draw, graph, drawn, forms=FORMS)
    features = setting["features"]
    if trap is not None:
        features = tuple(
            (name, trapped(matrix, trap[1]) if name == trap[0] else matrix)
            for name, matrix in features
        )
    states = draw_states(draw, graph) if with_states else None
    call = CallCase((), states, False, bound, nan_features)
    return RunCase(
        **{
            **setting,
            "features": features,
            "functions": opt_in(draw, graph, setting["functions"]),
        },
        pnl_vectors=pnl_vectors,
        collect=collect,
        reads_ahead=reads_ahead,
        feature_list=draw(st.booleans()),
        calls=(call,) * runs,
    )


def without_offers(case: RunCase) -> RunCase:
    return replace(
        case,
        functions=tuple(
            (name, function if function.guise is None else replace(function, guise="plain"))
            for name, function in case.functions
        ),
    )


def comparable(observed: dict[str, Any]) -> dict[str, Any]:
    """Without what comes after a run that failed: how far instances got then is left open."""
    if "error" not in observed.get("run 0", {}):
        return observed
    return {key: observed[key] for key in ("run 0", "afterwards 0", "features")}


@NATIVE
@given(case=mixed_cases())
def test_nobody_can_tell(evaluator, case):
    expected = comparable(observe(reference_evaluator, without_offers(case)))
    observed = comparable(observe(evaluator, case))
    found = differences(expected, observed)
    shown = "\n  ".join(found[:5])
    assert not found, f"{program(reference_evaluator, evaluator, case)}\nat\n  {shown}"


def test_the_cases_are_what_they_should_be():
    def count(reached: Reached) -> None:
        guises = {function.guise for _, function in reached.case.functions}
        ending = "failure" if reached.error() else "result"
        for guise in ("kernel", "block"):
            reached.counts[f"{guise} alone, {ending}"] += guises == {guise}
        reached.counts[f"mixed, {ending}"] += None in guises and len(guises) > 1
        reached.counts["trapped"] += "trapped" in str(reached.outcome().get("error"))
        reached.counts["ahead"] += reached.case.reads_ahead and len(guises) > 1

    goals = {
        **dict.fromkeys(("kernel alone, result", "block alone, result", "mixed, result"), 10),
        **dict.fromkeys(("mixed, failure", "ahead", "trapped"), 3),
    }
    require_reach(mixed_cases(), count, goals)
