"""The functions of a graph, with the instances that a run would have."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import dataclass
from typing import Any

from quernbrook.reference_host import Fault
from quernbrook.workbench.explanation.configuration import Configuration, read_configuration
from quernbrook.workbench.explanation.inputs import Inputs, evaluator
from quernbrook.workbench.explanation.offers import Offer, UnusableKernel, offer_of
from quernbrook.workbench.graphs import FUNCTIONS


@dataclass(frozen=True)
class Function:
    """A function node.

    instance: None where it can't be had; `fault` tells why.
    state: the data of the state that it goes on from.
    """

    path: str
    name: str
    kind: str
    configuration: Configuration
    instance: Any
    offer: Offer | None
    state: Any
    fault: Fault | None

    @property
    def is_stateful(self) -> bool | None:
        stateful = getattr(self.instance, "stateful", None)
        return None if stateful is None else bool(stateful)


def functions_of(run: Inputs) -> dict[str, Function]:
    """By path, in the order in which they run. The registry makes an instance of each."""
    return {function.path: function for function in _functions(run)}


def _functions(run: Inputs) -> Iterator[Function]:
    for path, node in run.nodes.items():
        if node.type not in FUNCTIONS:
            continue
        read = read_configuration(node, path, run.registry)
        instance, offer, fault = None, None, None
        state = _state(run, path)
        try:
            instance = _instance(run, path, node.node, read, state)
            offer = None if instance is None else offer_of(instance, node.type)
        except UnusableKernel as error:
            fault = Fault(path, f"'{node.node}' offers a kernel that cannot be used: {error}")
        except Exception as error:  # noqa: BLE001 - a run fails with it
            fault = Fault(path, f"'{node.node}' can't be made: {type(error).__name__}: {error}")
        yield Function(path, node.node, node.type, read, instance, offer, state, fault)


def _state(run: Inputs, path: str) -> Any:
    if run.states is None or run.bound or run.state_key(path) not in run.states:
        return None
    return evaluator._function_state_data(run.states[run.state_key(path)])


def _instance(run: Inputs, path: str, name: str, read: Configuration, state: Any) -> Any:
    """None for a function that is missing: that is told elsewhere."""
    if run.bound is not None:
        return run.bound.get(path)
    registry = run.registry
    if registry is None or not registry.has(name):
        return None
    if not state:
        return registry.create_instance(name, **read.arguments)
    saved = run.states[run.state_key(path)] if run.states is not None else state
    restored = evaluator._state_for_registry_restore(registry, name, saved)
    return registry.create_instance_from_state(name, restored, **read.arguments)
