"""Random graphs, filters and literals."""

from __future__ import annotations

from collections.abc import Sequence
from math import inf, nan
from typing import Any

from hypothesis import strategies as st
from properties.cases import NodeCase
from properties.tables import rarely, table

FUNCTION_NAMES = ("f", "g", "h", "weighted_by_vol")
FEATURE_NAMES = ("a", "b", "c")
CANONICAL_IDS = ("id", "other")

FEATURES = tuple(NodeCase("feature", name) for name in FEATURE_NAMES)
LITERALS = (
    *(NodeCase("float", value) for value in (1.0, 2.5, -0.0, inf, nan, 5e-324, 3, "1.5", True)),
    *(NodeCase("int", value) for value in (1, 2, 3, 4, 0, -2, 7, True, 2.5, "3")),
    *(NodeCase("string", value) for value in ("net", "gross_returns", "")),
    *(NodeCase("bool", value) for value in (True, False, 0, "x")),
)
FAULTY_LITERALS = (
    *(NodeCase("int", value) for value in ("x", None, 10**400)),
    *(NodeCase("float", value) for value in ("x", None)),
    NodeCase("odd", None),
)
LEAVES = (
    *FEATURES * 9,
    *(NodeCase("feature", name, canonical_id="id") for name in FEATURE_NAMES),
    NodeCase("aggregation", "b"),
    NodeCase("aggregation", "c", canonical_id="other"),
    *LITERALS,
)
CONFIGS = (
    *((("window", 2),), (("k", 1),), (("p", 3), ("q", 4)), (("invert", True),)),
    *((("pnl_column", "net"),), (("pnl_column", "zz"),), (("pnl_column", ""),), ()),
)
FAULTY_CONFIGS = ((("A", 1),), (("N_alloc", 2), ("A", 1)))


def heads(
    kinds: Sequence[str] = ("rotation",) * 6 + ("reduction",) * 2,
    names: Sequence[str] = FUNCTION_NAMES,
    configs: Sequence[Any] = rarely(*CONFIGS, one_in=3),
    ids: Sequence[Any] = rarely(*CANONICAL_IDS, one_in=6),
    identities: Sequence[Any] = rarely("bare", "root", one_in=8),
    sequences: Sequence[str] = ("list", "list", "tuple", "None if empty"),
) -> st.SearchStrategy[tuple[Any, ...]]:
    """Function nodes without their children."""
    return table(kinds, names, configs, ids, identities, sequences)


#: Which children are functions and which leaves.
CHILDREN = st.sampled_from(
    ("f", "l", "fl", "ll", "lf", "lll", "ff", "lfl", "fll", "flf", "llll", "")
)


@st.composite
def graphs(
    draw: st.DrawFn,
    heads: st.SearchStrategy[tuple[Any, ...]],
    leaves: Sequence[NodeCase] = LEAVES,
    filters: Sequence[tuple[NodeCase, ...]] = (),
    depth: int = 3,
) -> NodeCase:
    """A function over functions and leaves."""
    kind, name, config, identity, state_identity, sequence = draw(heads)
    children: list[NodeCase] = []
    if kind == "reduction" and filters:
        children += draw(st.sampled_from(filters))
    below = graphs(heads, leaves, filters, depth - 1) if depth > 1 else st.sampled_from(leaves)
    for child in draw(CHILDREN):
        children.append(draw(below if child == "f" else st.sampled_from(leaves)))
    return NodeCase(kind, name, tuple(children), config, identity, state_identity, sequence)


@st.composite
def mostly(
    draw: st.DrawFn, graphs: st.SearchStrategy[NodeCase], others: Sequence[NodeCase]
) -> NodeCase:
    """The graphs, and once in a while one of the others."""
    return draw(graphs if draw(st.sampled_from(range(16))) else st.sampled_from(others))


def filtration(operator: str, *operands: NodeCase) -> NodeCase:
    return NodeCase("filtration", "filtration", (NodeCase(operator, operator, operands),))


SHARPE, MISSING = NodeCase("string", "sharpe"), NodeCase("string", "missing")
ONE, TWO = NodeCase("float", 1), NodeCase("int", 2)
FILTERS = (
    *[()] * 4,
    (filtration("gt", SHARPE, NodeCase("float", 0)),),
    (filtration("lte", SHARPE, ONE),),
    (filtration("top_n", SHARPE, TWO),),
    (filtration("gt", SHARPE, ONE), filtration("top_n", SHARPE, TWO)),
)
FAULTY_FILTERS = (
    (filtration("gt", SHARPE, NodeCase("float", 99)),),
    (filtration("gt", MISSING, ONE),),
    (filtration("zz", SHARPE),),
    (NodeCase("filtration", "filtration"),),
)
