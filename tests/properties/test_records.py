"""Runs by the record that an earlier run left on its graph, as it is and as a host altered it."""

from __future__ import annotations

from dataclasses import replace
from typing import Any

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import CallCase, Deed, RunCase, ValueCase
from properties.compare import NATIVE, require_agreement
from properties.functions import FUNCTION_KINDS
from properties.graphs import CANONICAL_IDS, FEATURES, FILTERS, LITERALS, graphs, heads, mostly
from properties.reach import Reached, require_reach
from properties.strategies import draw_setting, draw_states, functions
from properties.tables import rarely, table

HEADS = heads(
    configs=rarely((("pnl_column", "net"),), (("k", 1),), one_in=4),
    identities=rarely("root", "kept", one_in=6),
)
GRAPHS = mostly(graphs(HEADS, (*FEATURES * 4, *LITERALS), FILTERS), LITERALS)
FUNCTIONS = functions(
    ("sum", "first", "running total", "keep", "keep and overwrite", "overwrite", "raise value"),
    families=(None,),
    known=rarely(False, otherwise=True, one_in=4),
)
TABLES = (
    "node_info",
    "float_values",
    "state_keys",
    "filtration_nodes",
    "reduction_nodes",
    "feature_ref_names",
)
ALTERATIONS = (
    *(("kind", kind) for kind in ("feature", "aggregation", "rotation", "reduction", "filtration")),
    *(("kind", kind) for kind in ("float", "int", "string", "bool", "odd")),
    *(("name", name) for name in ("a", "c", "f", 2, -1.5, "x", None)),
    *(("identity", identity) for identity in (*CANONICAL_IDS, None, 5)),
    *[("children", choice) for choice in ("drop", "reverse", "repeat", "another", "none", "tuple")]
    * 2,
    *(("configuration", choice) for choice in ("all", "none", "list", "unknown")),
    *(("number", number) for number in (3.0, 7, "2.5", None, True, (1.0, 2.0), "word")),
    *(("key", key) for key in ("root", "other", "kept", 3)),
    *(("feature", name) for name in ("a", "b", "c", "zz")),
    *(("filtration", choice) for choice in ("path", None, "", "elsewhere")),
    *(("reduction", config) for config in ((), (("pnl_column", "net"),), (("pnl_column", "zz"),))),
    *[("forget", name) for name in TABLES],
    # An entry of `node_info` that is missing is met earlier or later; all else is not.
    *[("forget entry", name) for name in TABLES[1:] for _ in range(2)],
    *(("forget member", name) for name in ("children", "config", "config_child_paths")),
    *[("last", name) for name in TABLES],
    *[("copy", name) for name in TABLES],
    *[("move", name) for name in TABLES[1:]],
    *[("swap", name) for name in TABLES[1:]],
)
OTHERS: tuple[Deed, ...] = (
    ("copy graph",),
    ("pickle graph",),
    ("invalidate",),
    ("new context",),
    ("turned context",),
    ("copy context",),
    ("identify",),
    ("alter context", "transforms_already_combined", True),
    ("alter context", "_collect_node_outputs", False),
    ("alter node", "root", "node", "changed"),
    ("alter node", "root", "config", (("window", 9),)),
    ("alter node", "root", "_state_identity", "late"),
    ("alter node", "root", "canonical_id", "id"),
    ("alter node", "root.c0", "node", "c"),
    ("forget child", "root"),
)
CALLS = table(
    ("all",) * 6 + ("none", "no"),
    rarely("given", "last", one_in=4),
    rarely(("a",), one_in=4),
    (False, False, True),
)


def alteration(paths: list[str], position: int, other: int, change: tuple[str, Any]) -> Deed:
    """A change of one item of the record, at a path and with another one."""
    what, value = change
    path, second = paths[position % len(paths)], paths[other % len(paths)]
    # A node with itself below it is no graph at all.
    below = paths[: paths.index(path)]
    info = ("node_info", path)
    if what == "kind":
        return ("alter record", (*info, "type"), "set", value)
    if what == "name":
        return ("alter record", (*info, "node"), "set", value)
    if what == "identity":
        return ("alter record", (*info, "canonical_id"), "set", value)
    if what == "children":
        keys = (*info, "children_paths")
        if not below:
            return ("alter record", keys, "clear")
        earlier = below[other % len(below)]
        return {
            "drop": ("alter record", (*keys, 0), "delete"),
            "reverse": ("alter record", keys, "reverse"),
            "repeat": ("alter record", keys, "append", below[-1]),
            "another": ("alter record", keys, "append", earlier),
            "none": ("alter record", keys, "clear"),
            "tuple": ("alter record", keys, "set", (earlier,)),
        }[value]
    if what == "configuration":
        chosen = {
            "all": frozenset(paths),
            "none": frozenset(),
            "list": [second],
            "unknown": {"elsewhere"},
        }
        return ("alter record", (*info, "config_child_paths"), "set", chosen[value])
    if what == "number":
        return ("alter record", ("float_values", path), "set", value)
    if what == "key":
        return ("alter record", ("state_keys", path), "set", value)
    if what == "feature":
        return ("alter record", ("feature_ref_names", path), "set", value)
    if what == "filtration":
        chosen_path = second if value == "path" else value
        return ("alter record", ("reduction_nodes", path, "filtration_path"), "set", chosen_path)
    if what == "reduction":
        return ("alter record", ("reduction_nodes", path, "config"), "set", dict(value))
    if what == "forget":
        return ("alter record", (value,), "delete")
    if what == "forget member":
        return ("alter record", (*info, value), "delete")
    if what == "copy":
        return ("alter record", (value,), "copy")
    actions = {"forget entry": "delete", "last": "to the end", "move": "rename", "swap": "swap"}
    return ("alter record", (value, path), actions[what], second)


@st.composite
def record_cases(draw: st.DrawFn) -> RunCase:
    graph = draw(GRAPHS)
    cells, setting = draw_setting(draw, graph, FUNCTIONS)
    paths = [path for path, _ in graph.paths_of(())]
    has_functions = bool(graph.paths_of(FUNCTION_KINDS))
    changes = table(rarely(*OTHERS, one_in=3), ALTERATIONS, range(len(paths)), range(len(paths)))
    calls = [CallCase((), bound="all" if has_functions else "none")]
    for count in draw(st.sampled_from([(1,), (1, 0), (1, 1), (2,), (2, 1), (0, 1)])):
        before: list[Deed] = []
        for _ in range(count):
            another, change, position, other = draw(changes)
            before.append(another or alteration(paths, position, other, change))
        bound, states, nan_features, cold = draw(CALLS)
        calls.append(
            CallCase(
                tuple(before),
                draw_states(draw, graph) if states == "given" else states,
                cold,
                bound if has_functions or bound == "no" else "none",
                nan_features,
            )
        )
    stored, refuses = draw(table(rarely((), CANONICAL_IDS[:1], one_in=4), (False,) * 9 + (True,)))
    if refuses:
        setting["graph"] = replace(graph, refuses=True)
    return RunCase(
        **setting,
        precomputed=stored
        and tuple((name, ValueCase(cells.row(setting["shape"][1]), "row")) for name in stored),
        calls=tuple(calls),
    )


@NATIVE
@given(case=record_cases())
def test_records(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


def test_records_are_used_and_altered():
    def count(reached: Reached) -> None:
        last = len(reached.case.calls) - 1
        after = reached.observed.get(f"afterwards {last}", {})
        reached.counts["kept"] += after.get("record is kept") and "weights" in reached.outcome(last)
        reached.counts["failed"] += "error" in reached.outcome(last)
        altered = any(
            deed[0] == "alter record" for call in reached.case.calls for deed in call.before
        )
        failed = any(entry[0] == "deed" for entry in reached.log)
        reached.counts["altered"] += altered and not failed

    require_reach(record_cases(), count, {"kept": 20, "failed": 10, "altered": 10})
