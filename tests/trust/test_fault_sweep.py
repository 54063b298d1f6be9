"""Every call to the host fails once: runs end as in the plain evaluator and leave nothing broken."""

from __future__ import annotations

import importlib
import os
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
import reference_evaluator
from quernbrook.simulator_engine._types import TransformStage
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
from support.traced_host import Build, TracedHost

NATIVE = "quernbrook.simulator_engine.expression_evaluator"
WORKER = ThreadPoolExecutor(1)
FAULTS: list[Build] = [
    lambda: RuntimeError("fault", 1),
    lambda: AttributeError("fault"),
    lambda: TypeError("fault"),
    lambda: KeyError("fault"),
    lambda: KeyboardInterrupt("fault"),
]
GENERAL = rotation(
    "f",
    rotation("g", feature("a"), integer(2), config={"k": 1}),
    aggregation("b"),
    number("1.5", canonical_id="id"),
    string("s"),
    boolean(True),
)
FILTERED = filtration("filtration", node("gt", "gt", [string("sharpe"), number(0.5)]))
REDUCTIONS = rotation(
    "f", reduction("sum", FILTERED, config={"pnl_column": "net"}), reduction("mean")
)
UNIVERSE = np.array([[1.0, 0.0], [np.nan, 1.0], [1.0, 1.0]])
CHAIN = rotation(
    "longitudinal_zscore", rotation("longitudinal_mean", feature("a"), integer(1)), integer(2)
)
STAGE = TransformStage("smooth", "on", {"on": rotation("h", node("signal", None), integer(2))})


class Road:
    """The objects of one run with one evaluator."""

    def __init__(
        self,
        evaluator: ModuleType,
        graph: Any,
        *,
        context: Callable[[TracedHost], dict[str, Any]] = lambda host: {},
        bound: tuple[str, ...] = (),
        nan_features: tuple[str, ...] = (),
        states: Any = None,
        cold: bool = False,
        pipeline: tuple[Any, ...] = (),
    ) -> None:
        self.evaluator = evaluator
        self.host = TracedHost(evaluator)
        self.graph = self.host.graph(graph)
        self.context = self.host.context(**context(self.host))
        self.instances = {path: self.host.instance("f") for path in bound} or None
        self.nan_features, self.states, self.cold = nan_features, states, cold
        self.pipeline = pipeline

    def run(
        self, fail_at: tuple[bool, int] | None = None, build: Build = RuntimeError
    ) -> dict[str, Any]:
        """What a run with one fault gives or raises, asks, logs and leaves."""
        host, context = self.host, self.context
        host.sites.arm()
        if self.pipeline:
            context.transform_pipeline = list(self.pipeline)
        names = host.names(*self.nan_features) if self.nan_features else None
        host.events.clear()
        host.sites.arm(fail_at, build)
        try:
            result = self.evaluator.evaluate(
                self.graph,
                context,
                self.states,
                self.cold,
                bound_function_instances=self.instances,
                data_nan_features=names,
            )
        except BaseException as error:  # noqa: BLE001 - interrupts are among the faults
            end: Any = described(error)
        else:
            end = (
                bits(result.weights),
                result.states,
                result.nan_source,
                {path: bits(rows) for path, rows in result.node_outputs.items()},
            )
        calls, self.reads = host.sites.calls, host.sites.reads
        host.sites.arm()
        return {
            "end": end,
            "calls": calls,
            "events": list(host.events),
            "context": {
                name: bits(value) if isinstance(value, np.ndarray) else value
                for name, value in vars(context).items()
                if name in LEFT
            },
            "features": len(context.features),
            "pipeline": len(context.transform_pipeline),
            "cached": sorted(vars(self.graph)),
        }


LEFT = {"registers", "extraction_buffer", "current_day_index", "universe_mask", "feature_index"}


def bits(array: Any) -> Any:
    return None if array is None else (array.shape, array.tobytes())


def described(error: BaseException | None) -> Any:
    if error is None:
        return None
    return (
        type(error),
        str(error),
        getattr(error, "filter_diagnostics", None),
        described(error.__cause__),
        described(error.__context__),
    )


def reducing(host: TracedHost) -> dict[str, Any]:
    return {"useful_signals": host.pool("xyz", 3)}


def stubs(host: TracedHost) -> dict[str, Any]:
    return {"registry": host.registry(factories=False)}


RANK = rotation("latitudinal_rank", feature("a"))
ROADS: dict[str, dict[str, Any]] = {
    "leaf": {"graph": feature("a"), "context": lambda host: {"universe": UNIVERSE}},
    "rank": {"graph": RANK, "context": stubs},
    "rank product": {
        "graph": rotation("numerical_multiply", RANK, rotation("latitudinal_rank", feature("b"))),
        "context": stubs,
    },
    "longitudinal": {"graph": CHAIN, "context": stubs},
    "registry": {"graph": GENERAL, "context": lambda host: {"universe": UNIVERSE}},
    "bound": {"graph": GENERAL, "bound": ("root", "root.c0")},
    "restored": {
        "graph": GENERAL,
        "states": {"root": {"count": 1}, "root.c0": {"count": 2}},
    },
    "reductions": {"graph": REDUCTIONS, "context": reducing},
    "bound reductions": {
        "graph": REDUCTIONS,
        "context": reducing,
        "bound": ("root", "root.c0", "root.c1"),
    },
    "nothing passes": {
        "graph": reduction(
            "sum", filtration("filtration", node("gt", "gt", [string("sharpe"), number(9)]))
        ),
        "context": reducing,
    },
    "cold start": {
        "graph": reduction("sum", FILTERED),
        "context": reducing,
        "states": {"root": {"count": 1}},
        "cold": True,
    },
    "transforms": {"graph": GENERAL, "pipeline": (STAGE,)},
    "stage data": {
        "graph": rotation("f", feature("s"), feature("b")),
        "context": lambda host: {"stage_data": host.stage_data(s=np.ones((3, 2)))},
    },
    "missing data": {"graph": GENERAL, "nan_features": ("a", "zz")},
    "stored rows": {
        "graph": GENERAL,
        "context": lambda host: {"_precomputed_node_outputs": {"id": [1.0, 2.0]}},
        "bound": ("root", "root.c0"),
    },
}


@pytest.fixture
def traced_road(monkeypatch: pytest.MonkeyPatch) -> Callable[..., Road]:
    """Makes roads, with few rows enough for the longitudinal statistics."""
    if os.environ.get("EVALUATOR_TESTS") == "reference":
        pytest.skip("nothing to compare the plain evaluator with")

    def make(evaluator: ModuleType, name: str) -> Road:
        road = Road(evaluator, **ROADS[name])
        monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 0)
        monkeypatch.setattr(evaluator, "FiltrationInstance", road.host.filtration)
        monkeypatch.setattr(evaluator, "_logger", SimpleNamespace(error=road.host.error))
        return road

    return make


def faults_of(place: int) -> list[Build]:
    """All of them, or for a quick sweep one error after the other, and an interrupt."""
    if os.environ.get("HYPOTHESIS_PROFILE") == "long":
        return FAULTS
    return [FAULTS[place % (len(FAULTS) - 1)], FAULTS[-1]]


def require_equal(found: dict[str, Any], expected: dict[str, Any], where: str) -> None:
    for aspect, one in expected.items():
        # Not the two themselves: the report of a difference would take longer than the sweep.
        is_equal = found[aspect] == one
        assert is_equal, f"{where}: {aspect}: {found[aspect]!r:.900} is not {one!r:.900}"


def is_free(road: Road) -> bool:
    """Another thread can take the context's lock."""
    lock = vars(road.context)["_evaluation_lock"].lock
    taken = WORKER.submit(lock.acquire, False).result()
    if taken:
        WORKER.submit(lock.release).result()
    return taken


@pytest.mark.parametrize("name", ROADS)
def test_every_call_to_the_host_fails_once(name: str, traced_road: Callable[..., Road]) -> None:
    plain = traced_road(reference_evaluator, name)
    native = traced_road(importlib.import_module(NATIVE), name)
    for _ in range(2):  # the second run finds caches
        found = native.run()
        require_equal(found, plain.run(), "without a fault")
    calls = found["calls"]
    raised = 0
    for place, call in enumerate(calls):
        for build in faults_of(place):
            where = f"{build()!r} at call {place}, {call}"
            found = native.run((False, place), build)
            require_equal(found, plain.run((False, place), build), where)
            raised += isinstance(found["end"][0], type)
            assert is_free(native), where
            require_equal(native.run(), plain.run(), f"after {where}")
    # Some faults are caught where the host may lack an attribute; most must come out.
    assert raised >= len(calls)


@pytest.mark.parametrize("name", ROADS)
def test_every_read_of_the_inputs_fails_once(name: str, traced_road: Callable[..., Road]) -> None:
    road = traced_road(importlib.import_module(NATIVE), name)
    road.run()
    clean = road.run()
    raised = 0
    for place in range(len(road.reads)):
        for build in faults_of(place):
            where = f"{build()!r} at read {place}"
            raised += isinstance(road.run((True, place), build)["end"][0], type)
            assert is_free(road), where
            require_equal(road.run(), clean, f"after {where}")
    assert raised >= len(road.reads)
