"""Runs of every kind, good and failing, for tests that repeat them many times.

A road is a function of the evaluator that prepares everything long-lived and returns a function
that runs once. What a run raises is dropped by whoever repeats it.
"""

from __future__ import annotations

import pickle
from collections.abc import Callable
from types import ModuleType
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import StageData
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from support.functions import raising
from support.graphs import (
    aggregation,
    boolean,
    feature,
    filtration,
    integer,
    node,
    number,
    reduction,
    rotation,
    string,
)
from support.registries import RecordingRegistry, entry
from support.runs import counting_matrix, make_context
from support.typed_registry import TypedStateRegistry

Run = Callable[[], Any]
Road = Callable[[ModuleType], Run]
ROWS = 3

# Arrays are made with their dtype given: NumPy's own default costs a reference at every call.


class Function:
    """An instance that keeps nothing of its calls."""

    def __init__(self, act: Any = None, *, stateful: bool = False, **attributes: Any) -> None:
        self.act = act
        self.stateful = stateful
        self.__dict__.update(attributes)

    def __call__(self, *rows: Any, **_: Any) -> Any:
        return self.act(*rows) if callable(self.act) else rows[0]

    def get_state(self) -> Any:
        return {"count": 1}


class Registry(RecordingRegistry):
    def _log(self, *_: Any) -> None:
        pass

    def _create(self, name: str, config: dict[str, Any]) -> Any:
        return self.factories[name](**config)


class TypedRegistry(Registry, TypedStateRegistry):
    pass


TypedRegistry.__module__ = TypedStateRegistry.__module__


def registry_of(kind: type[Registry] = Registry, **factories: Any) -> Registry:
    entries = {name: entry(stateful=True, param_schema=None) for name in factories}
    return kind(entries, factories)


def evaluating(
    graph: Any,
    *,
    features: dict[str, Any] | None = None,
    states: Any = None,
    bound: Any = None,
    attributes: dict[str, Any] | None = None,
    cold: bool = False,
    nan_features: Any = ("unused",),
    before: Callable[[Any], None] | None = None,
    **options: Any,
) -> Road:
    """The road that evaluates one graph on one context again and again.

    `before` gives the context back what a run takes from it.
    """

    def prepare(evaluator: ModuleType) -> Run:
        matrices = {"a": counting_matrix(ROWS)} if features is None else features
        context = make_context(evaluator, matrices, validate_inputs=False, **options)
        for name, value in (attributes or {}).items():
            setattr(context, name, value)

        def run() -> Any:
            if before is not None:
                before(context)
            return evaluator.evaluate(
                graph,
                context,
                states,
                cold,
                bound_function_instances=bound,
                data_nan_features=nan_features,
            )

        return run

    return prepare


def at_few_rows(road: Road) -> Road:
    """The road with the longitudinal statistics open to matrices of any length."""

    def prepare(evaluator: ModuleType) -> Run:
        inner = road(evaluator)

        def run() -> Any:
            namespace = vars(evaluator)
            limit = namespace["_LONGITUDINAL_FAST_MIN_ROWS"]
            namespace["_LONGITUDINAL_FAST_MIN_ROWS"] = 0
            try:
                return inner()
            finally:
                namespace["_LONGITUDINAL_FAST_MIN_ROWS"] = limit

        return run

    return prepare


def calling(act: Any, *, bound: bool, **attributes: Any) -> Road:
    """The road of one rotation whose instance does `act`."""
    instance = Function(act, **attributes)
    graph = rotation("f", feature("a"), integer(2), number(0.5))
    if bound:
        return evaluating(graph, bound={"root": instance})
    return evaluating(graph, registry=registry_of(f=lambda **_: instance))


def new(kind: type[BaseException], *arguments: Any) -> Any:
    """A callable that raises a new exception at every call."""

    def fail(*_: Any, **__: Any) -> Any:
        raise kind(*arguments)

    return fail


def keeper() -> Any:
    """A function that keeps its arguments until it has three of them."""
    kept: list[Any] = []

    def keep(row: np.ndarray, *_: Any) -> np.ndarray:
        kept.append(row)
        if len(kept) == ROWS:
            kept.clear()
        return row

    return keep


def alternating() -> Any:
    """A function whose results are of another kind in every row."""
    results = [1.0, 2, None, True, [1.0, 2.0, 3.0], np.float32(2), np.arange(6.0)[::2], "1.5"]
    calls = [0]

    def alternate(*_: Any) -> Any:
        calls[0] += 1
        return results[calls[0] % len(results)]

    return alternate


def nested(evaluator: ModuleType) -> Run:
    context = make_context(evaluator, {"a": counting_matrix(ROWS)})
    inner = number(2.0)
    graph = rotation("f", feature("a"))
    act = Function(lambda row: evaluator.evaluate(inner, context).weights[0])
    return lambda: evaluator.evaluate(graph, context, bound_function_instances={"root": act})


def pickled(evaluator: ModuleType) -> Run:
    context = make_context(evaluator, {"a": counting_matrix(ROWS)})

    def run() -> Any:
        # The reference evaluator's class is found under the name of the module that defines it.
        restored = context.__class__.__new__(context.__class__)
        restored.__setstate__(pickle.loads(pickle.dumps(context.__getstate__())))
        return evaluator.evaluate(number(1.0), restored)

    return run


def fresh(evaluator: ModuleType) -> Run:
    """Everything is made anew for each run."""

    def run() -> Any:
        graph = rotation("f", rotation("g", feature("a"), integer(1)), aggregation("a"))
        instances = {"root": Function(keeper()), "root.c0": Function(stateful=True)}
        context = make_context(evaluator, {"a": counting_matrix(ROWS)})
        result = evaluator.evaluate(graph, context, bound_function_instances=instances)
        weights, states = result
        return weights, states, result.shape, np.asarray(result), list(result.node_outputs)

    return run


EVERY_KIND = rotation(
    "f",
    feature("a"),
    aggregation("a"),
    number("1.5"),
    integer(3),
    string("s"),
    boolean(True),
    node("odd", None, [number(1.0)]),
    rotation("f", number(2.0), config={"k": 1}, canonical_id="id"),
)
SIGNALS = {name: UsefulSignal(np.ones((ROWS, 3)), np.ones((ROWS, 2))) for name in "xy"}
CHAIN = rotation("f", rotation("f", feature("a"), integer(2)), integer(2))
FILTERED = filtration("filtration", node("gt", "gt", [string("sharpe"), number(0.5)]))
POOL = {
    name: UsefulSignal(np.ones((ROWS, 3)), np.ones((ROWS, 2)), {"sharpe": sharpe})
    for name, sharpe in (("x", 1.0), ("y", 0.0), ("z", 2.0))
}
STAGE_MATRIX = counting_matrix(ROWS)
STAGES = [
    TransformStage("smooth", "on", {"on": rotation("f", node("signal", None), integer(2))}),
    TransformStage("none", None, {}),
]
STATES = {"root": {"count": 1}, "root.c0": {"count": 2}}
PLAIN = rotation("f", feature("a"))


def a_stage_array(context: Any) -> None:
    context.features = context.features[:1]
    context.feature_index.pop("s", None)


def pending_transforms(context: Any) -> None:
    context.transform_pipeline = list(STAGES)


def functions_registry(**functions: Any) -> Registry:
    """Every function is a new `Function`; reductions are stateful and add their signals up."""
    return registry_of(
        f=lambda **_: Function(stateful=True),
        sum=lambda **_: Function(lambda block: block[0] + block[-1], stateful=True, window=3),
        mean=lambda **_: Function(),
        **functions,
    )


def reducing(graph: Any, **options: Any) -> Road:
    options = {"registry": functions_registry(), "useful_signals": POOL, **options}
    return evaluating(graph, **{"column_labels": ["gross_returns", "net"], **options})


class StubRegistry(Registry):
    """Knows the longitudinal statistics by their entries only."""

    def has_factory(self, name: str) -> bool:
        return False


LONGITUDINAL = ("longitudinal_mean", "longitudinal_std", "longitudinal_zscore")
STUBS = StubRegistry({name: entry(stateful=True, param_schema=None) for name in LONGITUDINAL})
LONGITUDINAL_CHAIN = rotation(
    "longitudinal_zscore",
    rotation(
        "longitudinal_mean", rotation("longitudinal_std", feature("a"), integer(2)), integer(1)
    ),
    integer(2),
)


def rows_as(matrix: Any) -> Road:
    return evaluating(feature("x"), features={"a": counting_matrix(2), "x": matrix})


GOOD_ROADS: dict[str, Road] = {
    "leaf": evaluating(feature("a"), nan_features=None),
    "masked leaf": evaluating(
        feature("a"), nan_features=None, universe=np.array([[1.0, 0.0, np.nan]] * ROWS)
    ),
    "rank": evaluating(rotation("latitudinal_rank", feature("a")), nan_features=None),
    "rank product": evaluating(
        rotation(
            "numerical_multiply",
            rotation("latitudinal_rank", feature("a")),
            rotation("latitudinal_rank", feature("a")),
        ),
        nan_features=None,
    ),
    "literal": evaluating(number(2.0)),
    "every kind, bound": evaluating(
        EVERY_KIND, bound={"root": Function(), "root.c7": Function(arity=1)}
    ),
    "every kind, registry": evaluating(EVERY_KIND, registry=registry_of(f=lambda **_: Function())),
    "universe": evaluating(
        PLAIN, bound={"root": Function()}, universe=np.array([[1.0, 0.0, np.nan]] * ROWS)
    ),
    "marked feature": evaluating(PLAIN, bound={"root": Function()}, nan_features=["a"]),
    "precomputed": evaluating(
        EVERY_KIND,
        bound={"root": Function(), "root.c7": Function()},
        attributes={
            "_precomputed_node_outputs": {"id": [1.0, 2.0, 3.0]},
            "_precomputed_node_nan_source": {"id": "data_nan"},
        },
    ),
    "stateful chain": evaluating(
        CHAIN, registry=registry_of(f=lambda **_: Function(stateful=True))
    ),
    "restored chain": evaluating(
        CHAIN, registry=registry_of(f=lambda **_: Function(stateful=True)), states=STATES
    ),
    "restored into a typed registry": evaluating(
        CHAIN,
        registry=registry_of(TypedRegistry, f=lambda **_: Function(stateful=True)),
        states=STATES,
        cold=True,
    ),
    "reductions": evaluating(
        rotation("f", reduction("mean"), reduction("mean", integer(2))),
        registry=registry_of(
            f=lambda **_: Function(),
            mean=lambda **config: Function(lambda block: block[0], stateful=bool(config)),
        ),
        useful_signals=SIGNALS,
        column_labels=["gross_returns", "net"],
    ),
    "no rows": evaluating(PLAIN, features={"a": np.zeros((0, 2))}, bound={"root": Function()}),
    "single precision": rows_as(counting_matrix(2).astype(np.float32)),
    "objects": rows_as(counting_matrix(2).astype(object)),
    "text": rows_as(np.array([["1", "2", "3"]] * 2)),
    "backwards": rows_as(counting_matrix(2)[::-1, ::-1]),
    "kept arguments, bound": calling(keeper(), bound=True),
    "kept arguments, registry": calling(keeper(), bound=False),
    "results of many kinds, bound": calling(alternating(), bound=True),
    "results of many kinds, registry": calling(alternating(), bound=False),
    "longitudinal": at_few_rows(evaluating(LONGITUDINAL_CHAIN, nan_features=None, registry=STUBS)),
    "longitudinal, masked": at_few_rows(
        evaluating(
            LONGITUDINAL_CHAIN,
            nan_features=None,
            registry=STUBS,
            universe=np.array([[1.0, 0.0, np.nan]] * ROWS),
        )
    ),
    "filtered reductions": reducing(
        rotation("f", reduction("sum", FILTERED), reduction("mean", FILTERED), integer(2))
    ),
    "signal PnL by vector": reducing(
        reduction("sum", FILTERED, config={"pnl_column": "net"}),
        signal_pnl_vectors={"x": {"net": 1.0}, "z": {"other": 2.0}},
    ),
    "cold start": reducing(
        reduction("sum", FILTERED), states={"root": {"count": 1, "window": 3}}, cold=True
    ),
    "stage data": evaluating(
        rotation("f", feature("s")),
        bound={"root": Function()},
        stage_data=StageData({"s": STAGE_MATRIX}),
        before=a_stage_array,
    ),
    "transforms": evaluating(CHAIN, registry=functions_registry(), before=pending_transforms),
    "nested": nested,
    "pickled context": pickled,
    "everything new": fresh,
}


def missing_state(evaluator: ModuleType) -> Run:
    state = evaluator.FunctionState("f", {"count": 1})
    return evaluating(PLAIN, bound={"root": Function()}, states={"other": state})(evaluator)


def recursion() -> Any:
    children: list[Any] = []
    graph = node("rotation", "f", children)
    children.append(graph)
    return graph


# What isn't of the declared types must not leak either.
NO_NODE: Any = {"type": "float"}
NO_CHILDREN: Any = 5
NO_KEYWORDS: Any = {1: 1}


def failing_registry(method: str) -> Any:
    registry = registry_of(f=lambda **_: Function())
    setattr(registry, method, new(RuntimeError, method))
    return registry


class MuteError(Exception):
    def __str__(self) -> str:
        raise RuntimeError("mute")


class Unreadable(Function):
    arity = property(new(RuntimeError, "arity"))


class Lying(np.ndarray):
    shape = property(new(ValueError, "shape"))


FAILURES = {
    "ValueError": new(ValueError, "broken"),
    "KeyboardInterrupt": new(KeyboardInterrupt),
    "StopIteration": new(StopIteration, 1),
    "mute exception": new(MuteError),
    "own traceback": raising(ValueError("kept")),
    "shape": lambda *_: np.zeros(2, np.float64),
    "dtype": lambda *_: np.zeros(3, np.float32),
    "dtype of an argument": lambda row, *_: row.view(np.int64),
    "lying shape": lambda *_: np.zeros(3, np.float64).view(Lying),
    "wrong list": lambda *_: [1.0, 2.0],
    "ragged list": lambda *_: [1.0, [2.0], 3.0],
    "no number": lambda *_: object(),
    "text": lambda *_: "abc",
}

FAILING_ROADS: dict[str, Road] = {
    **{f"{name}, bound": calling(act, bound=True) for name, act in FAILURES.items()},
    **{f"{name}, registry": calling(act, bound=False) for name, act in FAILURES.items()},
    "missing feature": evaluating(rotation("f", feature("zz")), bound={"root": Function()}),
    "misshapen feature": evaluating(
        rotation("f", feature("x")),
        features={"a": counting_matrix(2), "x": np.zeros((1, 1))},
        bound={"root": Function()},
    ),
    "misshapen root": rows_as(np.zeros((1, 1))),
    "no features": evaluating(PLAIN, features={}),
    "bound none": evaluating(PLAIN, bound={"root": None}),
    "not bound": evaluating(PLAIN, bound={}),
    "no registry": evaluating(PLAIN),
    "unknown to the registry": evaluating(PLAIN, registry=registry_of()),
    "factory": evaluating(PLAIN, registry=registry_of(f=new(ValueError, "factory"))),
    "factory that gives None": evaluating(PLAIN, registry=registry_of(f=lambda **_: None)),
    "has": evaluating(PLAIN, registry=failing_registry("has")),
    "get_entry": evaluating(PLAIN, registry=failing_registry("get_entry")),
    "engine-only": evaluating(rotation("f", config={"A": 1}), bound={"root": Function()}),
    "no keyword": evaluating(
        rotation("f", config=NO_KEYWORDS), registry=registry_of(f=lambda **_: Function())
    ),
    "state keys": missing_state,
    "missing state": evaluating(PLAIN, bound={"root": Function(stateful=True)}, states={}),
    "float literal": evaluating(rotation("f", number("x")), bound={"root": Function()}),
    "int literal": evaluating(integer("x")),
    "bool literal": evaluating(boolean(np.zeros(2))),
    "precomputed length": evaluating(
        number(1.0, canonical_id="id"), attributes={"_precomputed_node_outputs": {"id": [1.0]}}
    ),
    "precomputed text": evaluating(
        number(1.0, canonical_id="id"), attributes={"_precomputed_node_outputs": {"id": "abc"}}
    ),
    "unhashable id": evaluating(number(1.0, canonical_id=[])),
    "no node": evaluating(rotation("f", NO_NODE), bound={"root": Function()}),
    "no graph": evaluating({"type": "feature"}),
    "children": evaluating(node("odd", None, NO_CHILDREN)),
    "cycle": evaluating(recursion(), bound={"root": Function()}),
    "arity": evaluating(PLAIN, bound={"root": Unreadable()}),
    "no call": evaluating(PLAIN, bound={"root": object()}),
    "no stateful": evaluating(PLAIN, bound={"root": lambda row: row}),
    "no state": evaluating(
        PLAIN, bound={"root": Function(stateful=True, get_state=new(ValueError, "state"))}
    ),
    "object row": rows_as(np.array([[1.0, "x", None]] * 2, dtype=object)),
    "universe of texts": evaluating(feature("a"), universe=np.array([["x"] * 3] * ROWS)),
    "marked features": evaluating(number(1.0), nan_features=5),
    "nothing passes": reducing(
        reduction("sum", filtration("filtration", node("gt", "gt", [string("sharpe"), number(9)])))
    ),
    "filter without its field": reducing(
        reduction("sum", filtration("filtration", node("gt", "gt", [string("zz"), number(0)])))
    ),
    "empty pool": reducing(reduction("sum", FILTERED), useful_signals={}),
    "unknown PnL column": reducing(reduction("sum", config={"pnl_column": "zz"})),
    "signals without weights": reducing(
        reduction("mean"), useful_signals={"x": UsefulSignal(None)}
    ),
    "transform without its option": evaluating(
        CHAIN,
        registry=functions_registry(),
        metaparameters={"smooth": "zz"},
        before=pending_transforms,
    ),
}
