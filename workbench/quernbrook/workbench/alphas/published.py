"""The published formulas as texts and as graphs, and the choices that the paper leaves open."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from importlib import resources

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.formulas import notation, parse_formula
from quernbrook.workbench.graphs import children_first

FIELDS = (*notation.FIELDS, *notation.GROUPS)


def published_formulas() -> dict[int, str]:
    """The texts by their numbers, from 1 to 101, as they are printed."""
    text = resources.files(__package__).joinpath("alphas.txt").read_text("utf-8")
    lines = (line.partition(": ") for line in text.splitlines() if not line.startswith("#"))
    return {int(number): formula for number, _, formula in lines}


def published_graphs() -> dict[int, Node]:
    """The graphs by their numbers. Their features are among `FIELDS`."""
    formulas = published_formulas().items()
    return {number: parse_formula(text, features=FIELDS) for number, text in formulas}


def fields_of(graphs: Mapping[int, Node]) -> list[str]:
    """The fields that the graphs read, in the order of `FIELDS`."""
    nodes = (node for graph in graphs.values() for node in _nodes(graph))
    used = {node.node for node in nodes if node.type == "feature"}
    return [name for name in FIELDS if name in used]


def choices_of(graph: Node) -> list[str]:
    """The choices, from `CHOICES`, that a graph's values depend on."""
    functions = {node.node for node in _nodes(graph) if node.type == "rotation"}
    return [choice for choice, touched in CHOICES.items() if functions & touched]


def _nodes(graph: Node) -> Iterator[Node]:
    return (visit.node for visit in children_first(graph))


# What is chosen where the paper says nothing, with the functions that it touches.
CHOICES: Mapping[str, frozenset[str]] = {
    "rank: (rank - 1) / (n - 1), equal ones share, a lone number is NaN": frozenset(
        {"latitudinal_relative_rank"}
    ),
    "ts_rank: (rank - 1) / (d - 1), equal days share": frozenset({"longitudinal_rank"}),
    "stddev, covariance: of populations": frozenset(
        {"longitudinal_std", "longitudinal_covariance"}
    ),
    "ts_argmax, ts_argmin: days since, 0 is today, of equal days the earliest": frozenset(
        {"longitudinal_days_since_max", "longitudinal_days_since_min"}
    ),
    "correlation: NaN where one side stands still": frozenset({"longitudinal_correlation"}),
    "x / y: NaN where it would be infinite": frozenset({"numerical_divide"}),
    "scale: NaN for a row of zeros": frozenset({"latitudinal_scale"}),
    "log: NaN for 0 and less": frozenset({"numerical_logarithm"}),
    "x ^ y: odd whole powers keep the sign, broken ones of negative numbers are NaN": frozenset(
        {"numerical_power"}
    ),
    "signedpower: the sign times the power of the absolute value": frozenset(
        {"numerical_signed_power"}
    ),
    "comparisons and ? : are NaN beside a NaN": frozenset(
        {"numerical_less", "numerical_equal", "numerical_where"}
    ),
    "||: three-valued, true beside a NaN is true": frozenset({"numerical_or"}),
    "min and max of two: a NaN counts only beside another": frozenset(
        {"numerical_minimum", "numerical_maximum"}
    ),
}
