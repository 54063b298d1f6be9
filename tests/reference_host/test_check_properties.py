"""A graph without faults runs, and the check reads configuration as the evaluator does."""

from __future__ import annotations

import warnings
from typing import Any

import numpy as np
import pytest
from hypothesis import event, given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import (
    FunctionEntry,
    FunctionRegistry,
    Parameter,
    check_graph,
    default_registry,
    functions_by_path,
)
from quernbrook.reference_host.checks.functions import read_configuration
from quernbrook.reference_host.checks.places import read_graph
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate

T, N = 12, 3
RANDOM = np.random.default_rng(4)
PRICE, VOLUME = RANDOM.normal(size=(2, T, N))
SIGNALS = {
    sid: UsefulSignal(
        RANDOM.normal(size=(T, N)), RANDOM.normal(size=(T, 1)), {"sharpe": sharpe, "class": "fx"}
    )
    for sid, sharpe in (("carry", 0.9), ("momentum", 1.2), ("value", 0.4))
}
REGISTRY = default_registry()

literals = st.one_of(
    st.sampled_from([0.5, 1.0, 2.0, -1.0]).map(lambda value: FunctionGraphNode("float", value)),
    st.sampled_from([1, 2, 3, 5, 0, 99, 2.5]).map(lambda value: FunctionGraphNode("int", value)),
    st.sampled_from(["sharpe", "class", "fx", "vol", "gross_returns", "cost"]).map(
        lambda value: FunctionGraphNode("string", value)
    ),
    st.sampled_from([True, False, 1]).map(lambda value: FunctionGraphNode("bool", value)),
)
features = st.sampled_from(["price", "volume"]).map(lambda name: FunctionGraphNode("feature", name))
leaves = st.one_of(*[features] * 6, literals, st.just(FunctionGraphNode("feature", "prise")))
FUNCTIONS = (*REGISTRY, "longitudinal_maen")
OPERATORS = (
    "gt",
    "eq",
    "between",
    "in_",
    "top_pct",
    "bottom_n",
    "and_",
    "not_",
    "filtration",
    "tt",
)
configs = st.sampled_from(
    [None, None, None, {"window": 3}, {"total": 2.0}, {"widnow": 3}, {"A": 1}]
)


def larger(below: st.SearchStrategy[Any]) -> st.SearchStrategy[FunctionGraphNode]:
    children = st.lists(below, max_size=3)
    filters = st.recursive(
        st.tuples(st.sampled_from(OPERATORS), st.lists(literals, max_size=3)).map(
            lambda drawn: FunctionGraphNode(drawn[0], drawn[0], drawn[1])
        ),
        lambda inner: st.tuples(st.sampled_from(OPERATORS), st.lists(inner, max_size=2)).map(
            lambda drawn: FunctionGraphNode(drawn[0], drawn[0], drawn[1])
        ),
        max_leaves=3,
    )
    top = FunctionGraphNode(
        "top_n", "top_n", [FunctionGraphNode("string", "sharpe"), FunctionGraphNode("int", 2)]
    )
    filtrations = st.one_of(st.just([]), st.just([top]), st.lists(filters, max_size=2)).map(
        lambda found: FunctionGraphNode("filtration", "filtration", found)
    )
    functions = st.builds(
        FunctionGraphNode,
        st.sampled_from(["rotation", "rotation", "rotation", "reduction", "rotatoin"]),
        st.sampled_from(FUNCTIONS),
        children,
        configs,
    )
    # Mostly right, so that graphs without a fault are no rarity.
    rolling = st.builds(
        lambda name, child, window: FunctionGraphNode(
            "rotation", name, [child, FunctionGraphNode("int", window)]
        ),
        st.sampled_from([name for name in FUNCTIONS if name.startswith("longitudinal_")]),
        below,
        st.sampled_from([1, 2, 3, 5]),
    )
    sums = st.builds(
        lambda name, one, other: FunctionGraphNode("rotation", name, [one, other]),
        st.sampled_from(["numerical_add", "numerical_divide"]),
        below,
        below,
    )
    reductions = st.builds(
        lambda name, filtration, window, others: FunctionGraphNode(
            "reduction",
            name,
            [filtration, *others, *[FunctionGraphNode("int", window)] * (name != "reduction_mean")],
        ),
        st.sampled_from(["weighted_by_pnl", "weighted_by_vol", "reduction_mean"]),
        filtrations,
        st.sampled_from([1, 2, 3]),
        st.one_of(st.just([]), st.lists(literals, max_size=1)),
    )
    return st.one_of(*[rolling, sums, reductions] * 3, functions, filtrations)


graphs = st.recursive(leaves, larger, max_leaves=5)
templates = st.recursive(st.just(FunctionGraphNode("signal", "signal")), larger, max_leaves=3)
pipelines = st.one_of(
    st.just([]),
    st.just([]),
    st.builds(
        lambda template, default: [TransformStage("slow", default, {"on": template})],
        templates,
        st.sampled_from(["on", None, "of"]),
    ),
)


def context(pipeline: Any = (), rows: int = T, **arguments: Any) -> EvaluationContext:
    pool = {
        sid: UsefulSignal(s.weights[:rows], s.pnl[:rows], s.fields) for sid, s in SIGNALS.items()
    }
    given: dict[str, Any] = {
        "registry": REGISTRY,
        "column_labels": ["gross_returns"],
        "transform_pipeline": list(pipeline),
    }
    return EvaluationContext(
        (PRICE[:rows], VOLUME[:rows]), {"price": 0, "volume": 1}, pool, **{**given, **arguments}
    )


@settings(max_examples=400, deadline=None)
@given(
    graph=graphs,
    pipeline=pipelines,
    settings=st.sampled_from([{}, {}, {"slow": "on"}, {"slow": "onn"}, {"solw": "on"}]),
)
def test_what_has_no_fault_runs(
    graph: FunctionGraphNode, pipeline: list[TransformStage], settings: dict[str, Any]
) -> None:
    faults = check_graph(graph, REGISTRY, context(pipeline, metaparameters=settings))
    event("sound" if not faults else "faulty")
    if not faults:
        evaluate(graph, context(pipeline, metaparameters=settings))


class Recorder(FunctionRegistry):
    """Makes functions of anything and remembers the configurations."""

    def __init__(self, registry: FunctionRegistry) -> None:
        super().__init__(registry.get_entry(name) for name in registry)
        self.configurations: list[dict[str, Any]] = []

    def has_factory(self, name: str) -> bool:
        return True

    def create_instance(self, name: str, /, **config: Any) -> Any:
        self.configurations.append(config)
        return super().create_instance("reduction_mean")


RECORDED = default_registry()
SCHEMA = {
    "k": Parameter("float"),
    "window": Parameter("int"),
    "text": Parameter("string"),
    "invert": Parameter("bool"),
}
for size in range(4):
    RECORDED.register(FunctionEntry(f"f{size}", "mine", dict, dict(list(SCHEMA.items())[:size])))

function_graphs = st.recursive(
    st.one_of(st.just(FunctionGraphNode("feature", "price")), literals),
    lambda below: st.builds(
        FunctionGraphNode,
        st.sampled_from(["rotation", "reduction"]),
        st.sampled_from(["f0", "f1", "f2", "f3", "weighted_by_vol", "weighted_by_pnl"]),
        st.lists(below, max_size=6),
        st.sampled_from([None, {"k": 1}, {"window": 9, "pnl_column": "net"}]),
    ),
    max_leaves=8,
)


@settings(max_examples=200, deadline=None)
@given(graph=function_graphs)
def test_configuration_is_read_as_the_evaluator_reads_it(graph: FunctionGraphNode) -> None:
    registry = Recorder(RECORDED)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        evaluate(graph, context(rows=0, registry=registry))
    root, _ = read_graph(graph, "root")
    assert root is not None
    places = {place.path: place for place in root.all()}
    read = [
        read_configuration(places[path], RECORDED.get_entry(node.node)).values
        for path, node in functions_by_path(graph).items()
    ]
    assert read == registry.configurations


def test_some_graphs_are_sound() -> None:
    """Otherwise the first test would say nothing."""
    counts = {"sound": 0, "faulty": 0, "stateful": 0}

    @settings(max_examples=300, deadline=None, database=None, derandomize=True)
    @given(graph=graphs)
    def count(graph: FunctionGraphNode) -> None:
        faults = check_graph(graph, REGISTRY, context())
        counts["faulty" if faults else "sound"] += 1
        counts["stateful"] += not faults and any(
            REGISTRY.get_entry(node.node).stateful for node in functions_by_path(graph).values()
        )

    count()
    assert min(counts.values()) >= 20, counts


def test_a_run_that_fails_has_a_fault() -> None:
    graph = FunctionGraphNode("rotation", "numerical_add", [FunctionGraphNode("feature", "price")])
    assert check_graph(graph, REGISTRY, context())
    with pytest.raises(Exception, match="takes 2 input"):
        evaluate(graph, context())
