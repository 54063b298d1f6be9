"""Names with parentheses after them."""

from __future__ import annotations

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry
from quernbrook.workbench.formulas import forms, literals, notation_calls, registered_calls
from quernbrook.workbench.formulas.operands import Call, Fault
from quernbrook.workbench.formulas.scope import Scope
from quernbrook.workbench.graphs import FILTERS
from quernbrook.workbench.names import suggestion


def build(call: Call, scope: Scope) -> Node:
    """Raises Fault."""
    if call.name in forms.LITERALS:
        return forms.literal(call)
    if call.name in forms.FEATURES:
        return forms.feature(call)
    if call.name in forms.FUNCTIONS:
        return forms.function(call, scope)
    if _is_filter(call.name):
        kind, _, operator = call.name.rpartition(".")
        return forms.filter_node(call, kind or operator, operator)
    notation = notation_calls.BY_NAME.get(call.name.lower())
    if notation is not None:
        return notation_calls.build(call, notation, scope)
    registered = scope.function(call.name)
    if registered is not None:
        return registered_calls.build(call, registered, scope)
    known = {*notation_calls.BY_NAME, *scope.functions, *FILTERS, *forms.NAMES}
    raise Fault(f"unknown function '{call.name}'{suggestion(call.name, known)}", call.at)


def _is_filter(name: str) -> bool:
    """Whether a name is that of a filter, or a filter's kind, a dot and another filter's name."""
    parts = name.split(".")
    return len(parts) <= 2 and FILTERS.issuperset(parts)


def registered_kind(name: str, registry: FunctionRegistry) -> str | None:
    """The kind of node that a call of `name` makes, or None if it calls no registered function."""
    taken = name in forms.NAMES or _is_filter(name) or name.lower() in notation_calls.BY_NAME
    if taken or not literals.DOTTED_NAME.fullmatch(name) or not registry.has(name):
        return None
    return registered_calls.kind_of(registry.get_entry(name))
