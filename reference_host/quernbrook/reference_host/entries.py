"""How a registry describes a function and its parameters."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from typing import Any, Literal

_VALUE_TYPES: dict[str, tuple[type, ...]] = {
    "int": (int,),
    "float": (int, float),
    "string": (str,),
    "bool": (bool,),
    "number": (int, float),
    "flag": (bool,),
}

REQUIRED: Any = object()


@dataclass(frozen=True)
class Parameter:
    """A parameter's type and its default, if it has one.

    Literal children of a node fill parameters of the types "int", "float", "string" and "bool". A
    "number" or a "flag" comes from the node's configuration alone: for functions whose operands
    may be literals, and for choices that a literal child should not be taken for.
    """

    type: Literal["int", "float", "string", "bool", "number", "flag"]
    default: Any = REQUIRED

    def accepts(self, value: Any) -> bool:
        if isinstance(value, bool):
            return self.type in ("bool", "flag")
        return isinstance(value, _VALUE_TYPES[self.type])


@dataclass(frozen=True)
class FunctionEntry:
    """A function as a registry knows it.

    build: makes an instance from the parameters as keywords.
    param_schema: the parameters, in the order in which literal children of a graph node fill those
        that they fill.
    library: True for the functions of this package alone. The evaluator may compute some of
        those without their instances; `factory` tells it that code of the user's own, which it
        must call, stands behind a name.
    compiled: whether its instances are those in machine code, of the distribution
        quernbrook-row-kernels.
    """

    name: str
    family: str
    build: Callable[..., Any]
    param_schema: dict[str, Parameter] = field(default_factory=dict)
    stateful: bool = False
    function_version: int = 1
    library: bool = False
    compiled: bool = False

    @property
    def factory(self) -> Callable[..., Any] | None:
        return None if self.library else self.build

    def complete_config(self, config: Mapping[str, Any]) -> dict[str, Any]:
        """Return `config` with the defaults filled in, in schema order.

        Raises ValueError for a parameter that is unknown, missing or of the wrong type.
        """
        unknown = sorted(set(config) - set(self.param_schema))
        if unknown:
            known = ", ".join(self.param_schema) or "none"
            raise ValueError(f"unknown parameter(s): {', '.join(unknown)}; known: {known}")
        complete = {}
        for name, parameter in self.param_schema.items():
            value = config.get(name, parameter.default)
            if value is REQUIRED:
                raise ValueError(f"missing parameter: {name}")
            if name in config and not parameter.accepts(value):
                raise ValueError(f"parameter '{name}' must be {parameter.type}; got {value!r}")
            complete[name] = value
        return complete
