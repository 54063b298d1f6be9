"""Bound instances from a checkpoint: live ticks with the very bits of one whole run."""

from __future__ import annotations

from pathlib import Path
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.reference_host import (
    FunctionEntry,
    Parameter,
    SavedState,
    bind_instances,
    checkpoints,
    default_registry,
    draw_tree,
    warmup_rows,
)
from quernbrook.reference_host.graphs import (
    boolean,
    condition,
    feature,
    filtration,
    reduction,
    rotation,
    signal,
)
from quernbrook.simulator_engine import expression_evaluator
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FunctionExecutionError,
    TransformStage,
    UsefulSignal,
)
from support.registries import RecordingRegistry, entry
from support.runs import same_bits
from support.typed_registry import FunctionState as TypedState
from support.typed_registry import TypedStateRegistry

T, N = 30, 4
RANDOM = np.random.default_rng(23)
PRICE, VOLUME, RISK = RANDOM.normal(size=(3, T, N))
SIGNALS = {
    sid: UsefulSignal(RANDOM.normal(size=(T, N)), RANDOM.normal(size=(T, 1)), {"sharpe": sharpe})
    for sid, sharpe in (("carry", 0.9), ("momentum", 1.2), ("value", 0.4))
}


class Smooth:
    """Gives values from its first row on, which warm-up rows alone keep from the weights."""

    name = "smooth"
    stateful = True

    def __init__(self, window: int) -> None:
        self.window = window
        self.count = 0
        self.level: np.ndarray | None = None

    def __call__(self, *rows: np.ndarray, context: Any = None) -> np.ndarray:
        (row,) = rows
        self.count += 1
        self.level = row.copy() if self.level is None else (self.level + row) / 2.0
        return self.level

    def get_state(self) -> SavedState:
        level = None if self.level is None else self.level.tolist()
        return SavedState(self.name, {"count": self.count, "window": self.window, "level": level})

    def restore(self, state_data: dict[str, Any]) -> None:
        self.count = state_data["count"]
        level = state_data["level"]
        self.level = None if level is None else np.array(level)


REGISTRY = default_registry()
REGISTRY.register(
    FunctionEntry("smooth", "mine", Smooth, {"window": Parameter("int")}, stateful=True)
)

BARE = rotation(
    "numerical_multiply",
    rotation("latitudinal_rank", rotation("smooth", feature("price"), 5)),
    reduction("weighted_by_pnl", filtration("gt", "sharpe", 0.5), 4),
)
SLOW = TransformStage("slow", "on", {"on": rotation("smooth", signal(), 3), "off": None})
HEDGE = TransformStage(
    "hedge",
    None,
    {"half": rotation("numerical_subtract", signal(), rotation("longitudinal_mean", signal(), 2))},
)
PIPELINES = {"bare": [], "one stage": [SLOW], "two stages": [SLOW, HEDGE]}
SETTINGS = {"hedge": "half"}


def context(
    start: int = 0, stop: int = T, module: ModuleType = expression_evaluator, **arguments: Any
) -> Any:
    rows = slice(start, stop)
    pool = {sid: UsefulSignal(s.weights[rows], s.pnl[rows], s.fields) for sid, s in SIGNALS.items()}
    given: dict[str, Any] = {
        "registry": REGISTRY,
        "column_labels": ["gross_returns"],
        "metaparameters": SETTINGS,
        "stage_data": StageData({"risk": RISK[rows]}),
    }
    return module.EvaluationContext(
        (PRICE[rows], VOLUME[rows]), {"price": 0, "volume": 1}, pool, **{**given, **arguments}
    )


def history(module: ModuleType, graph: FunctionGraphNode, stop: int, pipeline: Any = ()) -> Any:
    return module.evaluate(graph, context(0, stop, module, transform_pipeline=list(pipeline)))


@pytest.mark.parametrize("pipeline", PIPELINES.values(), ids=PIPELINES)
@pytest.mark.parametrize("cut", [0, 1, 3, 6, 7, 8, 20])
def test_ticks_have_the_bits_of_the_whole_run(
    tmp_path: Path, evaluator: ModuleType, pipeline: list[TransformStage], cut: int
) -> None:
    whole = history(evaluator, BARE, T, pipeline)
    first = history(evaluator, BARE, cut, pipeline)
    checkpoints.save(tmp_path / "states", first.states)

    saved = checkpoints.load(tmp_path / "states")
    live = bind_instances(BARE, REGISTRY, saved, context(0, 1, transform_pipeline=pipeline))
    ticks = [live.evaluate(context(day, day + 1)).weights for day in range(cut, T)]
    same_bits(np.vstack([first.weights, *ticks]), whole.weights)
    assert repr(live.states()) == repr(whole.states)
    assert list(live.states()) == list(whole.states)


@pytest.mark.parametrize("pipeline", PIPELINES.values(), ids=PIPELINES)
def test_ticks_without_the_method(evaluator: ModuleType, pipeline: list[TransformStage]) -> None:
    """The graph and the instances are what `evaluate` takes; warm-up is over here."""
    whole = history(evaluator, BARE, T, pipeline)
    states = history(evaluator, BARE, 20, pipeline).states
    live = bind_instances(BARE, REGISTRY, states, context(0, 1, transform_pipeline=pipeline))
    assert live.warmup_rows == 0
    for day in range(20, T):
        tick = evaluator.evaluate(
            live.graph, context(day, day + 1, evaluator), bound_function_instances=live.instances
        )
        same_bits(tick.weights, whole.weights[day : day + 1])
    assert repr(tick.states) == repr(whole.states)


def test_without_states_a_binding_begins_anew() -> None:
    live = bind_instances(BARE, REGISTRY)
    assert live.warmup_rows == 4
    weights = [live.evaluate(context(day, day + 3)).weights for day in range(0, T, 3)]
    same_bits(np.vstack(weights), history(expression_evaluator, BARE, T).weights)
    assert live.warmup_rows == 0


def test_what_is_returned() -> None:
    pipeline = [SLOW]
    live = bind_instances(BARE, REGISTRY, None, context(transform_pipeline=pipeline))
    assert live.state_keys == {
        "root.c0.c0.c0": "root.c0.c0",
        "root.c0.c0": "root.c0",
        "root.c0.c1": "root.c1",
        "root.c0": "root",
        "root": "slow.root",
    }
    assert list(live.instances) == list(live.state_keys)
    assert isinstance(live.instances["root"], Smooth)
    assert live.instances["root"] is not live.instances["root.c0.c0.c0"]
    assert live.warmup_rows == 6


def test_inputs_stay_as_they_were() -> None:
    graph = rotation("smooth", feature("price"), 3)
    for pipeline in ([], [SLOW]):
        given = context(0, 1, transform_pipeline=list(pipeline))
        live = bind_instances(graph, REGISTRY, None, given)
        live.evaluate(context(0, 1))
        assert given.transform_pipeline == pipeline
        assert given.transforms_already_combined is False
        assert set(vars(graph)) == {"type", "node", "children", "config"}
    assert not hasattr(SLOW.options["on"], "_state_identity")


def test_bindings_of_one_graph_share_nothing(evaluator: ModuleType) -> None:
    before = rotation("smooth", feature("price"), 3)
    graph = rotation("smooth", feature("price"), 3)
    one = bind_instances(graph, REGISTRY)
    graph.children = [feature("volume"), *graph.children[1:]]
    other = bind_instances(graph, REGISTRY)
    one.evaluate(context(0, 3))
    assert (one.instances["root"].count, other.instances["root"].count) == (3, 0)
    same_bits(one.evaluate(context(3, 4)).weights, history(evaluator, before, 4).weights[3:])


def test_contexts_of_ticks_may_still_hold_the_pipeline() -> None:
    whole = history(expression_evaluator, BARE, 12, [SLOW])
    live = bind_instances(BARE, REGISTRY, None, context(transform_pipeline=[SLOW]))
    ticks = [
        live.evaluate(context(day, day + 1, transform_pipeline=[SLOW])).weights for day in range(12)
    ]
    same_bits(np.vstack(ticks), whole.weights)


def test_a_graph_that_is_merged_already_stays_as_it_is() -> None:
    given = context(transform_pipeline=[SLOW], transforms_already_combined=True)
    live = bind_instances(BARE, REGISTRY, None, given)
    assert draw_tree(live.graph) == draw_tree(BARE)


def test_a_pipeline_without_a_chosen_option_keeps_the_state_keys() -> None:
    off = context(transform_pipeline=[SLOW], metaparameters={"slow": "off"})
    live = bind_instances(BARE, REGISTRY, None, off)
    assert all(path == key for path, key in live.state_keys.items())


def test_ticks_may_do_without_a_registry() -> None:
    scaled = rotation("latitudinal_scale", rotation("smooth", feature("price"), 2), 2.0)
    whole = history(expression_evaluator, scaled, 5)
    live = bind_instances(scaled, REGISTRY)
    ticks = [live.evaluate(context(day, day + 1, registry=None)).weights for day in range(5)]
    same_bits(np.vstack(ticks), whole.weights)


def test_an_altered_graph_is_read_anew() -> None:
    graph = rotation("numerical_negate", feature("price"))
    bind_instances(graph, REGISTRY).evaluate(context(0, 1))
    graph.children = [feature("volume")]
    same_bits(bind_instances(graph, REGISTRY).evaluate(context(0, 1)).weights, -VOLUME[:1])


def test_stage_arrays_are_read_like_features() -> None:
    graph = rotation("smooth", rotation("numerical_divide", feature("price"), feature("risk")), 2)
    whole = history(expression_evaluator, graph, 6)
    live = bind_instances(graph, REGISTRY)
    ticks = [live.evaluate(context(day, day + 1)).weights for day in range(6)]
    same_bits(np.vstack(ticks), whole.weights)


def test_marks_of_missing_data_reach_the_run() -> None:
    graph = rotation("numerical_negate", feature("price"))
    result = bind_instances(graph, REGISTRY).evaluate(context(0, 1), data_nan_features={"price"})
    assert result.nan_source == {"root.c0": "data_nan", "root": "data_nan"}


@pytest.mark.parametrize(
    "graph", [feature("price"), rotation("latitudinal_rank", feature("price"))]
)
def test_graphs_of_the_fast_roads(graph: FunctionGraphNode) -> None:
    bare: dict[str, Any] = {"useful_signals": {}, "metaparameters": {}}
    live = bind_instances(graph, REGISTRY, {})
    for day in range(5):
        given = expression_evaluator.EvaluationContext(
            (PRICE[day : day + 1],), {"price": 0}, **bare
        )
        whole = expression_evaluator.EvaluationContext((PRICE[: day + 1],), {"price": 0}, **bare)
        same_bits(
            live.evaluate(given).weights, expression_evaluator.evaluate(graph, whole).weights[-1:]
        )


def test_a_long_run_goes_on_from_the_instances() -> None:
    """The road for such runs would compute it without them, from nothing."""
    rows = np.random.default_rng(2).normal(size=(100_000, 1))
    graph = rotation("longitudinal_mean", feature("x"), 3)
    live = bind_instances(graph, REGISTRY)
    live.instances["root"](np.array([1.0]))
    live.instances["root"](np.array([2.0]))
    live.warmup_rows = 0
    weights = live.evaluate(
        expression_evaluator.EvaluationContext((rows,), {"x": 0}, registry=REGISTRY)
    ).weights
    assert weights[0, 0] == (1.0 + 2.0 + rows[0, 0]) / 3
    assert live.states()["root"].state_data["count"] == 100_002


def test_an_instance_without_arity_gets_its_operands_alone() -> None:
    assert not hasattr(Smooth, "arity")
    live = bind_instances(rotation("smooth", feature("price"), 3), REGISTRY)
    same_bits(live.evaluate(context(0, 1)).weights, np.full((1, N), np.nan))
    assert live.instances["root"].count == 1


class Sealed:
    __slots__ = ()
    stateful = False

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row


def test_an_instance_that_takes_no_arity_is_named() -> None:
    registry = RecordingRegistry(factories={"sealed": lambda **config: Sealed()})
    with pytest.raises(FunctionExecutionError) as caught:
        bind_instances(rotation("sealed", feature("x"), 3), registry)
    assert str(caught.value) == (
        "Function 'sealed' at node 'root' can't be bound: give Sealed an attribute 'arity'; "
        "without one, its literals would reach it as rows"
    )


def test_states_that_do_not_fit_are_named() -> None:
    states = history(expression_evaluator, BARE, 5, [SLOW]).states
    states["root.c7"] = states.pop("root.c1")
    with pytest.raises(EvaluationError) as caught:
        bind_instances(BARE, REGISTRY, states)
    assert str(caught.value) == (
        "The states don't fit the graph: no state for 'root.c1' (weighted_by_pnl); "
        "no function for the states 'root.c7', 'slow.root'"
    )
    with pytest.raises(EvaluationError) as caught:
        bind_instances(BARE, REGISTRY, {})
    assert str(caught.value) == (
        "The states don't fit the graph: no state for 'root.c0.c0' (smooth), "
        "'root.c1' (weighted_by_pnl)"
    )


def test_a_state_without_data_begins_anew() -> None:
    live = bind_instances(rotation("smooth", feature("price"), 3), REGISTRY, {"root": {}})
    assert live.instances["root"].count == 0
    assert live.warmup_rows == 2


def test_errors_are_those_of_a_run() -> None:
    with pytest.raises(FunctionExecutionError, match="Function 'smooht' at node 'root' is not"):
        bind_instances(rotation("smooht", feature("price"), 3), REGISTRY)
    with pytest.raises(FunctionExecutionError, match="unknown parameter"):
        bind_instances(rotation("numerical_negate", feature("price"), 3), REGISTRY)
    with pytest.raises(FunctionExecutionError, match="saved with window 3, configured with 4"):
        bind_instances(
            rotation("longitudinal_mean", feature("price"), 4),
            REGISTRY,
            {"root": {"count": 0, "window": 3, "buffer": []}},
        )


def test_a_registry_gets_what_a_run_gives_it() -> None:
    schema = [{"name": "k", "type": "float"}, {"type": "string"}]
    registry = RecordingRegistry({"f": entry(param_schema=schema)}, {"g": None})
    graph = rotation("f", rotation("g", feature("x"), 4, boolean(True)), 0.5, "net", 7)
    state = {"count": 3}
    bind_instances(graph, registry, {"root": state, "root.c0": {}})
    made = [call for call in registry.calls if call[0].startswith("create")]
    assert made == [
        ("create_instance", "g", None, {"window": 4, "invert": True}),
        ("create_instance_from_state", "f", state, {"k": 0.5, "param_1": "net", "window": 7}),
    ]


def test_a_registry_with_typed_states_gets_its_own() -> None:
    registry = TypedStateRegistry({"f": entry(function_version=3)}, {"f": None})
    bind_instances(rotation("f", feature("x")), registry, {"root": {"count": 3}})
    (made,) = [call for call in registry.calls if call[0] == "create_instance_from_state"]
    assert made[2] == TypedState("f", 3, {"count": 3})


def test_nodes_that_stand_twice_get_an_instance_each() -> None:
    mean = rotation("longitudinal_mean", feature("price"), 3)
    graph = rotation("numerical_add", mean, rotation("longitudinal_delta", mean, 1))
    whole = history(expression_evaluator, graph, T, [SLOW])
    states = history(expression_evaluator, graph, 9, [SLOW]).states
    live = bind_instances(graph, REGISTRY, states, context(transform_pipeline=[SLOW]))
    assert live.instances["root.c0.c0"] is not live.instances["root.c0.c1.c0"]
    ticks = [live.evaluate(context(day, day + 1)).weights for day in range(9, T)]
    same_bits(np.vstack(ticks), whole.weights[9:])


GATED = rotation(
    "longitudinal_sum",
    reduction("weighted_by_vol", filtration("not_", condition("lt", "sharpe", 0.5)), 9),
    4,
)


@pytest.mark.parametrize(
    ("graph", "rows"),
    [
        (feature("price"), 0),
        (BARE, 4),
        (GATED, 3),
        (rotation("numerical_negate", GATED.children[0]), 8),
        (rotation("longitudinal_sum", rotation("longitudinal_mean", feature("price"), 5), 10), 13),
        (rotation("longitudinal_sum", feature("price"), config={"window": 5}), 0),
        (rotation("unknown", rotation("smooth", feature("price"), 7), 9), 6),
    ],
)
def test_warmup_rows(graph: FunctionGraphNode, rows: int) -> None:
    assert warmup_rows(graph, REGISTRY) == rows
    assert expression_evaluator._compute_graph_warmup_rows(graph, REGISTRY) == rows


def test_a_cold_start_tops_up_bound_reductions() -> None:
    graph = reduction("weighted_by_pnl", filtration("gt", "sharpe", 0.5), 4)
    states = history(expression_evaluator, graph, 2).states
    live = bind_instances(graph, REGISTRY, states)
    options = {"function_states": states, "is_cold_start": True}
    unbound = expression_evaluator.evaluate(graph, context(2, 3), **options)
    bound = expression_evaluator.evaluate(
        live.graph, context(2, 3), **options, bound_function_instances=live.instances
    )
    assert bound.states["root"].state_data["count"] == 4
    assert repr(bound.states) == repr(unbound.states)
