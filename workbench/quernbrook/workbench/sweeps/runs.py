"""Runs, and how many of them come from one text."""

from __future__ import annotations

import itertools
import json
import math
import string
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, TypeAlias

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.sweeps.errors import SweepError

if TYPE_CHECKING:
    import pandas as pd
    from quernbrook.workbench.panels.labels import Date

Parameter: TypeAlias = int | float | str | bool
Graph: TypeAlias = str | Node | Callable[..., Node]

OPTIONS = ("current_day_index", "metaparameters", "pool_id", "universe_tag", "validate_inputs")
_LONGEST_NAME = 200


@dataclass(frozen=True)
class Run:
    """One evaluation.

    name: as its row in the manifest and its folder are called; none twice in a sweep.
    graph: a formula, the text of a JSON graph, a graph, or a function that makes a graph of the
        parameters. In texts, $days stands for the parameter days, $$ for a dollar.
    parameters: numbers, texts and truth values by name. A text stands in the formula as it is.
    first_date, last_date: the dates that the run sees, both included; all without them.
    symbols: those that the run sees, in this order; all without them.
    universe: a field that is the universe instead of the panel's.
    options: of the context: current_day_index, metaparameters, pool_id, universe_tag and
        validate_inputs.
    """

    name: str
    graph: Graph
    parameters: Mapping[str, Parameter] = field(default_factory=dict)
    first_date: Date | None = None
    last_date: Date | None = None
    symbols: Sequence[Any] | None = None
    universe: str | None = None
    options: Mapping[str, Any] = field(default_factory=dict)


def runs_from_grid(
    name: str, graph: Graph, grid: Mapping[str, Iterable[Parameter]], **others: Any
) -> list[Run]:
    """Return a run for each combination of values, the last parameter changing first.

    name: with $parameters, as in formulas. others: what else a `Run` takes.

    Raises SweepError for a name that lacks a parameter of several values, or has one that isn't
    there.
    """
    values = {parameter: list(choices) for parameter, choices in grid.items()}
    rows = itertools.product(*values.values())
    return runs_from_table(
        name, graph, [dict(zip(values, row, strict=True)) for row in rows], **others
    )


def runs_from_table(
    name: str,
    graph: Graph,
    table: pd.DataFrame | Iterable[Mapping[str, Parameter]],
    **others: Any,
) -> list[Run]:
    """Return a run for each row of a table whose columns are the parameters.

    name: with $parameters, as in formulas. others: what else a `Run` takes.

    Raises SweepError for a name with a parameter that isn't there, and for two rows with one name.
    """
    # Only frames have such a method; pandas need not be imported to ask them.
    rows: Any = table.to_dict("records") if hasattr(table, "to_dict") else table
    runs = [Run(_filled(name, "the name", row), graph, dict(row), **others) for row in rows]
    require_names(runs)
    return runs


def require_names(runs: Iterable[Run]) -> None:
    """Raise SweepError for a name that stands twice, and for one that no folder could have."""
    seen: set[str] = set()
    for run in runs:
        if not isinstance(run.name, str) or not run.name:
            raise SweepError(f"the name of a run must be a text; got {run.name!r}")
        try:
            run.name.encode()
        except UnicodeEncodeError:
            raise SweepError(f"the run's name {run.name!r} has half a character") from None
        if len(run.name) > _LONGEST_NAME or len(folder_name(run.name)) > 250:
            raise SweepError(
                f"the run's name {run.name[:40]!r}... is longer than a folder's may be"
            )
        if run.name in seen:
            raise SweepError(
                f"two runs are called '{run.name}'; put a parameter into the name, "
                "as in 'delta-$days'"
            )
        seen.add(run.name)


def folder_name(run_name: str) -> str:
    from urllib.parse import quote

    return f"run={quote(run_name, safe='')}"


def text_of(run: Run) -> tuple[str, bool]:
    """The filled formula and True, or the JSON document of the graph and False.

    Raises SweepError for parameters that lack and for a graph that JSON can't hold.
    """
    if isinstance(run.graph, str):
        text = _filled(run.graph, f"the formula of the run '{run.name}'", run.parameters)
        return _plain_text(run.name, text)
    for name, value in run.parameters.items():
        # The manifest holds them, too.
        _written(name, value)
    graph = run.graph
    if not isinstance(graph, Node):
        try:
            graph = graph(**run.parameters)
        except Exception as error:
            raise SweepError(
                f"the graph of the run '{run.name}' can't be made: {error!r}"
            ) from error
    from quernbrook.workbench.graph_json import graph_to_json
    from quernbrook.workbench.graphs import GraphError

    try:
        return json.dumps(graph_to_json(graph), sort_keys=True), False
    except GraphError as error:
        raise SweepError(f"the graph of the run '{run.name}': {error}") from error


def _plain_text(name: str, text: str) -> tuple[str, bool]:
    if not text.lstrip().startswith("{"):
        return text, True
    # No formula starts like that.
    try:
        return json.dumps(json.loads(text), sort_keys=True), False
    except ValueError as error:
        raise SweepError(f"the graph of the run '{name}' is no JSON: {error}") from None


def _filled(text: str, what: str, parameters: Mapping[str, Parameter]) -> str:
    written = {name: _written(name, value) for name, value in parameters.items()}
    try:
        return string.Template(text).substitute(written)
    except KeyError as error:
        near = suggestion(error.args[0], written)
        raise SweepError(
            f"{what} asks for the parameter ${error.args[0]}, which isn't given{near}"
        ) from None
    except ValueError:
        raise SweepError(
            f"{what} has a dollar that starts no name: write $$ for a dollar"
        ) from None


def plain(value: Any) -> Any:
    """Numbers of NumPy, as tables hold them, as those of Python."""
    return value.item() if hasattr(value, "item") else value


def _written(name: str, value: Any) -> str:
    value = plain(value)
    if isinstance(value, bool):
        return str(value).lower()
    if isinstance(value, int | str):
        return str(value)
    if isinstance(value, float) and math.isfinite(value):
        return repr(value)
    raise SweepError(
        f"the parameter {name} must be a finite number, a text or true or false; got {value!r}"
    )
