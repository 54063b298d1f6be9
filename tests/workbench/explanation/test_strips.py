"""Strips: what is told is what functions see, that is whether they get many rows at once."""

from __future__ import annotations

import sys
from typing import Any

import numpy as np
import pytest
from hypothesis import assume, given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import (
    condition,
    feature,
    filtration,
    integer,
    number,
    reduction,
    rotation,
    string,
)
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.explanation import explain
from support.guise_runs import GuiseRegistry, make_instance

ROWS, COLUMNS = 4, 3
NAMES = [f"{step}.{guise}" for step in ("total", "running") for guise in ("kernel", "block")]
GUISES = {
    name: name.partition(".")[2]
    for name in [*NAMES, "total.plain", "reduce.kernel", "reduce.plain"]
}


class Matrix(np.ndarray):
    """Of a class that is not NumPy's own."""


def matrix(start: float = 0.0) -> Any:
    return np.arange(start, start + ROWS * COLUMNS).reshape(ROWS, COLUMNS)


FEATURES = {
    "a": matrix(),
    "strided": np.asfortranarray(matrix(1.0)),
    "float32": matrix().astype(np.float32),
    "bool": matrix() > 3.0,
    "swapped": matrix().astype(">f8"),
    "long": matrix().astype(np.longdouble),
    "object": matrix().astype(object),
    "subclass": matrix().view(Matrix),
}
FILTERS = [
    filtration("filtration", condition("gt", "q", 0.5)),
    filtration("top_n", "q", 2),
]


def leaves() -> st.SearchStrategy[Node]:
    names = st.sampled_from(["a"] * 12 + list(FEATURES))
    return st.builds(feature, names, canonical_id=st.sampled_from([None] * 9 + ["given"]))


literals = st.sampled_from([number(0.5), integer(3), integer(2**70), string("x"), Node("bool", 1)])


@st.composite
def functions(draw: st.DrawFn, inner: st.SearchStrategy[Node]) -> Node:
    name = draw(st.sampled_from(NAMES * 4 + ["total.plain"]))
    children = draw(st.lists(inner, min_size=1, max_size=3) | st.lists(literals, max_size=2))
    identity = draw(st.sampled_from([None] * 15 + ["given", "other"]))
    return rotation(name, *children, canonical_id=identity)


@st.composite
def reductions(draw: st.DrawFn) -> Node:
    name = draw(st.sampled_from(["reduce.kernel"] * 5 + ["reduce.plain"]))
    children = draw(st.lists(st.sampled_from(FILTERS), max_size=2) | st.just([FILTERS[0]]))
    children += draw(st.lists(literals | leaves(), max_size=1))
    return reduction(name, *children)


graphs = st.recursive(
    leaves() | leaves() | leaves() | literals | reductions(), functions, max_leaves=6
)


def signal(kind: str, q: float) -> UsefulSignal:
    weights = matrix().astype(np.float32) if kind == "float32" else matrix()
    return UsefulSignal(weights, matrix(), {"q": q})


@st.composite
def contexts(draw: st.DrawFn) -> dict[str, Any]:
    """What a context is made from, mostly plain."""
    odd = draw(st.sampled_from([""] * 6 + ["universe", "narrow", "pool", "float32", "vectors"]))
    options: dict[str, Any] = {"column_labels": ["gross_returns"]}
    pool: dict[str, UsefulSignal] = {f"s{i}": signal(odd, float(i)) for i in range(3)}
    options["useful_signals"] = type("Pool", (dict,), {})(pool) if odd == "pool" else pool
    if odd == "universe":
        options["universe"] = matrix()
    if odd == "narrow":
        options["universe"] = matrix().astype(np.float32)
    if odd == "vectors":
        options["signal_pnl_vectors"] = {name: {"gross_returns": 1.0} for name in pool}
    return options


def context_of(registry: Any, options: dict[str, Any], attributes: dict[str, Any]) -> Any:
    index = {name: place for place, name in enumerate(FEATURES)}
    context = EvaluationContext(tuple(FEATURES.values()), index, registry=registry, **options)
    for name, value in attributes.items():
        setattr(context, name, value)
    return context


attributes = st.sampled_from(
    [
        {},
        {},
        {"_reads_rows_ahead": True},
        {"_reads_rows_ahead": True},
        {"_precomputed_node_outputs": {"given": np.zeros(COLUMNS)}},
        {"_precomputed_node_outputs": {"given": np.zeros(COLUMNS)}, "_reads_rows_ahead": True},
    ]
)


def came_in_strips(instance: Any) -> bool:
    return any(count != "call" and count > 1 for count in instance.calls)


@settings(deadline=None, max_examples=150)
@given(graphs, contexts(), attributes, st.booleans(), st.booleans())
def test_nodes_in_strips_are_those_whose_functions_get_many_rows(
    graph: Node, options: dict[str, Any], extra: dict[str, Any], is_bound: bool, is_shared: bool
) -> None:
    registry = GuiseRegistry(GUISES)
    context = context_of(registry, options, extra)
    bound: dict[str, Any] | None = None
    found = explain(graph, context)
    functions = [node for node in found.nodes if node.kind in ("rotation", "reduction")]
    if is_bound and functions:
        made: dict[str, Any] = {}
        bound = {}
        for node in functions:
            new = make_instance(node.label, GUISES[node.label])
            bound[node.path] = made.setdefault(node.label, new) if is_shared else new
        found = explain(graph, context, bound=bound)
        functions = [node for node in found.nodes if node.kind in ("rotation", "reduction")]
    registry.instances.clear()
    if found.road != "rows":
        return
    try:
        evaluate(graph, context, bound_function_instances=bound)
    except Exception:  # noqa: BLE001 - the run failed, so that nothing is to be seen
        assume(False)
    instances = list(bound.values()) if bound is not None else registry.instances
    for node, instance in zip(functions, instances, strict=True):
        if instances.count(instance) > 1:
            continue  # Who got which rows can't be told.
        if node.kind == "rotation":  # a reduction's kernel makes row after row, in strips, too
            assert (node.step == "strip") == came_in_strips(instance), (node, instance.calls)
        assert (node.reason is None) == (node.step == "strip")
        if node.calls is not None and not node.is_precomputed:
            has_filter = any(other.kind == "filtration" for other in found.nodes)
            first = int(has_filter and node.step == "strip")
            assert instance.calls.count("call") in (node.calls, node.calls + first)


def reasons(graph: Node, **extra: Any) -> dict[str, str | None]:
    context = context_of(GuiseRegistry(GUISES), {}, extra)
    return {node.path: node.reason for node in explain(graph, context).nodes}


NO_OFFER = "its type has neither a kernel nor a method for blocks"
MIXED = rotation("total.plain", rotation("total.kernel", feature("a")))


def test_beside_a_plain_function() -> None:
    promise = "root goes row by row, and the context has no promise to read ahead"
    assert reasons(MIXED) == {"root.c0.c0": promise, "root.c0": promise, "root": NO_OFFER}
    assert reasons(MIXED, _reads_rows_ahead=True) == {
        "root.c0.c0": None,
        "root.c0": None,
        "root": NO_OFFER,
    }


def test_above_a_plain_function() -> None:
    graph = rotation("total.kernel", rotation("total.plain", feature("a")))
    found = reasons(graph, _reads_rows_ahead=True)
    assert found["root"] == "its child root.c0 goes row by row"


@pytest.mark.parametrize(
    ("name", "reason"),
    [
        ("object", "the feature 'object' is ndarray of |O and shape (4, 3)"),
        ("long", "the feature 'long' is ndarray of <f16 and shape (4, 3)"),
        ("subclass", "the feature 'subclass' is Matrix of <f8 and shape (4, 3)"),
    ],
)
def test_matrices_that_only_numpy_reads(name: str, reason: str) -> None:
    found = reasons(rotation("total.kernel", feature(name), feature("a")))
    assert set(found.values()) == {reason}


def test_nobody_offers_anything() -> None:
    found = reasons(rotation("total.plain", feature("a")))
    assert found["root"] == NO_OFFER
    assert found["root.c0"] == "no function of the graph has a kernel or a method for blocks"


def test_one_instance_at_two_nodes() -> None:
    shared = make_instance("running.kernel", "kernel")
    graph = rotation("running.kernel", rotation("running.kernel", feature("a")))
    context = context_of(None, {}, {})
    nodes = explain(graph, context, bound={"root": shared, "root.c0": shared}).nodes
    assert nodes[-1].reason == "it shares its state with root.c0"
    assert nodes[-2].reason == "it shares its state with root"


def test_a_computed_context() -> None:
    class Computed(EvaluationContext):
        @property
        def universe(self) -> Any:
            return None

        @universe.setter
        def universe(self, value: Any) -> None: ...

    registry: Any = GuiseRegistry(GUISES)
    context = Computed((matrix(),), {"a": 0}, registry=registry)
    nodes = explain(rotation("total.kernel", feature("a")), context).nodes
    assert {node.reason for node in nodes} == {"the context's class, Computed, computes attributes"}


def test_the_library_goes_in_strips_in_machine_code_alone() -> None:
    pytest.importorskip("quernbrook.row_kernels")
    graph = rotation("longitudinal_mean", feature("a"), 2)
    for compiled in (True, False):
        context = context_of(default_registry(compiled=compiled), {}, {})
        root = explain(graph, context).nodes[-1]
        assert (root.step, root.calls) == (("strip", 0) if compiled else ("row", ROWS))


@pytest.mark.parametrize(
    ("offer", "told"),
    [
        (lambda: "kernel", "expected a capsule named 'quernbrook.row_kernel.1' or None; got str"),
        (lambda: None, ""),
    ],
)
def test_offers_that_are_no_kernel(offer: Any, told: str) -> None:
    class Odd:
        stateful = False
        arity = 1

        def __call__(self, row: Any) -> Any:
            return row

        def __quernbrook_row_kernel__(self) -> Any:
            return offer()

    graph = rotation("f", feature("a"))
    explanation = explain(graph, context_of(None, {}, {}), bound={"root": Odd()})
    faults = [str(fault) for fault in explanation.faults]
    if told:
        assert faults == [f"root: 'f' offers a kernel that cannot be used: {told}"]
    else:
        assert not faults and explanation.nodes[-1].reason == NO_OFFER


class Slotted:
    """A signal without a dictionary of attributes."""

    __slots__ = ("fields", "pnl", "weights")

    def __init__(self) -> None:
        self.weights, self.pnl, self.fields = matrix(), None, {"q": 1.0}


def test_signals_whose_attributes_only_the_interpreter_finds() -> None:
    registry = GuiseRegistry(GUISES)
    options = {"useful_signals": {"s0": Slotted()}, "column_labels": ["gross_returns"]}
    graph = rotation("total.kernel", reduction("reduce.kernel"))
    context = context_of(registry, options, {})
    found = {node.path: node.reason for node in explain(graph, context).nodes}
    assert None not in found.values()
    if sys.version_info < (3, 11):
        assert found["root.c0"] == "the attributes of the signal 's0' can't be read off"
    else:
        promise = "can't be read off on CPython 3.11 and later"
        assert found["root.c0"] == f"the attributes of its type {promise}"
    registry.instances.clear()
    evaluate(graph, context)
    assert not any(map(came_in_strips, registry.instances[1:]))
