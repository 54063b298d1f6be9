"""Random runs give, raise, ask and leave the same as in the plain-Python evaluator."""

from __future__ import annotations

from dataclasses import replace

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import Deed, MatrixCase, RunCase
from properties.cells import FORMS
from properties.compare import differences, require_agreement
from properties.graphs import (
    CONFIGS,
    FAULTY_CONFIGS,
    FAULTY_FILTERS,
    FAULTY_LITERALS,
    FILTERS,
    LEAVES,
    graphs,
    heads,
    mostly,
)
from properties.observe import observe
from properties.reach import Reached, require_reach
from properties.strategies import PNL_VECTORS, draw_call, draw_setting, functions
from properties.tables import rarely, table

HEADS = heads(
    kinds=("rotation",) * 8 + ("reduction", "reduction", "odd"),
    configs=rarely(*CONFIGS * 4, *FAULTY_CONFIGS, one_in=3),
)
GRAPHS = mostly(
    graphs(HEADS, (*LEAVES * 4, *FAULTY_LITERALS), (*FILTERS * 4, *FAULTY_FILTERS)),
    LEAVES,
)
FUNCTIONS = functions()
#: Inputs that a host should not, or need not, hand in.
ODDITIES: tuple[Deed, ...] = (
    ("alter context", "feature_index", {"a": -1, "b": True, "c": 0}),
    ("alter context", "feature_index", {"a": 0, "b": 7, "c": "x"}),
    ("alter context", "feature_index", {"a": 1.0, "c": None}),
    ("alter context", "features", ()),
    ("alter context", "useful_signals", None),
    ("alter context", "universe_mask", MatrixCase(((1.0, 2.0),))),
    ("alter context", "column_labels", None),
    ("alter context", "column_labels", ("net",)),
    ("alter context", "signal_pnl_vectors", {"x": {"gross_returns": "2.5", "net": None}}),
    ("alter context", "signal_pnl_vectors", {"x": None, "y": {"gross_returns": "odd"}}),
    ("alter context", "stage_data", None),
    ("alter context", "metaparameters", None),
    ("alter context", "transform_pipeline", None),
    ("alter context", "current_day_index", "today"),
    ("alter context", "_evaluation_lock", None),
    ("alter context", "_collect_states", ""),
    ("alter context", "_collect_node_outputs", "yes"),
    ("alter node", "root", "_collect_nodes_cache", 0),
    ("alter node", "root", "_collect_nodes_cache", {}),
    ("alter node", "root", "_collect_nodes_cache", "record"),
    *(("alter node", "root", "canonical_id", value) for value in (None, 5, "", ("id",), ["id"])),
    *(("alter node", "root", "_state_identity", value) for value in (None, 5, "", ("id",), ["id"])),
    *(("alter node", "root.c0", "type", value) for value in (None, 5, "Feature", ["int"])),
    *(("alter node", "root.c0", "node", value) for value in (None, 5, ["a"], 1.5)),
    *(("alter node", "root", "children", value) for value in (None, (), 0, "")),
    *(("forget attribute", "root.c0", name) for name in ("type", "node", "children", "config")),
    *(("replace child", "root", value) for value in ({"type": "feature"}, None, "a")),
)
HOST_FAULTS = rarely("misshapen", "missing", "states", "binding", one_in=4)
FIELDS = (
    rarely(*PNL_VECTORS, one_in=4),
    (None, True, False),
    (None, True, False),
    ("plain",) * 12 + ("typed",) * 3 + ("none",),
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
    odd, runs = draw(table(rarely(*ODDITIES, one_in=6), (1, 1, 2)))
    call = draw_call(draw, graph, fault=fault)
    first = replace(call, before=(odd,)) if odd else call
    return RunCase(
        **{**setting, "features": tuple(features)},
        pnl_vectors=pnl_vectors,
        collect=collect,
        collect_states=collect_states,
        registry=registry,
        validate=validate,
        calls=(first, call)[:runs],
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
            entry[0] == "call" and "signal_pnl" in entry[3] for entry in reached.log
        )
        reached.counts["filtered"] += bool(
            reached.case.graph.paths_of(("filtration",)) and ending == "result"
        )
        reached.counts["marked"] += reached.outcome().get("nan_source", ["dict"]) != ["dict"]

    goals = {
        "result after calls": 10,
        "failure after calls": 10,
        "failure without calls": 10,
        "long runs": 3,
        **dict.fromkeys(("restored", "reduced", "filtered", "marked"), 1),
    }
    require_reach(run_cases(), count, goals)
