"""Graphs as JSON documents. `graph.schema.json` beside this file is their JSON Schema."""

from __future__ import annotations

import json
import math
import operator
from collections.abc import Callable, Iterable, Mapping
from importlib import resources
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry
from quernbrook.workbench.formulas.reader import library
from quernbrook.workbench.graphs import (
    FILTERS,
    FUNCTIONS,
    KINDS,
    LEAVES,
    LITERALS,
    GraphError,
    Visit,
    canonical_id,
    check_node,
    children_first,
)
from quernbrook.workbench.names import suggestion

VERSION = 1

# JSON has no numbers for these.
_NOT_FINITE = {"NaN": math.nan, "Infinity": math.inf, "-Infinity": -math.inf}
_CONVERSIONS: dict[str, Callable[[Any], Any]] = {
    "int": operator.index,
    "float": float,
    "string": str,
    "bool": bool,
}
_LITERAL_TYPES: dict[str, tuple[type, ...]] = {
    "int": (int,),
    "float": (int, float),
    "string": (str,),
    "bool": (bool,),
}


class GraphJsonError(ValueError):
    """A document that is no graph; `pointer` is the JSON pointer (RFC 6901) of what is wrong."""

    def __init__(self, pointer: str, text: str) -> None:
        self.pointer = pointer
        super().__init__(f"{pointer or 'the document'}: {text}")


def schema() -> dict[str, Any]:
    """The JSON Schema (draft 2020-12) of the documents."""
    file = resources.files(__package__).joinpath("graph.schema.json")
    found: dict[str, Any] = json.loads(file.read_text("utf-8"))
    return found


def graph_to_json(graph: Node) -> dict[str, Any]:
    """Return the document of a graph, for `json.dumps`.

    Raises GraphError for what `format_formula` refuses, and for configuration that JSON can't hold.
    """
    written: list[dict[str, Any]] = []
    for visit in children_first(graph):
        check_node(visit)
        first = len(written) - len(visit.children)
        written[first:] = [_written(visit, written[first:])]
    return {"version": VERSION, "graph": written[0]}


def _written(visit: Visit, children: list[dict[str, Any]]) -> dict[str, Any]:
    node = visit.node
    fields = {"type": node.type, "node": _written_name(visit)}
    if children:
        fields["children"] = children
    if node.config:
        fields["config"] = _written_config(visit, node.config)
    identity = canonical_id(node)
    if identity is not None:
        fields["canonical_id"] = identity
    return fields


def _written_name(visit: Visit) -> Any:
    node = visit.node
    if node.type not in LITERALS:
        return node.node
    try:
        value: Any = _CONVERSIONS[node.type](node.node)
    except (TypeError, ValueError):
        text = f"a literal of kind {node.type} can't hold {node.node!r}"
        raise GraphError(visit.place, text) from None
    if isinstance(value, float) and not math.isfinite(value):
        return "NaN" if math.isnan(value) else "Infinity" if value > 0 else "-Infinity"
    return value


def _written_config(visit: Visit, config: Mapping[str, Any]) -> dict[str, Any]:
    try:
        copied: dict[str, Any] = json.loads(json.dumps(dict(config), allow_nan=False))
    except (TypeError, ValueError) as error:
        raise GraphError(visit.place, f"JSON can't hold the configuration: {error}") from None
    return copied


def graph_from_json(
    document: Any,
    *,
    features: Iterable[str] | None = None,
    registry: FunctionRegistry | None = None,
) -> Node:
    """Return the graph of a document, as `json.loads` gives it.

    features: the names that features may have; None allows any name.
    registry: the functions that nodes may name; the library's by default.

    Raises GraphJsonError, which tells the place and, for an unknown name, the nearest one.
    """
    known = None if features is None else frozenset(features)
    fields = _object("", document, required=("version", "graph"), optional=("$schema",))
    if isinstance(fields["version"], bool) or fields["version"] != VERSION:
        raise GraphJsonError("/version", f"expected {VERSION}; got {fields['version']!r}")
    reader = _Reader(library() if registry is None else registry, known)
    return reader.node("/graph", fields["graph"])


class _Reader:
    def __init__(self, registry: FunctionRegistry, features: frozenset[str] | None) -> None:
        self._registry = registry
        self._features = features

    def node(self, pointer: str, value: Any) -> Node:
        optional = ("children", "config", "canonical_id")
        fields = _object(pointer, value, required=("type", "node"), optional=optional)
        kind = fields["type"]
        if not isinstance(kind, str) or kind not in KINDS:
            raise GraphJsonError(
                f"{pointer}/type", f"unknown kind {kind!r}{suggestion(str(kind), KINDS)}"
            )
        name = self._name(f"{pointer}/node", kind, fields["node"])
        children = _typed(f"{pointer}/children", fields.get("children", []), list, "an array")
        config = _typed(f"{pointer}/config", fields.get("config", {}), dict, "an object")
        identity = fields.get("canonical_id")
        if identity is not None:
            _typed(f"{pointer}/canonical_id", identity, str, "a text")
        if children and kind in LEAVES | LITERALS:
            raise GraphJsonError(f"{pointer}/children", f"a {kind} has no children")
        if config and kind not in FUNCTIONS:
            raise GraphJsonError(f"{pointer}/config", f"a {kind} has no configuration")
        nodes = [
            self.node(f"{pointer}/children/{place}", child) for place, child in enumerate(children)
        ]
        return Node(kind, name, nodes or None, dict(config) or None, identity)

    def _name(self, pointer: str, kind: str, value: Any) -> Any:
        if kind in LITERALS:
            return _literal(pointer, kind, value)
        name: str = _typed(pointer, value, str, "a text")
        known: Iterable[str]
        if kind in FILTERS:
            what, known = "filter", FILTERS
        elif kind in FUNCTIONS:
            what, known = "function", self._registry.names()
        elif self._features is not None:
            what, known = "feature", self._features
        else:
            return name
        if name not in known:
            raise GraphJsonError(pointer, f"unknown {what} '{name}'{suggestion(name, known)}")
        return name


def _literal(pointer: str, kind: str, value: Any) -> Any:
    if kind == "float" and isinstance(value, str) and value in _NOT_FINITE:
        return _NOT_FINITE[value]
    if kind == "int" and isinstance(value, float) and value.is_integer():
        # JSON doesn't tell 2.0 from 2.
        return int(value)
    is_of_kind = isinstance(value, _LITERAL_TYPES[kind])
    if not is_of_kind or isinstance(value, bool) != (kind == "bool"):
        raise GraphJsonError(pointer, f"a literal of kind {kind} can't hold {value!r}")
    if kind != "float":
        return value
    try:
        return float(value)
    except OverflowError:
        raise GraphJsonError(pointer, "the number is too large for a float") from None


def _object(
    pointer: str, value: Any, *, required: tuple[str, ...], optional: tuple[str, ...]
) -> dict[str, Any]:
    fields: dict[str, Any] = _typed(pointer, value, dict, "an object")
    for name in required:
        if name not in fields:
            raise GraphJsonError(pointer, f"'{name}' is missing")
    for name in fields:
        if name not in required + optional:
            near = suggestion(name, required + optional)
            raise GraphJsonError(f"{pointer}/{_escaped(name)}", f"unknown field{near}")
    return fields


def _typed(pointer: str, value: Any, wanted: type, description: str) -> Any:
    if not isinstance(value, wanted):
        raise GraphJsonError(pointer, f"expected {description}; got {value!r}")
    return value


def _escaped(name: str) -> str:
    return name.replace("~", "~0").replace("/", "~1")
