"""Functions that do as little as can be, the registry that knows them, and graphs of them."""

from __future__ import annotations

import importlib
import sys
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from functools import cache, partial
from pathlib import Path
from types import ModuleType
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode
from support.graphs import feature, rotation

from bench.compiling import compiled

NATIVE_SOURCE = Path(__file__).with_name("native_functions.pyx")
PYTHON, BUILT_IN, NATIVE = "Python", "built-in", "native"
# A function of one argument or two, for the links of a chain and the twigs of a bush, and one of
# any number for a bush's root.
LINKS = {PYTHON: "pass", BUILT_IN: "add", NATIVE: "native pass"}
ROOTS = {PYTHON: "first", BUILT_IN: "native first", NATIVE: "native first"}


class Passing:
    """A function that does nothing: what a run with it costs is the run's own."""

    stateful = False

    def __call__(self, row: Any, context: Any = None) -> Any:
        return row


class PassingFirst:
    """The same for any number of arguments."""

    stateful = False

    def __call__(self, *rows: Any, context: Any = None) -> Any:
        return rows[0]


class Counting:
    """The same with a state."""

    stateful = True
    arity = 1

    def __init__(self, count: int = 0) -> None:
        self.count = count

    def __call__(self, row: Any, context: Any = None) -> Any:
        self.count += 1
        return row

    def get_state(self) -> dict[str, int]:
        return {"count": self.count}


class Reducing:
    """A reduction that only hands back a signal of its block."""

    stateful = True
    window = 1

    def __call__(self, block: Any, signal_pnl: Any) -> Any:
        return block[0]

    def get_state(self) -> None:
        return None


class Mean:
    """Never called: the mean over the signals is what every stateless reduction is."""

    stateful = False


@cache
def native() -> ModuleType:
    """The extension module of the functions without interpreted code."""
    sys.path.append(str(compiled({Path(NATIVE_SOURCE.name): NATIVE_SOURCE.read_text()})))
    return importlib.import_module(NATIVE_SOURCE.stem)


def bare_add() -> Any:
    """numpy.add itself has no room for the attribute that an instance needs."""
    instance: Any = partial(np.add)
    instance.stateful = False
    return instance


@dataclass(frozen=True)
class Entry:
    """What a registry tells of a function, and how it makes one."""

    build: Callable[[], Any]
    stateful: bool = False
    family: str = "rotation"
    param_schema: tuple[()] = ()


ENTRIES = {
    "pass": Entry(Passing),
    "first": Entry(PassingFirst),
    "native pass": Entry(lambda: native().passing),
    "native first": Entry(lambda: native().passing_first),
    "add": Entry(lambda: native().adding),
    "count": Entry(Counting, stateful=True),
    "stateful": Entry(Reducing, stateful=True),
    "mean": Entry(Mean),
}


class Registry:
    """Knows the functions above."""

    def has(self, name: str) -> bool:
        return name in ENTRIES

    def has_factory(self, name: str) -> bool:
        return name in ENTRIES

    def get_entry(self, name: str) -> Any:
        return ENTRIES[name]

    def create_instance(self, name: str, **config: Any) -> Any:
        return ENTRIES[name].build()

    def create_instance_from_state(self, name: str, state: Any, **config: Any) -> Any:
        instance = ENTRIES[name].build()
        instance.count = state["count"]
        return instance


def chain(functions: int, language: str = PYTHON) -> FunctionGraphNode:
    """Functions on top of each other over one feature, which each `add` adds once more."""
    return chain_of(LINKS[language], functions)


def chain_of(function: str, functions: int) -> FunctionGraphNode:
    graph = feature("a")
    for _ in range(functions):
        graph = rotation(function, graph, *second_arguments(function))
    return graph


def bush(functions: int, language: str = PYTHON) -> FunctionGraphNode:
    """One function over all others, each of which has the feature for itself."""
    link = LINKS[language]
    twigs = (rotation(link, feature("a"), *second_arguments(link)) for _ in range(functions - 1))
    return rotation(ROOTS[language], *twigs)


def second_arguments(function: str) -> Iterable[FunctionGraphNode]:
    return [feature("a")] if function == "add" else []


def instance_for_binding(name: str) -> Any:
    """A bound instance gets no context, so that numpy.add can serve as it is."""
    return bare_add() if name == "add" else ENTRIES[name].build()


def bound(graph: FunctionGraphNode) -> dict[str, Any]:
    """An instance for every function node."""
    return {path: instance_for_binding(node.node) for path, node in function_nodes(graph)}


def function_nodes(
    graph: FunctionGraphNode, path: str = "root"
) -> Iterable[tuple[str, FunctionGraphNode]]:
    """The function nodes by path, children first."""
    for place, child in enumerate(graph.children or ()):
        yield from function_nodes(child, f"{path}.c{place}")
    if graph.type in ("rotation", "reduction"):
        yield path, graph


def argument_count(graph: FunctionGraphNode) -> int:
    """How many arguments all functions of a graph of rotations take together."""
    return sum(len(node.children) for _, node in function_nodes(graph))
