"""Random graphs of every kind of node."""

from __future__ import annotations

from typing import Any

from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.workbench.formulas import notation
from quernbrook.workbench.graphs import FILTERS

REGISTERED = default_registry().names()
REDUCTIONS = [name for name in REGISTERED if "reduction" in name or name.startswith("weighted")]
ROTATIONS = sorted({*REGISTERED} - {*REDUCTIONS})
NOTATIONS = (*notation.BINARY, *notation.UNARY, notation.CHOICE, *notation.CALLS)

texts = st.text(max_size=6) | st.sampled_from(
    [
        "close",
        "Close",
        "returns",
        "adv20",
        "ADV5",
        "true",
        "sector",
        "IndClass.sector",
        'a"b\\',
        "rank",
    ]
)
identities = st.none() | st.none() | texts
finite = st.floats(allow_nan=False, allow_infinity=False)


def _value_strategy() -> st.SearchStrategy[Any]:
    plain = st.none() | st.booleans() | st.integers() | finite | texts
    return st.recursive(
        plain, lambda inner: st.lists(inner, max_size=2) | st.dictionaries(texts, inner, max_size=2)
    )


configs = st.none() | st.dictionaries(texts, _value_strategy(), max_size=2)

float_literals = st.builds(
    Node, st.just("float"), finite | st.integers(-3, 3).map(float), canonical_id=identities
)
int_literals = st.builds(Node, st.just("int"), st.integers(-2, 300), canonical_id=identities)
string_literals = st.builds(Node, st.just("string"), texts, canonical_id=identities)
bool_literals = st.builds(Node, st.just("bool"), st.booleans(), canonical_id=identities)
literals = float_literals | int_literals | string_literals | bool_literals
leaves = st.builds(
    Node, st.sampled_from(["feature", "feature", "aggregation"]), texts, canonical_id=identities
)


@st.composite
def _filters(draw: st.DrawFn, depth: int = 2) -> Node:
    operands = draw(st.lists(literals, max_size=3))
    if depth:
        operands += draw(st.lists(_filters(depth - 1), max_size=2))
    kind = draw(st.sampled_from(sorted(FILTERS)))
    name = draw(st.sampled_from([kind, kind, *sorted(FILTERS)]))
    return Node(kind, name, operands, canonical_id=draw(identities))


@st.composite
def _notations(draw: st.DrawFn, inner: st.SearchStrategy[Node]) -> Node:
    """A node as the notation makes it, now and then with something that it doesn't make."""
    function = draw(st.sampled_from(NOTATIONS))
    children = [draw(inner | float_literals) for _ in range(function.rows)]
    if function.has_window:
        children.append(draw(int_literals))
    elif function.has_optional_number and draw(st.booleans()):
        children.append(draw(float_literals))
    if draw(st.integers(0, 9)) == 0:
        children.append(draw(literals))
    config = dict(function.settings) if draw(st.integers(0, 9)) else draw(configs)
    return Node("rotation", function.function, children, config, draw(identities))


@st.composite
def _functions(draw: st.DrawFn, inner: st.SearchStrategy[Node], names: list[str] | None) -> Node:
    kind = draw(st.sampled_from(["rotation", "reduction"]))
    known = ROTATIONS if kind == "rotation" else REDUCTIONS
    name = draw(st.sampled_from(known) if names is not None else st.sampled_from(known) | texts)
    children = draw(st.lists(inner | literals | _filters(), max_size=3))
    return Node(kind, name, children, draw(configs), draw(identities))


def graphs(*, only_registered: bool = False) -> st.SearchStrategy[Node]:
    """Graphs of all kinds; with names that no registry knows unless `only_registered`."""
    names = REGISTERED if only_registered else None
    return st.recursive(
        leaves | literals,
        lambda inner: _notations(inner) | _functions(inner, names),
        max_leaves=8,
    )
