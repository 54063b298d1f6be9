"""Every fault of a graph, each with its path and the nearest known name."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.functions.filtrations_evaluation import OPERATORS
from quernbrook.reference_host import (
    Fault,
    FunctionEntry,
    Parameter,
    bind_instances,
    check_graph,
    default_registry,
)
from quernbrook.reference_host.graphs import (
    aggregation,
    boolean,
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
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import (
    FILTRATION_NODE_TYPES,
    EvaluationContext,
    evaluate,
)

T, N = 30, 3
PRICE = np.random.default_rng(3).normal(size=(T, N))
SIGNALS = {
    sid: UsefulSignal(PRICE, PRICE, {"sharpe": sharpe, "class": "equity"})
    for sid, sharpe in (("carry", 0.9), ("momentum", 1.2))
}
X = feature("price")


class Best:
    """A reduction that the evaluator never calls, for it isn't stateful."""

    stateful = False

    def __call__(self, block: np.ndarray, signal_pnl: np.ndarray) -> np.ndarray:
        return block[0]


class Plain:
    """A rotation that tells no arity."""

    stateful = False

    def __call__(self, row: np.ndarray, other: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row + other


class Undecided:
    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row


class Broken:
    stateful = False
    arity = 1

    def __init__(self) -> None:
        raise OSError("no model file")


class Forgetful:
    stateful = True
    arity = 1

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        return row


REGISTRY = default_registry()
for entry in (
    FunctionEntry("best", "mine", Best),
    FunctionEntry("plain", "mine", Plain),
    FunctionEntry("undecided", "mine", Undecided),
    FunctionEntry("broken", "mine", Broken),
    FunctionEntry("forgetful", "mine", lambda: Forgetful()),
    FunctionEntry(
        "band",
        "mine",
        lambda low, high: Plain(),
        dict.fromkeys(("low", "high"), Parameter("float")),
    ),
):
    REGISTRY.register(entry)


def context(**arguments: Any) -> Any:
    given: dict[str, Any] = {
        "registry": REGISTRY,
        "useful_signals": SIGNALS,
        "column_labels": ["gross_returns", "net_returns", "cost"],
        "stage_data": StageData({"risk": PRICE, "beta": PRICE[0]}),
    }
    features = arguments.pop("features", (PRICE, PRICE))
    return EvaluationContext(features, {"price": 0, "volume": 1}, **{**given, **arguments})


def found(graph: Any, arguments: dict[str, Any] | None = None, **settings: Any) -> list[str]:
    return [
        str(fault)
        for fault in check_graph(graph, REGISTRY, context(**settings), **(arguments or {}))
    ]


SOUND = [
    X,
    number(2),
    integer(3),
    boolean(True),
    feature("risk"),
    rotation("numerical_add", X, 1.0),
    rotation("longitudinal_mean", aggregation("volume"), 30),
    rotation("latitudinal_scale", X, config={"total": 2}),
    rotation("plain", X, 1.5),
    rotation(
        "numerical_add", rotation("longitudinal_mean", X, 20), rotation("latitudinal_rank", X)
    ),
    reduction("reduction_mean"),
    reduction("reduction_mean", filtration("filtration")),
    reduction("weighted_by_vol", filtration("top_n", "sharpe", 1), 5, "downside_vol", "cost", True),
    reduction(
        "weighted_by_pnl",
        filtration("and_", condition("gt", "sharpe", 0.5), condition("eq", "class", "equity")),
        4,
    ),
    reduction("reduction_mean", filtration("filtration", condition("in_", "class", "a", "equity"))),
    reduction("reduction_mean", filtration("between", "sharpe", 0.0, 1.0)),
    reduction("reduction_mean", filtration("bottom_pct", "sharpe", 0.5)),
]


@pytest.mark.parametrize("graph", SOUND)
def test_sound_graphs_have_no_fault_and_run(graph: Node) -> None:
    assert found(graph) == []
    evaluate(graph, context())


FAULTY: dict[str, list[tuple[Any, list[str]]]] = {
    "kinds": [
        (
            Node("rotatoin", "latitudinal_rank", [X]),
            ["root: unknown kind 'rotatoin', which gives zeros; did you mean 'rotation'?"],
        ),
        (
            rotation("latitudinal_rank", Node("Feature", "price")),
            ["root.c0: unknown kind 'Feature', which gives zeros; did you mean 'feature'?"],
        ),
        (Node("zz", 1), ["root: unknown kind 'zz', which gives zeros"]),
        (string("net"), ["root: a text has no row to give; here it gives zeros"]),
        (
            rotation("latitudinal_rank", filtration("top_n", "sharpe", 1)),
            ["root.c0: a filtration belongs below a reduction; here it gives zeros"],
        ),
        (
            rotation("latitudinal_rank", signal()),
            ["root.c0: a 'signal' belongs into the template of a transform stage"],
        ),
        (
            Node("feature", "price", [number(1.0)]),
            ["root: a node of kind 'feature' takes no children; it has 1"],
        ),
        (
            Node("feature", "price", config={"lag": 1}),
            ["root: config is never read in a node of kind 'feature'"],
        ),
    ],
    "literals": [
        (
            rotation("numerical_add", X, number("1")),
            ["root.c1: a literal of kind 'float' can't be '1'"],
        ),
        (number(True), ["root: a literal of kind 'float' can't be True"]),
        (integer(2.0), ["root: a literal of kind 'int' can't be 2.0"]),
        (boolean(1), ["root: a literal of kind 'bool' can't be 1"]),
    ],
    "trees": [
        ({"type": "feature"}, ["root: a node must be a FunctionGraphNode; got dict"]),
        (
            rotation("numerical_add", X, number(1.0)).__class__(
                "rotation", "numerical_add", [X, None]
            ),
            ["root.c1: a node must be a FunctionGraphNode; got NoneType"],
        ),
        (
            Node("rotation", "latitudinal_rank", X),
            ["root: children must be a sequence of nodes; got FunctionGraphNode"],
        ),
        (
            Node("rotation", "latitudinal_rank", "price"),
            ["root: children must be a sequence of nodes; got str"],
        ),
        (
            Node("rotation", "latitudinal_rank", [X], ["total"]),
            ["root: config must be a mapping or None; got ['total']"],
        ),
        (Node(["feature"], "price"), ["root: the kind of a node must be a text; got ['feature']"]),
        (Node("feature", ["price"]), ["root: the name of a feature must be a text; got ['price']"]),
        (
            Node("rotation", None, [X]),
            ["root: the name of a rotation must be a text; got None"],
        ),
    ],
    "features": [
        (
            rotation("latitudinal_rank", feature("prise")),
            ["root.c0: the context has no feature 'prise'; did you mean 'price'?"],
        ),
        (aggregation("PRICE"), ["root: the context has no feature 'PRICE'; did you mean 'price'?"]),
        (feature("rsik"), ["root: the context has no feature 'rsik'; did you mean 'risk'?"]),
        (feature("zz"), ["root: the context has no feature 'zz'"]),
        (feature("beta"), ["root: 'beta' of the stage data is no array of two dimensions"]),
    ],
    "functions": [
        (
            rotation("longitudinal_maen", X, 3),
            [
                "root: the registry has no function 'longitudinal_maen'; "
                "did you mean 'longitudinal_mean'?"
            ],
        ),
        (
            rotation("weighted_by_pnl", X, 3),
            [
                "root: 'weighted_by_pnl' can't be called as a rotation, with 1 row(s): "
                "missing a required argument: 'signal_pnl'"
            ],
        ),
        (
            reduction("latitudinal_rank"),
            [
                "root: 'latitudinal_rank' can't be called as a reduction: "
                "got an unexpected keyword argument 'signal_pnl'"
            ],
        ),
        (
            reduction("best"),
            [
                "root: 'best' isn't stateful: as a reduction it is the plain mean, and its "
                "instance is never called"
            ],
        ),
        (
            rotation("undecided", X),
            ["root: an instance of 'undecided' has no attribute 'stateful'"],
        ),
        (rotation("broken", X), ["root: no model file"]),
        (
            rotation("forgetful", X),
            [
                "root: 'forgetful' is registered with stateful=False, but its instance has "
                "stateful=True",
                "root: an instance of 'forgetful' has no attribute 'get_state'",
                "root: an instance of 'forgetful' has no attribute 'restore'",
            ],
        ),
    ],
    "configuration": [
        (
            rotation("longitudinal_mean", X, config={"widnow": 3}),
            ["root: 'longitudinal_mean' has no parameter 'widnow'; did you mean 'window'?"],
        ),
        (
            rotation("longitudinal_mean", X),
            ["root: 'longitudinal_mean' lacks its parameter 'window' (int)"],
        ),
        (
            rotation("band", X, X),
            [
                "root: 'band' lacks its parameter 'low' (float)",
                "root: 'band' lacks its parameter 'high' (float)",
            ],
        ),
        (
            rotation("longitudinal_mean", X, 3.0),
            ["root.c1: parameter 'window' of 'longitudinal_mean' must be int; got 3.0"],
        ),
        (
            rotation("longitudinal_mean", X, config={"window": "3"}),
            ["root: parameter 'window' of 'longitudinal_mean' must be int; got '3'"],
        ),
        (
            rotation("longitudinal_mean", X, 0),
            ["root: Function 'longitudinal_mean': window must be at least 1; got 0"],
        ),
        (
            rotation("latitudinal_rank", X, config={"A": 1, "N_alloc": 2}),
            [
                "root: 'A' is the engine's own; no graph may set it",
                "root: 'N_alloc' is the engine's own; no graph may set it",
            ],
        ),
        (
            Node("rotation", "latitudinal_rank", [X], {1: 2}),
            ["root: the name of a parameter must be a text; got 1"],
        ),
        (
            rotation("numerical_add", X, 1),
            [
                "root.c1: 'numerical_add' has no parameter for this int, which would become "
                "'window'; write a float for a row of numbers",
                "root: 'numerical_add' takes 2 operand(s); it has 1",
            ],
        ),
        (
            rotation("latitudinal_rank", X, True, "net"),
            [
                "root.c1: 'latitudinal_rank' has no parameter for this bool, which would become "
                "'invert'",
                "root.c2: 'latitudinal_rank' has no parameter for this string, which would become "
                "'pnl_column'",
            ],
        ),
        (
            rotation("longitudinal_mean", X, 5, 7),
            ["root.c1: this int is dropped: another one takes its place"],
        ),
        (
            reduction("weighted_by_pnl", 3, "gross_returns", True, "cost", "net_returns"),
            [
                "root.c1: this string is dropped: another one takes its place",
                "root.c4: this string is dropped: another one takes its place",
            ],
        ),
        (
            reduction("weighted_by_vol", 3, "volatility"),
            [
                "root: Function 'weighted_by_vol': unknown stat_name 'volatility'; known: vol, "
                "downside_vol"
            ],
        ),
    ],
    "arity": [
        (rotation("numerical_add", X), ["root: 'numerical_add' takes 2 operand(s); it has 1"]),
        (
            rotation("longitudinal_mean", X, 3, 2.0),
            ["root: 'longitudinal_mean' takes 1 operand(s); it has 2"],
        ),
        (
            rotation("plain", X),
            [
                "root: 'plain' can't be called as a rotation, with 1 row(s): "
                "missing a required argument: 'other'"
            ],
        ),
    ],
    "filters": [
        (
            reduction("reduction_mean", condition("top_n", "sharpe", 1)),
            [
                "root.c0: filter 'top_n' stands outside a filtration and filters nothing; "
                "did you mean 'filtration'?"
            ],
        ),
        (
            reduction("reduction_mean", Node("filtraton", "filtration")),
            [
                "root.c0: unknown kind 'filtraton', which filters nothing; "
                "did you mean 'filtration'?"
            ],
        ),
        (
            reduction(
                "reduction_mean",
                filtration("filtration", Node("top_m", "top_n", [string("sharpe")])),
            ),
            ["root.c0.c0: unknown kind 'top_m', which filters nothing; did you mean 'top_n'?"],
        ),
        (
            reduction("reduction_mean", filtration("to_n", "sharpe", 1)),
            ["root.c0: unknown filter 'to_n'; did you mean 'top_n'?"],
        ),
        (
            reduction(
                "reduction_mean",
                filtration("filtration", Node("gt", "lt", [string("sharpe"), number(1.0)])),
            ),
            ["root.c0.c0: the kind of this filter is 'gt', its operator 'lt'"],
        ),
        (
            reduction("reduction_mean", filtration("top_n", "sharpe", 2.0)),
            [
                "root.c0.c1: filter 'top_n' passes over this float",
                "root.c0: filter 'top_n' lacks n",
            ],
        ),
        (
            reduction("reduction_mean", filtration("gt", "sharpe", 0.5, 3, "class", True, X)),
            [
                "root.c0.c2: filter 'gt' passes over this int",
                "root.c0.c3: filter 'gt' passes over this string",
                "root.c0.c4: filter 'gt' passes over this bool",
                "root.c0.c5: filter 'gt' passes over this feature",
            ],
        ),
        (
            reduction("reduction_mean", filtration("between", "sharpe", 2.0, 1.0)),
            ["root.c0: filter 'between' needs low <= high; got 2.0 and 1.0"],
        ),
        (
            reduction("reduction_mean", filtration("not_")),
            ["root.c0: filter 'not_' takes exactly one filter; got 0"],
        ),
        (
            reduction("reduction_mean", filtration("gt", "sharp", 0.5)),
            [
                "root.c0.c0: 2 of 2 signals have no field 'sharp', first 'carry'; "
                "did you mean 'sharpe'?"
            ],
        ),
        (
            reduction("reduction_mean", filtration("gt", "sharpe", 9.0)),
            ["root.c0: none of 2 signals passes gt(sharpe, 9.0)"],
        ),
        (
            reduction("reduction_mean", filtration("gt", "class", 9.0)),
            [
                "root.c0: filter gt(class, 9.0): '>' not supported between instances of 'str' "
                "and 'float'"
            ],
        ),
        (
            reduction("reduction_mean", filtration("filtration"), filtration("filtration")),
            ["root.c1: a reduction takes one filtration; this one would be mixed in"],
        ),
        (
            reduction("weighted_by_pnl", X, 3),
            [
                "root.c0: a reduction gets signals alone; this feature never reaches 'weighted_by_pnl'"
            ],
        ),
        (
            reduction("weighted_by_pnl", 3, config={"pnl_column": "net_return"}),
            ["root: column_labels has no PnL column 'net_return'; did you mean 'net_returns'?"],
        ),
        (
            reduction("weighted_by_pnl", 3, "costs"),
            ["root.c1: column_labels has no PnL column 'costs'; did you mean 'cost'?"],
        ),
    ],
    "windows": [
        (
            rotation("longitudinal_mean", X, 31),
            ["root: 'longitudinal_mean' is full after 31 rows; the history has 30"],
        ),
        (
            rotation("longitudinal_mean", X, config={"window": 31}),
            ["root: 'longitudinal_mean' is full after 31 rows; the history has 30"],
        ),
        (
            rotation(
                "latitudinal_rank",
                rotation("longitudinal_mean", rotation("longitudinal_std", X, 16), 16),
            ),
            ["root.c0: 'longitudinal_mean' is full after 31 rows; the history has 30"],
        ),
        (
            rotation("longitudinal_sum", rotation("longitudinal_mean", X, 100), 100),
            ["root.c0: 'longitudinal_mean' is full after 100 rows; the history has 30"],
        ),
    ],
}


@pytest.mark.parametrize(
    ("graph", "faults"),
    [case for cases in FAULTY.values() for case in cases],
    ids=[f"{about}{i}" for about, cases in FAULTY.items() for i in range(len(cases))],
)
def test_each_fault_alone(graph: Any, faults: list[str]) -> None:
    assert found(graph) == faults


def test_all_faults_at_once_in_the_order_of_the_nodes() -> None:
    graph = rotation(
        "numerical_ad",
        Node("rotatoin", "latitudinal_rank", [feature("prise")]),
        rotation("longitudinal_mean", feature("volum"), config={"windw": 3}),
        reduction("weighted_by_sharp", condition("top_n", "sharpe", 3), 300),
        config={"N_alloc": 4},
    )
    assert found(graph, {"data_nan_features": ["pricee"]}) == [
        "root: the registry has no function 'numerical_ad'; did you mean 'numerical_add'?",
        "root.c0: unknown kind 'rotatoin', which gives zeros; did you mean 'rotation'?",
        "root.c0.c0: the context has no feature 'prise'; did you mean 'price'?",
        "root.c1: 'longitudinal_mean' has no parameter 'windw'; did you mean 'window'?",
        "root.c1.c0: the context has no feature 'volum'; did you mean 'volume'?",
        "root.c2: the registry has no function 'weighted_by_sharp'; "
        "did you mean 'weighted_by_sharpe'?",
        "root.c2.c0: filter 'top_n' stands outside a filtration and filters nothing; "
        "did you mean 'filtration'?",
        "data_nan_features: the graph reads no feature 'pricee'; did you mean 'prise'?",
    ]


def test_faults_can_be_told_apart() -> None:
    (fault,) = check_graph(feature("prise"), REGISTRY, context())
    assert fault == Fault("root", "the context has no feature 'prise'", "price")


def test_a_reduction_without_signals() -> None:
    graph = reduction("reduction_mean", filtration("top_n", "sharpe", 1))
    assert found(graph, useful_signals={}) == [
        "root: the context has no useful_signals for 'reduction_mean'"
    ]


def test_pnl_columns_of_vectors() -> None:
    graph = reduction("weighted_by_pnl", 3, "cots")
    vectors = {"carry": {"cost": 1.0}, "momentum": {"net": 2.0}}
    assert found(graph, signal_pnl_vectors=vectors) == [
        "root.c1: signal_pnl_vectors has no PnL column 'cots'; did you mean 'cost'?"
    ]
    assert found(graph, signal_pnl_vectors={}) == []
    assert found(graph, column_labels=[]) == []


def test_a_context_without_features() -> None:
    empty = EvaluationContext((), {}, registry=REGISTRY)
    assert [str(fault) for fault in check_graph(number(1.0), REGISTRY, empty)] == [
        "features: the context has no features"
    ]


def test_a_graph_that_contains_itself() -> None:
    graph = rotation("numerical_add", X, X)
    graph.children = [X, rotation("latitudinal_rank", graph)]
    assert found(graph) == ["root.c1.c0: the node stands below itself: it is also 'root'"]


def test_a_node_that_lost_an_attribute() -> None:
    node = feature("price")
    del node.children, node.config
    assert found(rotation("latitudinal_rank", node)) == [
        "root.c0: the node has no attribute children, config"
    ]


# --- stages --------------------------------------------------------------------------------------

SMOOTH = TransformStage(
    "smooth", "on", {"on": rotation("longitudinal_mean", signal(), 5), "off": None}
)
HEDGE = TransformStage("hedge", None, {"half": rotation("numerical_multiply", signal(), 0.5)})


def staged(*stages: TransformStage, graph: Any = X, **settings: Any) -> list[str]:
    return found(graph, transform_pipeline=list(stages), **settings)


def test_sound_stages() -> None:
    options = {"smooth": "off", "cautious": {"hedge": "half"}, "other": {"smooth": None}}
    assert staged(SMOOTH, HEDGE, metaparameters=options, pool_id="cautious") == []


@pytest.mark.parametrize(
    ("template", "faults"),
    [
        (
            rotation("longitudinal_mean", X, 5),
            ["smooth[on].root: the template has no 'signal' node: the stage would drop the signal"],
        ),
        (
            rotation("longitudinal_mean", Node("singal", "singal"), 5),
            [
                "smooth[on].root.c0: unknown kind 'singal', which gives zeros; "
                "did you mean 'signal'?",
                "smooth[on].root: the template has no 'signal' node: the stage would drop the signal",
            ],
        ),
        (
            rotation("longitudinal_meen", signal(), 5),
            [
                "smooth[on].root: the registry has no function 'longitudinal_meen'; "
                "did you mean 'longitudinal_mean'?"
            ],
        ),
        ("on", ["smooth[on].root: a node must be a FunctionGraphNode; got str"]),
        (
            rotation("longitudinal_mean", signal(), 50),
            ["smooth.root: 'longitudinal_mean' is full after 50 rows; the history has 30"],
        ),
        (
            Node("signal", "signal", [X]),
            ["smooth[on].root: a node of kind 'signal' takes no children; it has 1"],
        ),
    ],
)
def test_faulty_templates(template: Any, faults: list[str]) -> None:
    assert staged(TransformStage("smooth", "on", {"on": template})) == faults


@pytest.mark.parametrize(
    ("options", "fault"),
    [
        (
            {"smoth": "on"},
            "metaparameters['smoth']: there is no stage 'smoth'; did you mean 'smooth'?",
        ),
        (
            {"smooth": "onn"},
            "metaparameters['smooth']: stage 'smooth' has no option 'onn'; options: off, on; "
            "did you mean 'on'?",
        ),
        (
            {"pool": {"hegde": "half"}},
            "metaparameters['pool']['hegde']: there is no stage 'hegde'; did you mean 'hedge'?",
        ),
        (
            {"pool": {"hedge": "halve"}},
            "metaparameters['pool']['hedge']: stage 'hedge' has no option 'halve'; options: half; "
            "did you mean 'half'?",
        ),
        (
            {"pool": "on"},
            "metaparameters['pool']: the options of a pool must be a mapping; got 'on'",
        ),
        (
            {"smooth": {"on": 1}},
            "metaparameters['smooth']: stage 'smooth' has no option {'on': 1}; options: off, on",
        ),
    ],
)
def test_misspelt_metaparameters(options: dict[str, Any], fault: str) -> None:
    assert staged(SMOOTH, HEDGE, metaparameters=options, pool_id="pool") == [fault]


def test_a_literal_is_no_signal() -> None:
    assert staged(SMOOTH, graph=integer(3)) == [
        "root: a literal can't be a pipeline's signal: the functions of its stages would take this "
        "int for a parameter"
    ]
    assert staged(graph=integer(3)) == []


def test_other_faults_of_a_pipeline() -> None:
    wrong = TransformStage("smooth", "onn", {})
    assert staged(SMOOTH, wrong) == [
        "transform_pipeline: 2 stages have the name 'smooth'",
        "default of stage 'smooth': stage 'smooth' has no option 'onn'; options: none",
    ]


def test_a_pipeline_that_is_not_merged_is_not_checked() -> None:
    wrong = TransformStage("smooth", "onn", {})
    assert staged(wrong, transforms_already_combined=True, metaparameters={"zz": "on"}) == []
    assert staged(metaparameters={"zz": "on"}) == []


# --- other arguments -----------------------------------------------------------------------------

MEAN = rotation("longitudinal_mean", X, 5)


def test_surplus_and_missing_bound_keys() -> None:
    graph = rotation("numerical_negate", MEAN)
    bound = {"root": object(), "root.c0.c0": object(), "rot": object(), "root.c0": None}
    assert found(graph, {"bound_function_instances": bound}) == [
        "bound_function_instances: bound, but a feature stands at 'root.c0.c0' of the merged "
        "graph, no function; did you mean 'root.c0'?",
        "bound_function_instances: bound, but nothing stands at 'rot' of the merged graph, no "
        "function; did you mean 'root'?",
        "bound_function_instances: the instance for 'root.c0' of the merged graph "
        "(longitudinal_mean) is None",
    ]
    assert found(graph, {"bound_function_instances": {}}) == [
        "bound_function_instances: no instance for 'root.c0' of the merged graph "
        "(longitudinal_mean)",
        "bound_function_instances: no instance for 'root' of the merged graph (numerical_negate)",
    ]


def test_bound_keys_are_paths_of_the_merged_graph() -> None:
    pipeline = [SMOOTH]
    live = bind_instances(MEAN, REGISTRY, None, context(transform_pipeline=pipeline))
    arguments = {"bound_function_instances": live.instances}
    assert found(MEAN, arguments, transform_pipeline=pipeline) == []
    assert found(live.graph, arguments) == []
    assert len(found(MEAN, arguments)) == 1


def test_state_keys() -> None:
    graph = rotation("numerical_negate", MEAN)
    assert found(graph, {"function_states": {"root.c0": {}}}) == []
    assert found(graph, {"function_states": {"root.c1": {}}}) == [
        "function_states: no function of the graph has the key 'root.c1'; did you mean 'root.c0'?",
        "function_states: no state for 'root.c0' (longitudinal_mean)",
    ]
    states = {"root.c0": {}, "smooth.root": {}}
    assert found(graph, {"function_states": states}, transform_pipeline=[SMOOTH]) == []


def test_windows_of_a_continued_run_have_seen_other_rows() -> None:
    tick = {"features": (PRICE[:1], PRICE[:1]), "useful_signals": {}}
    assert len(found(MEAN, None, **tick)) == 1
    assert found(MEAN, {"function_states": {"root": {}}}, **tick) == []
    assert found(MEAN, {"bound_function_instances": {"root": object()}}, **tick) == []


def test_features_that_are_named_missing() -> None:
    assert found(MEAN, {"data_nan_features": {"price"}}) == []
    assert found(MEAN, {"data_nan_features": ["prices"]}) == [
        "data_nan_features: the graph reads no feature 'prices'; did you mean 'price'?"
    ]


def test_nothing_is_changed() -> None:
    graph = rotation("numerical_negate", MEAN)
    given = context(transform_pipeline=[SMOOTH])
    before = dict(vars(given))
    check_graph(graph, REGISTRY, given)
    assert vars(given) == before
    assert set(vars(graph)) == {"type", "node", "children", "config"}
    assert set(vars(MEAN)) == {"type", "node", "children", "config"}


def test_operators_are_those_of_the_evaluator() -> None:
    assert OPERATORS == FILTRATION_NODE_TYPES
