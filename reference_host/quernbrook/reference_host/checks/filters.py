"""Whether each filter has the operands that it needs, and whether the pool has its fields."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

from quernbrook.functions.filtrations import FiltrationInstance
from quernbrook.functions.filtrations_evaluation import OPERATORS, FilterNode, faults_of
from quernbrook.reference_host.checks.faults import Fault, nearest
from quernbrook.reference_host.checks.kinds import KINDS, LITERALS, is_sound_literal
from quernbrook.reference_host.checks.places import Place

_WITHOUT_FIELD = frozenset({"filtration", "and_", "or_", "not_"})
_COMPARISONS = frozenset({"gt", "lt", "gte", "lte", "eq", "neq"})
_BY_SHARE = frozenset({"top_pct", "bottom_pct"})
_BY_NUMBER = frozenset({"top_n", "bottom_n"})


def check_filter(place: Place, context: Any) -> Iterator[Fault]:
    """Check one filter, apart from those under it."""
    if place.kind not in OPERATORS:
        return
    name = place.value
    if not isinstance(name, str) or name not in OPERATORS:
        yield Fault(place.path, f"unknown filter {name!r}", nearest(name, OPERATORS))
        return
    if place.kind not in ("filtration", name):
        yield Fault(place.path, f"the kind of this filter is '{place.kind}', its operator '{name}'")
    operands = _operands(place)
    used = [child for found in operands.values() for child in found]
    for child in place.children:
        if child.kind in KINDS - {"filtration"} and child not in used:
            yield Fault(child.path, f"filter '{name}' passes over this {child.kind}")
    if place.is_whole and all(map(is_sound_literal, used)):
        below = [FilterNode("") for child in place.children if child.kind in OPERATORS]
        for text in faults_of(FilterNode(name, _params(operands), below)):
            yield Fault(place.path, text)
    for field in operands.get("field", []):
        if is_sound_literal(field):
            yield from _check_field(field, context)


def check_pool(place: Place, context: Any) -> Iterator[Fault]:
    """Try a reduction's filtration on the pool, if nothing else is wrong with it."""
    if place.kind != "filtration" or place.parent is None or place.parent.kind != "reduction":
        return
    below = list(place.all())
    is_sound = all(
        child.kind in OPERATORS or (child.kind in LITERALS and is_sound_literal(child))
        for child in below
    )
    if not is_sound or not context.useful_signals:
        return
    if any(not child.is_whole or any(check_filter(child, context)) for child in below):
        return
    try:
        FiltrationInstance(_filter_tree(place), None)(context.useful_signals)
    except Exception as error:  # noqa: BLE001
        yield Fault(place.path, str(error))


def _check_field(operand: Place, context: Any) -> Iterator[Fault]:
    pool = context.useful_signals
    lacking = [sid for sid, signal in pool.items() if operand.value not in signal.fields]
    if lacking:
        known = {name for signal in pool.values() for name in signal.fields}
        yield Fault(
            operand.path,
            f"{len(lacking)} of {len(pool)} signals have no field '{operand.value}', first "
            f"'{lacking[0]}'",
            nearest(operand.value, known),
        )


def _operands(place: Place) -> dict[str, list[Place]]:
    """The children that the evaluator takes for each of the filter's parameters."""
    name = place.value
    texts, floats, ints = (
        [child for child in place.children if child.kind == kind]
        for kind in ("string", "float", "int")
    )
    found: dict[str, list[Place]] = {}
    if name not in _WITHOUT_FIELD:
        found["field"] = texts[:1]
    if name in ("eq", "neq") and len(texts) > 1:
        found["value"] = texts[1:2]
    elif name in _COMPARISONS:
        found["value"] = (floats or ints)[:1]
    elif name == "between" and len(floats) > 1:
        found["low"], found["high"] = floats[:1], floats[1:2]
    elif name == "in_":
        found["values"] = texts[1:]
    elif name in _BY_SHARE:
        found["pct"] = floats[:1]
    elif name in _BY_NUMBER:
        found["n"] = ints[:1]
    return {parameter: children for parameter, children in found.items() if children}


def _params(operands: dict[str, list[Place]]) -> dict[str, Any]:
    return {
        parameter: [child.value for child in children]
        if parameter == "values"
        else children[0].value
        for parameter, children in operands.items()
    }


def _filter_tree(place: Place) -> FilterNode:
    children = [_filter_tree(child) for child in place.children if child.kind in OPERATORS]
    return FilterNode(place.value, _params(_operands(place)), children)
