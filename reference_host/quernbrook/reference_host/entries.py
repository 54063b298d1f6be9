"""How a registry describes a function and its parameters."""

from __future__ import annotations

import inspect
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from enum import Enum
from typing import Any, Literal

_VALUE_TYPES: dict[str, tuple[type, ...]] = {
    "int": (int,),
    "float": (int, float),
    "string": (str,),
    "bool": (bool,),
    "number": (int, float),
    "flag": (bool,),
}
# Parameters that the evaluator refuses in any graph.
ENGINE_ONLY = frozenset({"A", "N_alloc"})
_STATEFUL_METHODS = {"get_state": "get_state()", "restore": "restore(state_data)"}


class _NoDefault(Enum):
    # A member stays itself when it is copied or pickled.
    REQUIRED = "required"


REQUIRED: Any = _NoDefault.REQUIRED


@dataclass(frozen=True)
class Parameter:
    """A parameter's type and its default, if it has one.

    Literal children of a node fill parameters of the types "int", "float", "string" and "bool". A
    "number" or a "flag" comes from the node's configuration alone: for functions whose operands
    may be literals, and for choices that a literal child should not be taken for.

    Raises ValueError for an unknown type and for a default that isn't of it.
    """

    type: Literal["int", "float", "string", "bool", "number", "flag"]
    default: Any = REQUIRED

    def __post_init__(self) -> None:
        if self.type not in tuple(_VALUE_TYPES):
            raise ValueError(
                f"a parameter's type is one of {', '.join(_VALUE_TYPES)}; got {self.type!r}"
            )
        if self.default is not REQUIRED and not self.accepts(self.default):
            raise ValueError(
                f"the default of a parameter of type {self.type} can't be {self.default!r}"
            )

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

    Raises TypeError for an attribute of the wrong type, for a `build` that doesn't take the
    parameters and for a stateful class without ``get_state`` or ``restore``, and ValueError for a
    parameter named ``A`` or ``N_alloc``, which no graph may set.
    """

    name: str
    family: str
    build: Callable[..., Any]
    param_schema: dict[str, Parameter] = field(default_factory=dict)
    stateful: bool = False
    function_version: int = 1
    library: bool = False
    compiled: bool = False

    def __post_init__(self) -> None:
        if not isinstance(self.name, str) or not self.name:
            raise TypeError(f"a function's name must be a text; got {self.name!r}")
        self._require("family", str, "a text")
        for flag in ("stateful", "library", "compiled"):
            self._require(flag, bool, "True or False")
        self._require("function_version", int, "an int")
        if not callable(self.build):
            raise self._refusal(f"build must be callable; got {self.build!r}")
        self._require_usable_schema()
        self._require_usable_build()

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

    def _refusal(self, text: str, kind: type[Exception] = TypeError) -> Exception:
        return kind(f"Function '{self.name}': {text}")

    def _require(self, attribute: str, kind: type, wanted: str) -> None:
        value = getattr(self, attribute)
        if not isinstance(value, kind):
            raise self._refusal(f"{attribute} must be {wanted}; got {value!r}")

    def _require_usable_schema(self) -> None:
        schema: Any = self.param_schema
        wanted = "param_schema must be a dict of name to Parameter"
        if not isinstance(schema, dict):
            raise self._refusal(f"{wanted}; got {schema!r}")
        for name, parameter in schema.items():
            if not isinstance(name, str):
                raise self._refusal(f"{wanted}; got the name {name!r}")
            if not isinstance(parameter, Parameter):
                raise self._refusal(f"{wanted}; got {parameter!r} for '{name}'")
            if name in ENGINE_ONLY:
                text = f"no graph may set '{name}', which is the engine's own"
                raise self._refusal(text, ValueError)

    def _require_usable_build(self) -> None:
        """Whatever is seen without making an instance."""
        try:
            signature = inspect.signature(self.build)
        except ValueError:
            signature = None  # Some callables written in C tell none.
        try:
            if signature is not None:
                signature.bind(**self.param_schema)
        except TypeError as error:
            parameters = ", ".join(self.param_schema) or "none"
            text = f"{name_of(self.build)} can't be made from its parameters ({parameters}): {error}"
            raise self._refusal(text) from None
        if self.stateful and isinstance(self.build, type):
            for method, usage in _STATEFUL_METHODS.items():
                if not hasattr(self.build, method):
                    raise self._refusal(
                        f"{name_of(self.build)} has no method {usage}, which a stateful function "
                        "needs"
                    )


def name_of(build: Callable[..., Any]) -> str:
    """How error messages name a class or another callable."""
    return getattr(build, "__qualname__", None) or repr(build)
