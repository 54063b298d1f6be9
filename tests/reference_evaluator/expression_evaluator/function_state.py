"""The record that carries a function's state, and what fits it to a registry."""

from dataclasses import dataclass, field
from typing import Any, Dict  # noqa: UP035

import reference_evaluator as module


@dataclass
class FunctionState:
    """Serializable function state for checkpointing."""

    name: str
    state_data: Dict[str, Any] = field(default_factory=dict)  # noqa: UP006

    def to_bytes(self) -> bytes:
        return module.json.dumps({"name": self.name, "state_data": self.state_data}).encode()

    @classmethod
    def from_bytes(cls, data: bytes) -> "FunctionState":
        d = module.json.loads(data.decode())
        return cls(name=d["name"], state_data=d["state_data"])


def _function_state_data(state: Any) -> Any:
    """Return the serializable state payload from FunctionState or raw dict."""
    if state is None:
        return {}
    state_data = getattr(state, "state_data", state)
    return {} if state_data is None else state_data


def _function_state_version(registry: Any, function_name: Any, state: Any) -> Any:
    """Resolve the version metadata needed by strict FunctionStore restores."""
    if hasattr(state, "function_version"):
        return state.function_version
    if isinstance(state, dict) and "function_version" in state:
        return state["function_version"]
    get_function_version = getattr(registry, "get_function_version", None)
    if callable(get_function_version):
        return get_function_version(function_name)
    get_entry = getattr(registry, "get_entry", None)
    if callable(get_entry):
        entry = get_entry(function_name)
        return getattr(entry, "function_version", 1)
    return 1


def _registry_function_state_class(registry: Any) -> Any:
    """Return registry module FunctionState class when the registry declares one."""
    module_name = getattr(registry.__class__, "__module__", "")
    if not module_name:
        return None
    try:
        registry_module = module.importlib.import_module(module_name)
    except Exception:  # noqa: BLE001
        return None
    return getattr(registry_module, "FunctionState", None)


def _state_for_registry_restore(registry: Any, function_name: Any, state: Any) -> Any:
    """Adapt evaluator raw state payloads to registries with typed state contracts."""
    if state is None:
        return state
    if (
        hasattr(state, "function_name")
        and hasattr(state, "function_version")
        and hasattr(state, "data")
    ):
        return state
    typed_keys = {"function_name", "function_version", "data"}
    if isinstance(state, dict) and typed_keys.issubset(state.keys()):
        state_name = state["function_name"]
        state_version = state["function_version"]
        state_data = state["data"]
    else:
        state_name = function_name
        state_version = module._function_state_version(registry, function_name, state)
        state_data = module._function_state_data(state)
    state_cls = module._registry_function_state_class(registry)
    if state_cls is None:
        return state
    try:
        return state_cls(function_name=state_name, function_version=state_version, data=state_data)
    except TypeError:
        return state
