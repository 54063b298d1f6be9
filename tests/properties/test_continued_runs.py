"""Runs in a row: states handed on, cold starts, warm-up rows, and a host that changes its inputs."""

from __future__ import annotations

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import CallCase, Deed, FaultCase, MatrixCase, NodeCase, RunCase
from properties.cells import FORMS
from properties.compare import NATIVE, require_agreement
from properties.faults import ERRORS
from properties.graphs import FEATURES, FILTERS, LITERALS, graphs, heads
from properties.reach import Reached, require_reach
from properties.strategies import draw_setting, draw_states, functions
from properties.tables import rarely, table

WINDOWS = tuple(NodeCase("int", number) for number in (2, 3, 4, 6, 1, 0, "3", "x"))
GRAPHS = graphs(
    heads(
        ("rotation", "reduction"),
        names=("f", "g"),
        configs=rarely((("pnl_column", "net"),), (("pnl_column", "zz"),), one_in=3),
        ids=(None,),
        identities=rarely("root", "kept", one_in=8),
    ),
    (*FEATURES * 4, *WINDOWS * 2, *LITERALS[::3]),
    FILTERS,
)
FUNCTIONS = functions(
    ("sum", "running total", "running total", "first", "same array", "raise value"),
    parameters=(None, None, (("p", "int"),)),
    families=(None,),
    known=(True,),
    states=("count",) * 6 + ("record", "record", "none", "empty", "odd", "huge", "list"),
    windows=(8, 8, 3, 2, None),
)
DEEDS: tuple[Deed, ...] = (
    *[()] * 8,
    ("copy context",),
    ("new context",),
    ("turned context",),
    ("copy graph",),
    ("alter context", "universe", None),
    ("alter context", "universe", MatrixCase(((1.0, 0.0), (0.0, 1.0), (1.0, 1.0)))),
    ("alter context", "universe_mask", None),
    ("alter context", "useful_signals", {}),
    ("alter context", "column_labels", ["net"]),
    ("alter context", "column_labels", None),
    ("alter context", "signal_pnl_vectors", {"x": {"gross_returns": 2.0}}),
    ("alter context", "_collect_states", False),
    ("alter context", "current_day_index", 77),
    ("alter context", "registers", None),
    ("alter context", "registry", None),
)
QUESTIONS = (
    *("get_state", "get_state", "stateful", "window", "call", "restore"),
    *("create_instance", "has", "get_entry", "has_factory"),
)


def draw_calls(draw: st.DrawFn, graph: NodeCase) -> tuple[CallCase, ...]:
    calls = []
    for run in range(draw(st.sampled_from([2, 3, 2, 1, 4]))):
        states, cold, bound, deed = draw(
            table(
                ("last", "last", "last", "given", None) if run else (None, "given"),
                (True, False),
                ("no", "no", "all"),
                DEEDS if run else ((),),
            )
        )
        if states == "given":
            states = draw_states(draw, graph)
        calls.append(CallCase((deed,) if deed else (), states, cold, bound))
    return tuple(calls)


@st.composite
def continued_cases(draw: st.DrawFn) -> RunCase:
    graph = draw(GRAPHS)
    registry = draw(st.sampled_from(["plain", "plain", "typed"]))
    _, setting = draw_setting(draw, graph, FUNCTIONS, forms=FORMS)
    return RunCase(**setting, registry=registry, calls=draw_calls(draw, graph))


@st.composite
def failing_cases(draw: st.DrawFn) -> RunCase:
    """The host fails once, whatever it is asked at that moment, and the next run follows."""
    graph = draw(GRAPHS)
    _, setting = draw_setting(draw, graph, FUNCTIONS)
    question, time, error = draw(
        table(QUESTIONS, (1, 2, 3, 4, 6, 9), ("value", "keyboard", "attribute", *ERRORS))
    )
    nan_features = draw(st.sampled_from(rarely(("a",), one_in=4)))
    calls = tuple(
        CallCase(call.before, call.states, call.cold, call.bound, nan_features)
        for call in draw_calls(draw, graph)
    )
    return RunCase(**setting, fault=FaultCase(question, time, error), calls=calls)


@NATIVE
@given(case=continued_cases())
def test_continued_runs(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


@NATIVE
@given(case=failing_cases())
def test_failing_hosts(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


def test_states_are_handed_on():
    def count(reached: Reached) -> None:
        calls = reached.case.calls
        last = len(calls) - 1
        good = "weights" in reached.outcome(last)
        restored = reached.questions("restore") > 0
        reached.counts["restored"] += good and restored
        reached.counts["prefilled"] += good and reached.questions("window") > 0
        reached.counts["asked for states"] += reached.questions("get_state") > 2

    goals = {"restored": 10, "prefilled": 3, "asked for states": 10}
    require_reach(continued_cases(), count, goals)


def test_hosts_fail_everywhere():
    def count(reached: Reached) -> None:
        fault = reached.case.fault
        failed = fault is not None and reached.questions(fault.question) >= fault.time
        reached.counts["failed"] += failed
        reached.counts[(failed and reached.error()) or "result"] += 1
        reached.counts["logged"] += bool(reached.outcome().get("events"))
        reached.counts["went on"] += failed and "weights" in reached.outcome(1)

    errors = ("ValueError", "KeyboardInterrupt", "FunctionExecutionError")
    goals = {"failed": 20, "went on": 5, "logged": 1, **dict.fromkeys(errors, 3)}
    require_reach(failing_cases(), count, goals)
