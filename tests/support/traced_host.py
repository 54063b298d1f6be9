"""A host that notes every call made to it and fails at the one that it is told to fail at."""

from __future__ import annotations

import threading
from collections.abc import Callable, Iterator
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.functions.filtrations import FiltrationInstance

Build = Callable[[], BaseException]


INPUTS = {"context.universe", "context.feature_index", "context.useful_signals"}


class Sites:
    """Notes the calls.

    Evaluators may look at a node, or at an input of the context, as often as they like: such reads
    are kept apart.
    `fail_at` is the log and the place in it of the call that raises what `build` makes.
    """

    def __init__(self) -> None:
        self.arm()

    def visit(self, name: str) -> None:
        log = self.reads if name in INPUTS or name.startswith("node.") else self.calls
        log.append(name)
        if self.fail_at == (log is self.reads, len(log) - 1):
            raise self.build()

    def arm(self, fail_at: tuple[bool, int] | None = None, build: Build = RuntimeError) -> None:
        self.calls: list[str] = []
        self.reads: list[str] = []
        self.fail_at, self.build = fail_at, build


class TracedLock:
    """Whatever fails, the lock itself is taken after the call and given back before it."""

    def __init__(self, sites: Sites) -> None:
        self.sites = sites
        self.lock = threading.RLock()

    def __enter__(self) -> None:
        self.sites.visit("lock.__enter__")
        self.lock.acquire()

    def __exit__(self, *_: Any) -> None:
        self.lock.release()
        self.sites.visit("lock.__exit__")


def traced(base: type, sites: Sites, label: str) -> type:
    """A subclass whose attributes are noted when they are read and when they are set."""

    class Traced(base):  # type: ignore[misc]
        def __getattribute__(self, name: str) -> Any:
            if not name.startswith("__"):
                sites.visit(f"{label}.{name}")
            return super().__getattribute__(name)

        def __setattr__(self, name: str, value: Any) -> None:
            sites.visit(f"{label}.{name} =")
            super().__setattr__(name, value)

    return Traced


class TracedHost:
    """Builds traced objects that all report to the same sites."""

    def __init__(self, evaluator: ModuleType) -> None:
        self.evaluator = evaluator
        self.sites = sites = Sites()
        self.node_type = traced(FunctionGraphNode, sites, "node")
        self.entry_type = traced(SimpleNamespace, sites, "entry")
        self.signal_type = traced(SimpleNamespace, sites, "signal")
        self.context_type = traced(SimpleNamespace, sites, "context")
        self.events: list[Any] = []

    def graph(self, plain: FunctionGraphNode) -> Any:
        node = self.node_type(plain.type, plain.node, None, plain.config)
        if plain.children is not None:
            node.children = [self.graph(child) for child in plain.children]
        for name in vars(plain).keys() - {"type", "node", "children", "config"}:
            setattr(node, name, getattr(plain, name))
        return node

    def error(self, event: str, **details: Any) -> None:
        """The logger's method."""
        details.pop("instance_id", None)
        self.events.append((event, sorted(details.items())))
        self.sites.visit("logger.error")

    def filtration(self, tree: Any, registry: Any) -> Any:
        """Takes the place of the filters' class."""
        sites = self.sites
        sites.visit("FiltrationInstance")
        instance = FiltrationInstance(tree, registry)

        def passing(pool: Any) -> list[str]:
            sites.visit("filtration.__call__")
            return instance(pool)

        return passing

    def registry(self, *, factories: bool = True) -> Any:
        return TracedRegistry(self, factories)

    def instance(self, name: str, **_: Any) -> Any:
        return TracedFunction(self.sites, name)

    def stage_data(self, **arrays: Any) -> Any:
        return traced(StageData, self.sites, "stage_data")(arrays)

    def pool(self, ids: str, rows: int) -> dict[str, Any]:
        return {
            name: self.signal_type(
                weights=np.full((rows, 2), place + 1.0),
                pnl=np.full((rows, 2), -place - 1.0),
                fields={"sharpe": float(place)},
            )
            for place, name in enumerate(ids)
        }

    def names(self, *names: str) -> Iterator[str]:
        for name in names:
            self.sites.visit("data_nan_features")
            yield name

    def context(self, **attributes: Any) -> Any:
        rows = 3
        given: dict[str, Any] = {
            "features": (
                np.arange(2.0 * rows).reshape(rows, 2),
                np.arange(2.0 * rows)[::-1].reshape(rows, 2).copy(),
            ),
            "feature_index": {"a": 0, "b": 1},
            "useful_signals": {},
            "registry": self.registry(),
            "universe": None,
            "universe_mask": None,
            "transform_pipeline": [],
            "metaparameters": {},
            "stage_data": self.stage_data(),
            "column_labels": ["gross_returns", "net"],
            "signal_pnl_vectors": None,
            "registers": None,
            "extraction_buffer": None,
            "current_day_index": 0,
            "_evaluation_lock": TracedLock(self.sites),
        }
        return self.context_type(**{**given, **attributes})


class TracedRegistry:
    """Knows every name; "mean" and "sum" are reductions."""

    def __init__(self, host: TracedHost, factories: bool) -> None:
        self.host = host
        self.factories = factories

    def has(self, name: str) -> bool:
        self.host.sites.visit("registry.has")
        return True

    def has_factory(self, name: str) -> bool:
        self.host.sites.visit("registry.has_factory")
        return self.factories

    def get_entry(self, name: str) -> Any:
        self.host.sites.visit("registry.get_entry")
        return self.host.entry_type(
            stateful=True, param_schema=[{"name": "k", "type": "int"}], family="plain"
        )

    def create_instance(self, name: str, **config: Any) -> Any:
        self.host.sites.visit("registry.create_instance")
        return self.host.instance(name)

    def create_instance_from_state(self, name: str, restore_state: Any, **config: Any) -> Any:
        self.host.sites.visit("registry.create_instance_from_state")
        return self.host.instance(name)


class TracedFunction:
    """A stateful function that doubles its first row, or the sum of its signals."""

    def __init__(self, sites: Sites, name: str) -> None:
        self.sites = sites
        self.name = name

    @property
    def stateful(self) -> bool:
        self.sites.visit("instance.stateful")
        return self.name != "mean"

    @property
    def window(self) -> int:
        self.sites.visit("instance.window")
        return 3

    def get_state(self) -> Any:
        self.sites.visit("instance.get_state")
        return {"count": 1}

    def __call__(self, row: np.ndarray, *_: Any, **__: Any) -> Any:
        self.sites.visit("instance.__call__")
        return 2.0 * (row if row.ndim == 1 else np.add.reduce(row, axis=0))
