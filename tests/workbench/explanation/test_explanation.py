"""Configuration, warm-up, states, features, signals, memory and calls, each beside a run."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from hypothesis import assume, given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, Parameter, default_registry
from quernbrook.reference_host.graphs import (
    condition,
    feature,
    filtration,
    integer,
    number,
    reduction,
    rotation,
    signal,
    string,
)
from quernbrook.simulator_engine._types import SimulatorEngineError, TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.explanation import explain
from support.registries import RecordingRegistry, entry

ROWS, COLUMNS = 12, 3


def matrix(seed: int = 0) -> np.ndarray:
    return np.random.default_rng(seed).normal(size=(ROWS, COLUMNS))


def context_of(registry: Any = None, **options: Any) -> Any:
    registry = default_registry() if registry is None else registry
    return EvaluationContext((matrix(0), matrix(1)), {"a": 0, "b": 1}, registry=registry, **options)


def pool(count: int = 4) -> dict[str, UsefulSignal]:
    return {
        f"s{i}": UsefulSignal(matrix(i), np.ones((ROWS, 1)), {"q": float(i)}) for i in range(count)
    }


literals = st.sampled_from([integer(3), number(0.5), string("x"), Node("bool", True)])
NAMES = ["f", "g", "weighted_by_vol", "unlisted"]
SCHEMAS: dict[str, Any] = {
    "f": None,
    "g": {"a": {"type": "int"}, "rows": {"type": "array"}, "b": "string"},
    "weighted_by_vol": [{"name": "b", "type": "float"}, {"type": "bool"}],
}


@settings(deadline=None, max_examples=80)
@given(
    st.sampled_from(NAMES),
    st.sampled_from(["rotation", "reduction"]),
    st.lists(literals | st.just(feature("a")), max_size=5),
    st.none() | st.dictionaries(st.sampled_from(["a", "window", "c"]), st.integers(), max_size=2),
)
def test_the_configuration_is_what_the_registry_is_given(
    name: str, kind: str, children: list[Node], config: dict[str, Any] | None
) -> None:
    entries = {known: entry(param_schema=schema) for known, schema in SCHEMAS.items()}
    registry = RecordingRegistry(entries)
    graph = Node(kind, name, children, config)
    root = explain(graph, context_of(registry, useful_signals=pool())).nodes[-1]
    registry.calls.clear()
    try:
        evaluate(graph, context_of(registry, useful_signals=pool()))
    except (SimulatorEngineError, ValueError, IndexError):
        assume(registry.calls and registry.calls[-1][0] == "create_instance")
    made = [given for method, _, _, given in registry.calls if method == "create_instance"]
    assert [{one.name: one.value for one in root.settings}] == made


def test_where_settings_come_from() -> None:
    schema = {"k": Parameter("int"), "size": Parameter("number", 2.0), "own": Parameter("flag")}
    made = FunctionEntry("f", "own", lambda k, size, own: lambda row: row, schema)
    children = [feature("a"), integer(1), integer(4), string("t"), Node("bool", True)]
    graph = Node("rotation", "f", children, {"own": True})
    root = explain(graph, context_of(FunctionRegistry([made]))).nodes[-1]
    assert [(one.name, one.value, one.origin, one.path) for one in root.settings] == [
        ("own", True, "own", None),
        ("k", 1, "named child", "root.c1"),
        ("window", 4, "window", "root.c2"),
        ("pnl_column", "t", "text", "root.c3"),
        ("invert", True, "flag", "root.c4"),
        ("size", 2.0, "default", None),
    ]


def rolling(inner: st.SearchStrategy[Node]) -> st.SearchStrategy[Node]:
    def build(name: str, child: Node, windows: list[int]) -> Node:
        return rotation(name, child, *windows)

    names = st.sampled_from(["longitudinal_mean", "longitudinal_max", "numerical_negate"])
    return st.builds(build, names, inner, st.lists(st.integers(1, 5), min_size=1, max_size=1))


def sums(inner: st.SearchStrategy[Node]) -> st.SearchStrategy[Node]:
    return st.builds(lambda left, right: rotation("numerical_add", left, right), inner, inner)


warming = st.recursive(
    st.just(feature("a")) | st.just(reduction("weighted_by_pnl", 6)),
    lambda inner: rolling(inner) | sums(inner),
    max_leaves=5,
)


@settings(deadline=None, max_examples=50)
@given(warming)
def test_the_sources_of_the_warmup_add_up(graph: Node) -> None:
    from quernbrook.simulator_engine import expression_evaluator

    module: Any = expression_evaluator
    context = context_of(useful_signals=pool(), column_labels=["gross_returns"])
    warmup = explain(graph, context, data_nan_features=["a"]).warmup
    assert warmup.total == module._compute_graph_warmup_rows(graph, context.registry)
    assert warmup.total == warmup.rows == sum(source.rows for source in warmup.sources)


MEANS = rotation("longitudinal_mean", rotation("longitudinal_std", feature("a"), 3), 4)


def test_the_warmup_of_a_chain() -> None:
    warmup = explain(MEANS, context_of()).warmup
    assert [(source.path, source.function, source.rows) for source in warmup.sources] == [
        ("root", "longitudinal_mean", 3),
        ("root.c0", "longitudinal_std", 2),
    ]


def test_rows_seen_are_deducted() -> None:
    first = evaluate(MEANS, context_of())
    context = context_of()
    context.features = tuple(feature[:2] for feature in context.features)
    states = evaluate(MEANS, context).states
    explanation = explain(MEANS, context_of(), states=states)
    assert (explanation.warmup.total, explanation.warmup.rows_seen) == (5, 2)
    assert not explanation.faults
    blank: Any = np.isnan(evaluate(MEANS, context_of(), states).weights).all(axis=1)
    assert blank[: explanation.warmup.rows].all()
    assert {node.state_key for node in explanation.nodes if node.is_stateful} == set(first.states)


def test_bound_instances_blank_nothing() -> None:
    registry = default_registry()
    bound = {
        "root": registry.create_instance("longitudinal_mean", window=4),
        "root.c0": registry.create_instance("longitudinal_std", window=3),
    }
    explanation = explain(MEANS, context_of(), bound=bound)
    assert explanation.warmup.rows == 0 and not explanation.faults
    assert explanation.memory.node_outputs == 5 * ROWS * COLUMNS * 8


def test_a_cold_start_fills_reductions_first() -> None:
    graph = reduction("weighted_by_pnl", 6)
    options: dict[str, Any] = {"useful_signals": pool(), "column_labels": ["gross_returns"]}
    context = context_of(**options)
    context.features = tuple(feature[:2] for feature in context.features)
    context.useful_signals = {
        name: UsefulSignal(one.weights[:2] if one.weights is not None else None, np.ones((2, 1)))
        for name, one in pool().items()
    }
    states = evaluate(graph, context).states
    cold = explain(graph, context_of(**options), states=states, cold=True)
    assert [node.prefill_rows for node in cold.nodes] == [0, 4]
    assert (cold.warmup.total, cold.warmup.rows_seen, cold.warmup.rows) == (5, 6, 0)
    result = evaluate(graph, context_of(**options), states, True)
    assert not np.isnan(result.weights).all(axis=1).any()
    live = explain(graph, context_of(**options), states=states)
    assert live.nodes[-1].prefill_rows == 0 and live.warmup.rows == 3


def test_state_keys_under_a_pipeline() -> None:
    template = rotation("longitudinal_mean", signal(), 2)
    stage = TransformStage("smooth", "on", {"on": template})
    context = context_of(transform_pipeline=[stage])
    explanation = explain(MEANS, context)
    keys = {node.path: node.state_key for node in explanation.nodes if node.is_stateful}
    assert keys == {"root.c0.c0": "root.c0", "root.c0": "root", "root": "smooth.root"}
    assert set(keys.values()) == set(evaluate(MEANS, context).states)


def test_features_and_stage_data() -> None:
    graph = rotation(
        "numerical_add", feature("b"), rotation("numerical_add", feature("b"), feature("c"))
    )
    context = context_of(stage_data=StageData({"c": matrix(), "unused": matrix()}))
    explanation = explain(graph, context, data_nan_features=["b"])
    found = [
        (use.name, use.place, use.node_count, use.is_stage_data, use.is_marked)
        for use in explanation.features
    ]
    assert found == [("b", 1, 2, False, True), ("c", 2, 1, True, False)]
    assert len(context.features) == 2 and "c" not in context.feature_index


def test_signals_that_pass() -> None:
    seen: list[np.ndarray] = []

    class Watching:
        stateful = True
        window = 1

        def __call__(self, block: np.ndarray, signal_pnl: Any = None) -> np.ndarray:
            seen.append(block.copy())
            return block[0]

        def get_state(self) -> dict[str, Any]:
            return {}

        def restore(self, state: Any) -> None: ...

    registry = FunctionRegistry([FunctionEntry("watch", "own", Watching, stateful=True)])
    both = condition("and_", condition("gte", "q", 1.0), condition("lt", "q", 3.0))
    graph = reduction("watch", filtration("filtration", both))
    context = context_of(registry, useful_signals=pool())
    explanation = explain(graph, context)
    (use,) = explanation.signals
    assert (use.path, use.filter_path, use.pool_size) == ("root", "root.c0", 4)
    assert [(step.description, step.passing_count) for step in use.steps][1:] == [
        ("and_(gte(q, 1.0), lt(q, 3.0))", 2),
        ("gte(q, 1.0)", 3),
        ("lt(q, 3.0)", 3),
    ]
    assert not seen
    evaluate(graph, context)
    expected = np.array([pool()[name].weights[0] for name in use.passing])  # type: ignore[index]
    np.testing.assert_array_equal(seen[0], expected)
    assert explanation.calls == len(seen) == ROWS


def test_a_reduction_without_a_filter_gets_the_whole_pool() -> None:
    context = context_of(useful_signals=dict(reversed(pool().items())))
    (use,) = explain(reduction("reduction_mean"), context).signals
    assert use.passing == ("s0", "s1", "s2", "s3") and use.filter_path is None


@pytest.mark.parametrize(
    "attributes", [{}, {"_collect_node_outputs": True}, {"universe": np.ones((ROWS, COLUMNS))}]
)
def test_memory_is_that_of_the_arrays(attributes: dict[str, Any]) -> None:
    graph = rotation("numerical_add", feature("a"), reduction("reduction_mean"))
    context = context_of(useful_signals=pool())
    for name, value in attributes.items():
        setattr(context, name, value)
    memory = explain(graph, context).memory
    result = evaluate(graph, context)
    assert memory.weights == result.weights.nbytes
    assert memory.universe_mask == context.universe_mask.nbytes
    assert memory.registers == 2 * context.registers.nbytes
    assert memory.extraction_buffer == context.extraction_buffer.nbytes
    outputs = (result.node_outputs or {}).values()
    assert memory.node_outputs == sum(one.nbytes for one in outputs)
    parts = (memory.weights, memory.universe_mask, memory.registers, memory.extraction_buffer)
    assert memory.total == sum(parts) + memory.node_outputs


def test_a_leaf_is_handed_out_as_it_is() -> None:
    context = context_of()
    assert explain(feature("a"), context).memory.weights == 0
    assert evaluate(feature("a"), context).weights is context.features[0]
