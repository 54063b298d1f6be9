"""Random graphs, contexts, registries, bound functions and faults."""

from __future__ import annotations

from typing import Any

from hypothesis import strategies as st
from properties.actions import FAULTS, STEADY
from properties.cases import FunctionCase, MatrixCase, NodeCase, RunCase, SignalCase

FUNCTION_KINDS = ("rotation", "reduction")
FUNCTION_NAMES = ("f", "g", "h", "weighted_by_vol")
FEATURE_NAMES = ("a", "b", "c")
CANONICAL_IDS = ("id", "other")
SPECIAL = (0.0, -0.0, 1.0, -1.0, float("inf"), float("-inf"), float("nan"), 5e-324, 1.7e308)


def rarely(strategy: st.SearchStrategy[Any], otherwise: Any, *, one_in: int) -> Any:
    """`otherwise`, and once in a while what the strategy gives."""
    # Not `integers`: it favours its ends.
    return st.sampled_from(range(one_in)).flatmap(
        lambda drawn: strategy if drawn == one_in - 1 else st.just(otherwise)
    )


numbers = st.one_of(
    st.sampled_from(SPECIAL), st.integers(-9, 9).map(float), st.floats(width=64, allow_nan=False)
)
small = st.integers(-3, 9)
literal_values = {
    "float": st.one_of(numbers, small, st.sampled_from(["1.5", True]), st.just("x")),
    "int": st.one_of(small, small, st.sampled_from([2.5, "3", "x", None, 10**400])),
    "string": st.sampled_from(["", "net", "gross_returns"]),
    "bool": st.sampled_from([True, False, 0, "x"]),
}


@st.composite
def leaves(draw: st.DrawFn) -> NodeCase:
    kind = draw(
        st.sampled_from(["feature"] * 5 + ["aggregation", "float", "float", "int", "string"])
        | st.sampled_from(["bool", "odd"])
    )
    if kind in ("feature", "aggregation"):
        value = draw(st.sampled_from(FEATURE_NAMES))
    else:
        value = draw(literal_values.get(kind, st.none()))
    identity = draw(rarely(st.sampled_from(CANONICAL_IDS), None, one_in=5))
    return NodeCase(kind, value, canonical_id=identity)


@st.composite
def filters(draw: st.DrawFn) -> tuple[NodeCase, ...]:
    """At most one filtration over the signals' field."""
    name = draw(st.sampled_from(["gt", "lte", "top_n", "zz", None, None]))
    if name is None:
        return ()
    bound = NodeCase("int" if name == "top_n" else "float", draw(st.integers(-1, 3)))
    field = NodeCase("string", draw(rarely(st.just("missing"), "sharpe", one_in=8)))
    return (NodeCase("filtration", "filtration", (NodeCase(name, name, (field, bound)),)),)


@st.composite
def inner(draw: st.DrawFn, below: st.SearchStrategy[NodeCase]) -> NodeCase:
    kind = draw(st.sampled_from(("rotation",) * 8 + ("reduction", "reduction", "odd")))
    keys = st.sampled_from(["window", "k", "p", "q", "invert"])
    keys = keys | rarely(st.sampled_from(["A", "N_alloc"]), "k", one_in=8)
    config = st.dictionaries(keys, small, max_size=2).map(lambda drawn: tuple(drawn.items()))
    children = tuple(draw(st.lists(below, max_size=4)))
    if kind == "reduction":
        children = (*draw(filters()), *children)
        column = st.sampled_from(["net", "gross_returns", "zz", ""])
        config = config | column.map(lambda name: (("pnl_column", name),))
    return NodeCase(
        kind,
        draw(st.sampled_from(FUNCTION_NAMES)),
        children,
        draw(rarely(config, None, one_in=3)),
        draw(rarely(st.sampled_from(CANONICAL_IDS), None, one_in=6)),
        draw(rarely(st.sampled_from(["bare", "root"]), None, one_in=8)),
        draw(st.sampled_from(["list", "list", "tuple", "None if empty"])),
    )


subgraphs = st.recursive(leaves(), inner, max_leaves=6)
graphs = st.one_of(inner(subgraphs), inner(subgraphs), subgraphs)

LAYOUTS = ("C", "C", "C", "F", "reversed", "strided", "read-only")
DTYPES = ("float64",) * 6 + ("float32", ">f8", "int64", "bool")


@st.composite
def matrices(draw: st.DrawFn, shape: tuple[int, int], values: Any = numbers) -> MatrixCase:
    rows, columns = shape
    dtype = draw(rarely(st.just("object"), draw(st.sampled_from(DTYPES)), one_in=20))
    if dtype in ("int64", "bool"):
        values = small
    row = st.tuples(*[values] * columns)
    drawn = draw(st.tuples(*[row] * rows))
    return MatrixCase(drawn, dtype, draw(st.sampled_from(LAYOUTS)))


@st.composite
def pools(draw: st.DrawFn, shape: tuple[int, int]) -> tuple[tuple[str, SignalCase], ...]:
    pnl = st.none() | matrices((shape[0], 2))
    return tuple(
        (name, SignalCase(draw(matrices(shape)), draw(pnl), draw(st.integers(-1, 3).map(float))))
        for name in draw(st.permutations("xyz"))[: draw(st.integers(1, 3))]
    )


PNL_VECTORS = (
    (),
    (("x", (("gross_returns", 1.5), ("net", -0.0))), ("z", (("net", float("inf")),))),
    (("y", (("gross_returns", float("nan")),)),),
)


@st.composite
def functions(draw: st.DrawFn) -> FunctionCase:
    kinds = st.sampled_from(["int", "float", "string", "bool", "array"])
    names = st.sampled_from(["p", "q", "A", ""])
    parameters = st.lists(st.tuples(names, kinds), max_size=3).map(tuple)
    return FunctionCase(
        draw(st.sampled_from(sorted(STEADY) * 2 + sorted(FAULTS) + ["raise"] * 2)),
        draw(st.integers(0, 3)),
        draw(st.booleans()),
        draw(st.booleans()),
        draw(st.none() | parameters),
        draw(rarely(st.sampled_from(["virtualization", "other"]), None, one_in=6)),
        draw(rarely(st.just(False), True, one_in=12)),
    )


HOST_FAULTS = ("misshapen feature", "missing feature", "states", "binding", "stored row")


@st.composite
def run_cases(draw: st.DrawFn) -> RunCase:
    """Runs with at most one fault of the host; functions may have faults of their own."""
    fault = draw(rarely(st.sampled_from(HOST_FAULTS), None, one_in=3))
    graph = draw(graphs)
    shape = (draw(st.sampled_from([3, 4, 5, 2, 1, 0])), draw(st.sampled_from([2, 3, 1])))
    features = [(name, draw(matrices(shape))) for name in FEATURE_NAMES]
    position = draw(st.integers(0, len(features) - 1))
    if fault == "missing feature":
        del features[position]
    elif fault == "misshapen feature":
        other = draw(st.sampled_from([(shape[0] + 1, shape[1]), (1, 1), (2, 5)]))
        features[position] = (features[position][0], draw(matrices(other)))
    return RunCase(
        graph=graph,
        shape=shape,
        features=tuple(features),
        functions=tuple((name, draw(functions())) for name in FUNCTION_NAMES),
        universe=draw(st.none() | matrices(shape)),
        pool=draw(
            rarely(pools(shape), (), one_in=3)
            if not graph.paths_of(("reduction",))
            else rarely(st.just(()), None, one_in=6).flatmap(
                lambda none: pools(shape) if none is None else st.just(none)
            )
        ),
        pnl_vectors=draw(rarely(st.sampled_from(PNL_VECTORS), None, one_in=4)),
        cold=draw(st.booleans()),
        bound=draw(bindings(graph, faulty=fault == "binding")),
        states=draw(states_of(graph, faulty=fault == "states")),
        precomputed=draw(st.none() | stored_rows(shape[1] + (fault == "stored row"))),
        collect=draw(st.none() | st.booleans()),
        collect_states=draw(st.none() | st.booleans()),
        nan_features=draw(rarely(st.sampled_from([("a",), ("b", "c"), ()]), None, one_in=4)),
        registry=draw(rarely(st.just(False), True, one_in=8)),
        validate=draw(st.sampled_from([False, False, fault != "misshapen feature", True])),
        runs=draw(st.sampled_from([1, 1, 2])),
    )


def bindings(graph: NodeCase, *, faulty: bool) -> st.SearchStrategy[str]:
    if not faulty:
        return st.sampled_from(["no", "all"])
    paths = [path for path, _ in graph.paths_of(FUNCTION_KINDS)]
    return st.sampled_from(
        ["none", *(f"{fault} {path}" for fault in ("without", "None at") for path in paths)]
    )


def states_of(graph: NodeCase, *, faulty: bool) -> st.SearchStrategy[Any]:
    state = st.sampled_from([{"count": 1}, {"count": 2}, {"count": 5, "window": 3}, {}, None])
    keys = [node.state_identity or path for path, node in graph.paths_of(FUNCTION_KINDS)]
    states = st.tuples(*[st.tuples(st.just(key), state) for key in keys])
    if not faulty:
        return st.none() | states
    return states.map(lambda pairs: pairs[1:]) | states.map(lambda pairs: (*pairs, ("other", {})))


def stored_rows(length: int) -> st.SearchStrategy[Any]:
    row = st.lists(numbers, min_size=length, max_size=length)
    identity = st.sampled_from([*CANONICAL_IDS, None])
    return st.lists(st.tuples(identity, row), max_size=3).map(tuple)
