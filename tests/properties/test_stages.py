"""Transform pipelines and stage data: merged and attached once, keys kept, the host's view after."""

from __future__ import annotations

import reference_evaluator
from hypothesis import given
from hypothesis import strategies as st
from properties.cases import CallCase, Deed, NodeCase, RunCase, StageCase, ValueCase
from properties.cells import Cells
from properties.compare import NATIVE, require_agreement
from properties.graphs import FEATURES, FILTERS, LITERALS, graphs, heads, mostly
from properties.reach import Reached, require_reach
from properties.strategies import draw_setting, draw_states, functions
from properties.tables import rarely, table

#: "d" and "e" are in no context: only stage data can hold them.
STAGED = tuple(NodeCase(kind, name) for kind in ("feature", "aggregation") for name in "de")
LEAVES = (*FEATURES * 6, *STAGED * 4, *LITERALS)
SIGNAL = NodeCase("signal", None)
IDENTITIES = rarely("root", "root.c0", "kept", one_in=4)
SIGNALS = mostly(
    graphs(heads(identities=IDENTITIES), LEAVES, FILTERS),
    (*FEATURES, *STAGED),
)
TEMPLATES = graphs(
    heads(("rotation",), names=("f", "g"), identities=IDENTITIES),
    (*[SIGNAL] * 12, *FEATURES, *STAGED, *LITERALS[::3]),
    depth=2,
)
FUNCTIONS = functions(
    (*("sum", "first", "running total", "keep") * 3, "raise value"),
    families=rarely("virtualization", one_in=12),
    known=rarely(False, otherwise=True, one_in=24),
)
CHOICES = (*("strong", "plain", "bare", None, "strong", "strong") * 3, "unknown")
VALUE_FORMS = ("matrix",) * 24 + ("row", "cube", "list", "words", "none", "text", "no dimensions")
SHAPE_CHANGES = ((0, 0),) * 12 + ((1, 0), (0, 1), (-1, 0))
DTYPES = ("float64",) * 4 + ("int64", "float32", ">f8", "object", "bool")
LAYOUTS = ("C", "C", "F", "reversed", "strided", "read-only", "subclass")
FORMS = table(DTYPES, LAYOUTS)
DEEDS = (
    (),
    (),
    ("renew pipeline",),
    ("alter context", "transforms_already_combined", True),
    ("alter context", "metaparameters", {"first": "plain", "second": None}),
    ("alter context", "metaparameters", None),
    ("alter context", "pool_id", "pool"),
    ("alter context", "transform_pipeline", ()),
    ("copy graph",),
    ("pickle graph",),
    ("copy context",),
    ("new context",),
    ("turned context",),
    ("invalidate",),
)


def draw_stages(draw: st.DrawFn, names: tuple[str, ...]) -> tuple[StageCase, ...]:
    return tuple(
        StageCase(
            name,
            draw(st.sampled_from(CHOICES)),
            (("plain", None), ("bare", SIGNAL), ("strong", draw(TEMPLATES))),
        )
        for name in names
    )


def draw_value(draw: st.DrawFn, cells: Cells, shape: tuple[int, int]) -> ValueCase:
    """A stage's array, sometimes of a wrong shape, or something else."""
    form, change = draw(table(VALUE_FORMS, SHAPE_CHANGES))
    rows, columns = (max(1, size + more) for size, more in zip(shape, change, strict=True))
    return ValueCase(cells.matrix((rows, columns), draw(FORMS)), form)


@st.composite
def stage_cases(draw: st.DrawFn) -> RunCase:
    graph = draw(SIGNALS)
    cells, setting = draw_setting(draw, graph, FUNCTIONS, universes=(False, False, True))
    names, combined, shared, feature_list, pool_id, bound, validate = draw(
        table(
            (*(("first",), ("first", "second")) * 9, (), ("second", "second")),
            (False, False, False, True),
            (False, True),
            (False, True),
            (None, "pool"),
            ("no", "no", "all"),
            (True, False),
        )
    )
    stages = draw_stages(draw, names)
    direct, pooled, plain = draw(table(CHOICES, CHOICES, (True, False, "odd pool")))
    metaparameters: tuple = ()
    if not plain:
        metaparameters = (("first", direct), ("pool", (("first", "plain"), ("second", pooled))))
    elif plain == "odd pool":
        metaparameters = (("pool", "no mapping"),)
    stage_data = tuple(
        (name, draw_value(draw, cells, setting["shape"]))
        for name in draw(
            st.sampled_from(["de", "ed", "dea", "de", "aed", "d", "de", "ed", "de", ""])
        )
    )
    used = {
        node.value
        for stage in stages
        for _, option in stage.options
        if option is not None
        for _, node in option.paths_of(("rotation",))
    }
    known = dict(setting["functions"])
    setting["functions"] += tuple(
        (name, draw(FUNCTIONS)) for name in sorted(used) if name not in known
    )
    calls = []
    for run in range(draw(st.sampled_from([1, 2, 2, 3]))):
        states, cold, deed = draw(
            table((None, None, "last", "given"), (False, True), DEEDS if run else ((),))
        )
        if states == "given":
            states = draw_states(draw, graph)
        before: tuple[Deed, ...] = (deed,) if deed else ()
        if run and stage_data and draw(st.sampled_from([False, False, True])):
            before += (("change stage value", "d", draw_value(draw, cells, setting["shape"])),)
        calls.append(CallCase(before, states, cold, bound))
    return RunCase(
        **setting,
        stages=stages,
        metaparameters=metaparameters,
        pool_id=pool_id,
        combined=combined,
        stage_data=stage_data,
        shared=shared,
        feature_list=feature_list,
        validate=validate,
        calls=tuple(calls),
    )


@NATIVE
@given(case=stage_cases())
def test_stages(evaluator, case):
    require_agreement(reference_evaluator, evaluator, case)


def test_stages_are_merged_and_attached():
    def count(reached: Reached) -> None:
        case = reached.case
        good = "weights" in reached.outcome()
        reached.counts["merged"] += good and bool(case.stages) and not case.combined
        reached.counts["attached"] += good and reached.questions("value") > 0
        reached.counts["twice"] += "weights" in reached.outcome(1)
        reached.counts["kept keys"] += reached.questions("restore") > 0
        reached.counts["failed"] += not good

    goals = {"merged": 10, "attached": 10, "twice": 10, "kept keys": 3, "failed": 10}
    require_reach(stage_cases(), count, goals)
