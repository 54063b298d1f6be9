"""Random runs give, raise, ask and leave the same as in the plain-Python evaluator."""

from __future__ import annotations

from dataclasses import replace

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import CallCase, RunCase
from properties.compare import differences, require_agreement
from properties.observe import observe
from properties.reach import Reached, sample
from properties.strategies import (
    CONFIGS,
    FAULTY_CONFIGS,
    FAULTY_FILTERS,
    FAULTY_LITERALS,
    FILTERS,
    FORMS,
    LEAVES,
    PNL_VECTORS,
    draw_call,
    draw_setting,
    functions,
    graphs,
    heads,
    rarely,
    table,
)

HEADS = heads(
    kinds=("rotation",) * 8 + ("reduction", "reduction", "odd"),
    configs=rarely(*CONFIGS * 2, *FAULTY_CONFIGS, one_in=3),
)
GRAPHS = graphs(
    HEADS, (*LEAVES * 2, *FAULTY_LITERALS), (*FILTERS, *FILTERS, *FAULTY_FILTERS)
) | st.sampled_from(LEAVES)
FUNCTIONS = functions()
HOST_FAULTS = rarely("misshapen", "missing", "states", "binding", one_in=3)
FIELDS = (
    rarely(*PNL_VECTORS, one_in=4),
    (None, True, False),
    (None, True, False),
    rarely(False, otherwise=True, one_in=8),
    (True, False),
)


@st.composite
def run_cases(draw: st.DrawFn) -> RunCase:
    """Runs with at most one fault of the host; functions may have faults of their own."""
    graph = draw(GRAPHS)
    cells, setting = draw_setting(draw, graph, FUNCTIONS, forms=FORMS)
    fault, position, pnl_vectors, collect, collect_states, registry, validate = draw(
        table(HOST_FAULTS, range(3), *FIELDS)
    )
    features = list(setting["features"])
    if fault == "missing":
        del features[position]
    elif fault == "misshapen":
        rows, columns = setting["shape"]
        other = draw(st.sampled_from([(rows + 1, columns), (1, 1), (2, 5)]))
        features[position] = (features[position][0], cells.matrix(other, draw(FORMS)))
        validate = False
    call = draw_call(draw, graph, fault=fault)
    again = draw(st.sampled_from([(), (), (replace(call),)]))
    return RunCase(
        **{**setting, "features": tuple(features)},
        pnl_vectors=pnl_vectors,
        collect=collect,
        collect_states=collect_states,
        registry=registry,
        validate=validate,
        calls=(call, *again),
    )


@given(case=run_cases())
def test_the_evaluator_agrees_with_the_plain_one(evaluator, case):
    if evaluator is reference_evaluator:
        # Nothing to compare with, but a run must not depend on what ran before it.
        assert differences(observe(evaluator, case), observe(evaluator, case)) == []
    else:
        require_agreement(reference_evaluator, evaluator, case)


def test_random_runs_reach_what_they_are_meant_to():
    """Otherwise agreement on them would say little."""

    def count(reached: Reached) -> None:
        calls = reached.questions("call")
        ending = "failure" if reached.error() else "result"
        reached.counts[f"{ending} {'after calls' if calls else 'without calls'}"] += 1
        reached.counts["long runs"] += calls > 10
        reached.counts["restored"] += reached.questions("restore") > 0
        reached.counts["reduced"] += any(
            entry[0] == "call" and "signal_pnl" in entry[3] for entry in reached.observed["calls"]
        )
        reached.counts["filtered"] += bool(
            reached.case.graph.paths_of(("filtration",)) and ending == "result"
        )
        reached.counts["marked"] += reached.outcome().get("nan_source", ["dict"]) != ["dict"]

    reached = sample(run_cases(), count)
    assert reached["result after calls"] >= 30
    assert reached["failure after calls"] >= 10
    assert reached["failure without calls"] >= 10
    assert reached["long runs"] >= 5
    assert reached["restored"] >= 3
    assert reached["reduced"] >= 5
    assert reached["filtered"] >= 3
    assert reached["marked"] >= 1
