"""Runs of one graph whose functions come in chosen guises, and all that a host can observe of them.

A function's name is that of its step, and what follows a dot only tells it from others: `guises`
maps names to the guises of `support.opted_in`, "plain" where a name is missing.
"""

from __future__ import annotations

from collections.abc import Mapping
from importlib import import_module
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
from support.opted_in import GUISES, REDUCTIONS, STEPS, PlainFunction
from support.runs import counting_matrix, make_context


def make_instance(name: str, guise: str, memory: Any = None, *, arity: bool = True) -> Any:
    base = name.partition(".")[0]
    if base == "reduce":
        return REDUCTIONS[guise](stateful=True, memory=memory, arity=arity)
    step, stateful = STEPS[base]
    return GUISES[guise](step, stateful=stateful, memory=memory, arity=arity)


class GuiseRegistry:
    """Makes every function anew. `instances` lists them in the order of making."""

    def __init__(self, guises: Mapping[str, str]) -> None:
        self.guises = guises
        self.instances: list[PlainFunction] = []

    def has(self, name: str) -> bool:
        return True

    def has_factory(self, name: str) -> bool:
        return True

    def get_entry(self, name: str) -> Any:
        schema = [{"name": "first", "type": "float"}] if name.endswith(".config") else None
        return SimpleNamespace(stateful=True, param_schema=schema)

    def create_instance(self, name: str, **config: Any) -> Any:
        return self._make(name, None)

    def create_instance_from_state(self, name: str, restore_state: Any, **config: Any) -> Any:
        return self._make(name, getattr(restore_state, "state_data", restore_state))

    def _make(self, name: str, memory: Any) -> Any:
        self.instances.append(make_instance(name, self.guises.get(name, "plain"), memory))
        return self.instances[-1]


def functions_of(graph: Any, path: str = "root") -> dict[str, str]:
    """The names of the function nodes by path, children first."""
    found: dict[str, str] = {}
    for place, child in enumerate(graph.children or ()):
        found.update(functions_of(child, f"{path}.c{place}"))
    if graph.type in ("rotation", "reduction"):
        found[path] = graph.node
    return found


def all_in(graph: Any, *guises: str) -> dict[str, str]:
    """The guises in turn, over the names of the graph's functions."""
    names = sorted(set(functions_of(graph).values()))
    return {name: guises[place % len(guises)] for place, name in enumerate(names)}


def bits(array: Any) -> Any:
    if not isinstance(array, np.ndarray):
        return array
    return array.dtype.str, array.shape, array.tobytes()


class GuiseRun:
    """One context over `features`, and the instances of a graph's functions."""

    def __init__(
        self,
        evaluator: ModuleType,
        graph: Any,
        guises: Mapping[str, str],
        features: Mapping[str, np.ndarray],
        *,
        bound: bool = False,
        arity: bool = True,
        memories: Mapping[str, Any] | None = None,
        attributes: Mapping[str, Any] | None = None,
        **options: Any,
    ) -> None:
        self.evaluator, self.graph = evaluator, graph
        self.registry = GuiseRegistry(guises)
        self.context = make_context(
            evaluator, dict(features), registry=self.registry, validate_inputs=False, **options
        )
        for name, value in (attributes or {}).items():
            setattr(self.context, name, value)
        self.bound: dict[str, Any] | None = None
        if bound:
            self.bound = {
                path: make_instance(
                    name, guises.get(name, "plain"), (memories or {}).get(path), arity=arity
                )
                for path, name in functions_of(graph).items()
            }

    @property
    def calls(self) -> list[list[Any]]:
        """How each instance got its rows."""
        instances = self.registry.instances if self.bound is None else self.bound.values()
        return [instance.calls for instance in instances]

    def __call__(self, states: Any = None, cold: bool = False, nan_features: Any = None) -> Any:
        """What the run gives, raises and leaves."""
        observed: dict[str, Any] = {}
        try:
            result = self.evaluator.evaluate(
                self.graph,
                self.context,
                states,
                cold,
                bound_function_instances=self.bound,
                data_nan_features=nan_features,
            )
        except Exception as error:  # noqa: BLE001 - what it raises is the answer
            observed["error"] = described(error)
        else:
            observed["weights"] = bits(result.weights)
            observed["states"] = list(result.states.items())
            observed["nan_source"] = list(result.nan_source.items())
            observed["node_outputs"] = [
                (path, bits(matrix)) for path, matrix in result.node_outputs.items()
            ]
        for name in ("current_day_index", "registers", "extraction_buffer", "universe_mask"):
            observed[name] = bits(getattr(self.context, name))
        observed["attributes"] = sorted(vars(self.context))
        return observed


def described(error: BaseException | None) -> Any:
    if error is None:
        return None
    return type(error), str(error), described(error.__cause__), described(error.__context__)


def plain_answer(graph: Any, features: Mapping[str, np.ndarray], **options: Any) -> Any:
    """What the plain-Python evaluator makes of plain functions."""
    arguments = {
        name: options.pop(name) for name in ("states", "cold", "nan_features") if name in options
    }
    reference = import_module("reference_evaluator")
    return GuiseRun(reference, graph, {}, features, **options)(**arguments)


def features_of(rows: int, columns: int) -> dict[str, np.ndarray]:
    """Features "a" and "b" with some odd cells."""
    first, second = counting_matrix(rows, columns), counting_matrix(rows, columns, -7.5) / 3
    if first.size > 5:
        first.flat[4], second.flat[5], first.flat[-1] = np.nan, -0.0, np.inf
    return {"a": first, "b": second}
