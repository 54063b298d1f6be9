"""Functions that keep and write their arguments, answer oddly, fail, or meddle with the run."""

from __future__ import annotations

from typing import Any

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.actions import STEADY
from properties.answers import FAULTY, NUMBERS, ROWS
from properties.cases import CallCase, MeddlingCase, RunCase, ValueCase
from properties.cells import FORMS
from properties.compare import NATIVE, require_agreement
from properties.faults import ERRORS
from properties.graphs import CANONICAL_IDS, FEATURES, FILTERS, LITERALS, graphs, heads
from properties.meddling import DEEDS, MEDDLING
from properties.reach import Reached, require_reach
from properties.strategies import PNL_VECTORS, draw_setting, draw_states, functions
from properties.tables import rarely, table

LEAVES = (*FEATURES * 8, *LITERALS)
GRAPHS = graphs(
    heads(
        configs=rarely((("pnl_column", "net"),), one_in=4),
        ids=rarely(*CANONICAL_IDS, one_in=3),
        identities=(None,),
    ),
    LEAVES,
    FILTERS,
)
ANSWERS = functions(
    (*list(STEADY) * 3, *ROWS, *NUMBERS, *FAULTY, *(f"raise {error}" for error in ERRORS)),
    known=(True,),
    families=(None,),
)
MEDDLERS = functions(("sum", *MEDDLING, *MEDDLING), known=(True,), families=(None,))
FIELDS = (
    rarely(*PNL_VECTORS, one_in=3),
    (None, True, False),
    ("no", "all", "all"),
    rarely(True, otherwise=False, one_in=3),
    rarely(("a",), one_in=4),
    (1, 1, 2),
)
PASSING = (
    *[None] * 6,
    ("list", "x"),
    ("list", "y", "x"),
    ("tuple", "x", "x", "y"),
    ("keys", "z", "x", "y"),
    ("array", "x", "y"),
    ("list",),
    ("list", "x", "zz"),
    ("list", None),
    ("text", "x", "y"),
    ("iterator", "x"),
    ("none",),
)
SURROUNDINGS = table(PASSING, rarely("raise", otherwise="warn", one_in=4), (False, False, True))


@st.composite
def answer_cases(draw: st.DrawFn) -> RunCase:
    """Functions do what they like with their arguments and answer what they like."""
    graph = draw(GRAPHS)
    _, setting = draw_setting(draw, graph, ANSWERS, forms=FORMS)
    pnl_vectors, collect, bound, with_states, nan_features, runs = draw(table(*FIELDS))
    states = draw_states(draw, graph) if with_states else None
    call = CallCase((), states, False, bound, nan_features)
    passing, arithmetic, strict = draw(SURROUNDINGS)
    return RunCase(
        **setting,
        pnl_vectors=pnl_vectors,
        collect=collect,
        passing=passing,
        arithmetic=arithmetic,
        strict=strict,
        calls=(call,) * runs,
    )


@st.composite
def meddling_cases(draw: st.DrawFn) -> RunCase:
    """Functions change what the run reads: the context, what is bound, each other."""
    graph = draw(GRAPHS)
    cells, setting = draw_setting(draw, graph, MEDDLERS)
    pnl_vectors, collect, bound, with_states, nan_features, runs = draw(table(*FIELDS))
    states = draw_states(draw, graph) if with_states else None
    call = CallCase((), states, False, bound, nan_features)
    stored: Any = draw(st.sampled_from([None, (), ("id",), ("other",)]))
    if stored is not None:
        row = cells.row(setting["shape"][1])
        stored = tuple((identity, ValueCase(row, "row")) for identity in stored)
    return RunCase(
        **setting,
        pnl_vectors=pnl_vectors,
        collect=collect,
        precomputed=stored,
        passing=draw(st.sampled_from(PASSING)),
        feature_list=draw(st.booleans()),
        calls=(call,) * runs,
    )


SPOTS = ("conversion", "feature", "stored", "membership")
POOL_SPOTS = ("weights", "weights", "pnl", "passing", "stateful")
PASSED = functions(
    ("convertible", "sum", "numeric", "mixture", "keep and overwrite"),
    known=(True,),
    families=(None,),
)


@st.composite
def passing_cases(draw: st.DrawFn) -> RunCase:
    """Whatever the evaluator meets of the host changes the run in the middle of a row."""
    graph = draw(GRAPHS)
    cells, setting = draw_setting(draw, graph, PASSED)
    pnl_vectors, collect, bound, with_states, nan_features, runs = draw(table(*FIELDS))
    spots = (*SPOTS, *POOL_SPOTS * 2) if graph.paths_of(("reduction",)) else SPOTS
    spot, deed, row, stored = draw(table(spots, tuple(DEEDS), (0, 0, 1, 2), (("id",), ())))
    states = draw_states(draw, graph) if with_states else None
    call = CallCase((), states, False, bound, nan_features)
    return RunCase(
        **setting,
        pnl_vectors=pnl_vectors,
        collect=collect,
        precomputed=tuple(
            (name, ValueCase(cells.row(setting["shape"][1]), "row")) for name in stored
        ),
        passing=("list", "x") if spot == "passing" else None,
        feature_list=draw(st.booleans()),
        meddling=MeddlingCase(spot, deed, row),
        calls=(call,) * runs,
    )


@NATIVE
@given(case=answer_cases())
def test_arguments_and_answers(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


@NATIVE
@given(case=meddling_cases())
def test_meddling(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


@NATIVE
@given(case=passing_cases())
def test_meddling_without_a_call(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


INTERRUPTS = ("KeyboardInterrupt", "SystemExit", "GeneratorExit", "BaseException")


def test_answers_are_good_and_bad():
    def count(reached: Reached) -> None:
        error = reached.error() or "result"
        reached.counts["interrupt" if error in INTERRUPTS else error] += 1
        reached.counts["kept"] += any(entry[0] == "call" and entry[-1] for entry in reached.log)
        reached.counts["second run"] += "weights" in reached.outcome(1)

    errors = ("FunctionExecutionError", "EvaluationShapeError", "TypeError")
    goals = {"result": 20, "kept": 3, "second run": 3, "interrupt": 1, **dict.fromkeys(errors, 3)}
    require_reach(answer_cases(), count, goals)


def test_meddled_runs_go_on():
    def count(reached: Reached) -> None:
        used = {function.action for _, function in reached.case.functions}
        reached.counts["result"] += "weights" in reached.outcome()
        reached.counts["called"] += bool(used - {"sum"}) and reached.questions("call") > 1

    require_reach(meddling_cases(), count, {"result": 20, "called": 20})
