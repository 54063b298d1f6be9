"""Whether each node's kind is known and may stand where it stands, and what leaves hold."""

from __future__ import annotations

import numbers
from collections.abc import Iterator
from typing import Any

import numpy as np
from quernbrook.functions.filtrations_evaluation import OPERATORS
from quernbrook.reference_host.checks.faults import Fault, nearest
from quernbrook.reference_host.checks.places import Place

LITERALS = frozenset({"float", "int", "string", "bool"})
LEAVES = frozenset({"feature", "aggregation"})
FUNCTIONS = frozenset({"rotation", "reduction"})
# Filters that a filtration holds; a filtration may stand among them, too.
FILTERS = OPERATORS - {"filtration"}
# What may stand outside filtrations and templates.
KINDS = LITERALS | LEAVES | FUNCTIONS | {"filtration"}
_HELD: dict[str, Any] = {
    "float": numbers.Real,
    "int": numbers.Integral,
    "string": str,
    "bool": (bool, np.bool_),
}


def check_kind(place: Place, in_template: bool) -> Iterator[Fault]:
    kind, above = place.kind, None if place.parent is None else place.parent.kind
    in_filter = above in OPERATORS
    if kind not in KINDS | FILTERS | {"signal"}:
        known = KINDS | {"signal"} if in_template else KINDS
        known = LITERALS | OPERATORS if in_filter else known
        harm = "filters nothing" if in_filter or above == "reduction" else "gives zeros"
        yield Fault(place.path, f"unknown kind {kind!r}, which {harm}", nearest(kind, known))
    elif kind == "signal" and not in_template:
        yield Fault(place.path, "a 'signal' belongs into the template of a transform stage")
    elif kind in FILTERS and not in_filter:
        yield Fault(
            place.path,
            f"filter '{kind}' stands outside a filtration and filters nothing",
            "filtration",
        )
    elif kind == "filtration" and above != "reduction" and not in_filter:
        yield Fault(place.path, "a filtration belongs below a reduction; here it gives zeros")
    elif kind == "string" and above is None:
        yield Fault(place.path, "a text has no row to give; here it gives zeros")
    if kind in LITERALS | LEAVES | {"signal"} and place.children:
        yield Fault(
            place.path, f"a node of kind '{kind}' takes no children; it has {len(place.children)}"
        )
    if place.config and kind not in FUNCTIONS:
        yield Fault(place.path, f"config is never read in a node of kind '{kind}'")


def is_sound_literal(place: Place) -> bool:
    is_bool = isinstance(place.value, (bool, np.bool_))
    return isinstance(place.value, _HELD[place.kind]) and is_bool == (place.kind == "bool")


def check_literal(place: Place) -> Iterator[Fault]:
    if place.kind in LITERALS and not is_sound_literal(place):
        yield Fault(place.path, f"a literal of kind '{place.kind}' can't be {place.value!r}")


def check_feature(place: Place, context: Any) -> Iterator[Fault]:
    name = place.value
    if place.kind not in LEAVES or not isinstance(name, str) or name in context.feature_index:
        return
    arrays = [key for key in context.stage_data.names() if _is_matrix(context, key)]
    if name in arrays:
        return
    if name in context.stage_data.names():
        yield Fault(place.path, f"'{name}' of the stage data is no array of two dimensions")
        return
    suggestion = nearest(name, [*context.feature_index, *arrays])
    yield Fault(place.path, f"the context has no feature '{name}'", suggestion)


def _is_matrix(context: Any, name: str) -> bool:
    value = context.stage_data.value(name)
    return isinstance(value, np.ndarray) and value.ndim == 2
