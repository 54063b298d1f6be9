"""Random graphs, contexts, registries, bound functions and faults.

A draw costs more than a run. So choices are drawn from tables, several at once, and the cells of
all matrices of a case come out of one draw.
"""

from __future__ import annotations

from collections.abc import Sequence
from math import inf, nan, prod
from typing import Any

from hypothesis import strategies as st
from properties.actions import STEADY
from properties.cases import CallCase, Cell, FunctionCase, MatrixCase, NodeCase, SignalCase
from properties.host import FAULTS, FUNCTION_KINDS

FUNCTION_NAMES = ("f", "g", "h", "weighted_by_vol")
FEATURE_NAMES = ("a", "b", "c")
CANONICAL_IDS = ("id", "other")


def rarely(*values: Any, otherwise: Any = None, one_in: int) -> tuple[Any, ...]:
    """A column of a table: `otherwise`, and once in a while one of the values."""
    return (otherwise,) * (one_in - 1) * len(values) + values


def table(*columns: Sequence[Any]) -> st.SearchStrategy[tuple[Any, ...]]:
    """One choice out of each column; the first ones are the simplest."""

    def row(number: int) -> tuple[Any, ...]:
        chosen = []
        for column in columns:
            number, place = divmod(number, len(column))
            chosen.append(column[place])
        return tuple(chosen)

    # Not `integers`: it favours its ends.
    return st.sampled_from(range(prod(map(len, columns)))).map(row)


# --- matrices ------------------------------------------------------------------------------------

INTEGERS = tuple(float(number) for number in (*range(10), *range(-9, 0)))
FRACTIONS = (0.5, -0.25, 0.1, 1 / 3, -2 / 3, 1e-9, 123456.789, -98765.4321)
ODD = (nan, -0.0, inf, -inf, 5e-324, -5e-324, 2.2250738585072014e-308, 1.7e308, -1.7e308)
#: NaNs of a sign and payloads of their own, one of them signalling.
PAYLOADS = ("fff8000000000000", "7ff800000000beef", "7ff0000000000001")
CLOSE = (1.0000000000000002, 0.9999999999999999, 9007199254740992.0, 9007199254740994.0)

CELLS: tuple[Cell, ...] = (*INTEGERS, *FRACTIONS, nan, *ODD, *PAYLOADS, *CLOSE)
TAME_CELLS: tuple[Cell, ...] = (*INTEGERS, *FRACTIONS)
CELLS_DRAWN = 40
DRAWS = st.binary(min_size=CELLS_DRAWN, max_size=CELLS_DRAWN)

LAYOUTS = ("C",) * 6 + ("F", "reversed", "strided", "repeated", "misaligned", "subclass")
LAYOUTS = (*LAYOUTS, "read-only")
DTYPES = ("float64",) * 12 + ("float32", ">f8", "int64", "bool", "longdouble", "object", "uint8")
FORMS = table(DTYPES, LAYOUTS)
PLAIN = st.just(("float64", "C"))


class Cells:
    """The cells of all matrices of a case, out of one draw."""

    def __init__(self, drawn: bytes, values: Sequence[Cell]) -> None:
        self.drawn, self.values = drawn, values
        self.taken = 0

    def take(self) -> Cell:
        # The second time round, other values fall to the same bytes.
        turn, place = divmod(self.taken, len(self.drawn))
        self.taken += 1
        byte = self.drawn[place]
        return self.values[(byte + (7 * turn if byte else 0)) % len(self.values)]

    def matrix(self, shape: tuple[int, int], form: tuple[str, str]) -> MatrixCase:
        rows, columns = shape
        drawn = tuple(tuple(self.take() for _ in range(columns)) for _ in range(rows))
        return MatrixCase(drawn, *form, columns=None if rows else columns)

    def row(self, columns: int) -> MatrixCase:
        return self.matrix((1, columns), ("float64", "C"))


# --- graphs --------------------------------------------------------------------------------------

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


@st.composite
def graphs(
    draw: st.DrawFn,
    heads: st.SearchStrategy[tuple[Any, ...]],
    leaves: Sequence[NodeCase] = LEAVES,
    filters: Sequence[tuple[NodeCase, ...]] = (),
    depth: int = 3,
) -> NodeCase:
    """A function over functions and leaves; the deeper, the fewer functions."""
    kind, name, config, identity, state_identity, sequence = draw(heads)
    children = []
    if kind == "reduction" and filters:
        children += draw(st.sampled_from(filters))
    # A negative number stands for so many children of which the first is a function.
    count = draw(st.sampled_from((-1, 1, -2, 2, -3, 3, 0)[: 7 if depth > 1 else None]))
    for position in range(abs(count)):
        if depth > 1 and count < 0 and position == 0:
            children.append(draw(graphs(heads, leaves, filters, depth - 1)))
        else:
            children.append(draw(st.sampled_from(leaves)))
    return NodeCase(kind, name, tuple(children), config, identity, state_identity, sequence)


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

# --- functions -----------------------------------------------------------------------------------

PARAMETERS = (
    (("p", "int"),),
    (("p", "float"), ("q", "string")),
    (("p", "array"), ("", "int"), ("q", "bool")),
    (("A", "int"),),
)


def functions(
    actions: Sequence[str] = (*sorted(STEADY) * 2, *FAULTS),
    parameters: Sequence[Any] = rarely(*PARAMETERS, one_in=3),
    families: Sequence[Any] = rarely("virtualization", "other", one_in=8),
    known: Sequence[bool] = rarely(False, otherwise=True, one_in=16),
    states: Sequence[str] = ("count",),
    windows: Sequence[int | None] = (3,),
    factories: Sequence[bool] = (True,),
) -> st.SearchStrategy[FunctionCase]:
    columns = (actions, range(4), (False, True), (False, True), parameters, families, known)
    return table(*columns, factories, ((),), states, windows).map(
        lambda row: FunctionCase(*row)
    )


# --- the context ---------------------------------------------------------------------------------

SHAPES = table((3, 4, 5, 2, 1, 0), (2, 3, 1, 4))
POOLS = (("x",), ("y", "x"), ("z", "x", "y"))
PNL_VECTORS = (
    (),
    (("x", (("gross_returns", 1.5), ("net", -0.0))), ("z", (("net", inf),))),
    (("y", (("gross_returns", nan),)),),
)


def draw_pool(
    draw: st.DrawFn, cells: Cells, shape: tuple[int, int]
) -> tuple[tuple[str, SignalCase], ...]:
    names, with_pnl, sharpe = draw(table(POOLS, (True, True, False), (1.0, 0.0, 2.0, -1.0)))
    return tuple(
        (
            name,
            SignalCase(
                cells.matrix(shape, ("float64", "C")),
                cells.matrix((shape[0], 2), ("float64", "C")) if with_pnl else None,
                sharpe + place,
            ),
        )
        for place, name in enumerate(names)
    )


def draw_setting(
    draw: st.DrawFn,
    graph: NodeCase,
    functions: st.SearchStrategy[FunctionCase],
    *,
    shapes: st.SearchStrategy[tuple[int, int]] = SHAPES,
    forms: st.SearchStrategy[tuple[str, str]] = PLAIN,
    values: Sequence[Cell] = CELLS,
    universes: Sequence[bool] = (False, True),
) -> tuple[Cells, dict[str, Any]]:
    """The graph with the inputs, the functions and the pool that it needs."""
    shape = draw(shapes)
    cells = Cells(draw(DRAWS), values)
    used = {node.value for _, node in graph.paths_of(FUNCTION_KINDS)}
    with_universe, with_pool = draw(table(universes, rarely(True, otherwise=False, one_in=4)))
    if graph.paths_of(("reduction",)):
        with_pool = not with_pool
    return cells, {
        "graph": graph,
        "shape": shape,
        "features": tuple(
            (name, cells.matrix(shape, draw(forms))) for name in FEATURE_NAMES
        ),
        "functions": tuple((name, draw(functions)) for name in sorted(used)),
        "universe": cells.matrix(shape, draw(forms)) if with_universe else None,
        "pool": draw_pool(draw, cells, shape) if with_pool else (),
    }


# --- calls ---------------------------------------------------------------------------------------

STATES = ({"count": 1}, {"count": 2}, {"count": 5, "window": 3}, {}, None)


def bindings(graph: NodeCase, *, faulty: bool) -> tuple[str, ...]:
    if not faulty:
        return ("no", "all")
    paths = [path for path, _ in graph.paths_of(FUNCTION_KINDS)]
    return ("none", *(f"{fault} {path}" for fault in ("without", "None at") for path in paths))


def draw_states(draw: st.DrawFn, graph: NodeCase, *, faulty: bool = False) -> Any:
    """A state for every function; one too few or too many if faulty."""
    keys = [node.state_identity or path for path, node in graph.paths_of(FUNCTION_KINDS)]
    (state, surplus) = draw(table(STATES, (True, False)))
    states = tuple((key, state) for key in keys)
    if not faulty:
        return states
    return (*states, ("other", {})) if surplus else states[1:]


def draw_call(draw: st.DrawFn, graph: NodeCase, *, fault: str | None = None) -> CallCase:
    with_states, cold, bound, nan_features = draw(
        table(
            (False, True, fault == "states"),
            (False, True),
            bindings(graph, faulty=fault == "binding"),
            rarely(("a",), ("b", "c"), (), one_in=4),
        )
    )
    states = draw_states(draw, graph, faulty=fault == "states") if with_states else None
    return CallCase((), states, cold, bound, nan_features)
