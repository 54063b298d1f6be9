"""Random functions, inputs and calls."""

from __future__ import annotations

from collections.abc import Sequence
from math import inf, nan
from typing import Any

from hypothesis import strategies as st
from properties.actions import STEADY
from properties.cases import CallCase, FunctionCase, NodeCase, SignalCase
from properties.cells import CELLS, DRAWS, PLAIN, Cells
from properties.functions import FAULTS, FUNCTION_KINDS
from properties.graphs import FEATURE_NAMES
from properties.tables import rarely, table

PARAMETERS = (
    (("p", "int"),),
    (("p", "float"), ("q", "string")),
    (("p", "array"), ("", "int"), ("q", "bool")),
    (("A", "int"),),
)


def functions(
    actions: Sequence[str] = (*sorted(STEADY) * 2, *FAULTS),
    parameters: Sequence[Any] = rarely(*PARAMETERS[:-1] * 3, *PARAMETERS, one_in=3),
    families: Sequence[Any] = rarely("virtualization", "other", one_in=12),
    known: Sequence[bool] = rarely(False, otherwise=True, one_in=24),
    states: Sequence[str] = ("count",),
    windows: Sequence[int | None] = (3,),
) -> st.SearchStrategy[FunctionCase]:
    columns = {
        "action": actions,
        "faulty_row": range(4),
        "stateful": (False, True),
        "arity": (False, True),
        "parameters": parameters,
        "family": families,
        "known": known,
        "state": states,
        "window": windows,
    }
    return table(*columns.values()).map(
        lambda row: FunctionCase(**dict(zip(columns, row, strict=True)))
    )


# --- the context ---------------------------------------------------------------------------------

SHAPES = table((3, 4, 5, 2, 1, 4, 3, 2, 5, 6, 7, 0), (2, 3, 4, 1, 5, 2, 3, 0))
POOLS = (("x",), ("y", "x"), ("z", "x", "y"))
PNL_WIDTHS = (2,) * 8 + (0, 0, 1, 3)
PNL_VECTORS = (
    (),
    (("x", (("gross_returns", 1.5), ("net", -0.0))), ("z", (("net", inf),))),
    (("y", (("gross_returns", nan),)),),
)


def draw_pool(
    draw: st.DrawFn, cells: Cells, shape: tuple[int, int], forms: st.SearchStrategy[tuple[str, str]]
) -> tuple[tuple[str, SignalCase], ...]:
    names, pnl_columns, sharpe = draw(table(POOLS, PNL_WIDTHS, (1.0, 0.0, 2.0, -1.0)))
    weights_form, pnl_form = draw(forms), draw(forms)
    return tuple(
        (
            name,
            SignalCase(
                cells.matrix(shape, weights_form),
                cells.matrix((shape[0], pnl_columns), pnl_form) if pnl_columns else None,
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
    forms: st.SearchStrategy[tuple[str, str]] = PLAIN,
    universes: Sequence[bool] = (False, True),
) -> tuple[Cells, dict[str, Any]]:
    """The graph with the inputs, the functions and the pool that it needs."""
    shape = draw(SHAPES)
    cells = Cells(draw(DRAWS), CELLS)
    used = {node.value for _, node in graph.paths_of(FUNCTION_KINDS)}
    with_universe, with_pool = draw(table(universes, rarely(True, otherwise=False, one_in=4)))
    if graph.paths_of(("reduction",)):
        with_pool = not with_pool
    return cells, {
        "graph": graph,
        "shape": shape,
        "features": tuple((name, cells.matrix(shape, draw(forms))) for name in FEATURE_NAMES),
        "functions": tuple((name, draw(functions)) for name in sorted(used)),
        "universe": cells.matrix(shape, draw(forms)) if with_universe else None,
        "pool": draw_pool(draw, cells, shape, forms) if with_pool else (),
    }


# --- calls ---------------------------------------------------------------------------------------

STATES: tuple[dict[str, int] | None, ...] = (
    {"count": 1},
    {"count": 2},
    {"count": 5, "window": 3},
    {},
    None,
)


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
            rarely(("a",), ("b", "c"), (), "ab", one_in=4),
        )
    )
    states = draw_states(draw, graph, faulty=fault == "states") if with_states else None
    return CallCase((), states, cold, bound, nan_features)
