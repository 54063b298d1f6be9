"""Formulas as text, labelled panels and the 101 published formulas."""

from quernbrook.workbench.formulas import FormulaError, format_formula, parse_formula
from quernbrook.workbench.graph_json import GraphJsonError, graph_from_json, graph_to_json
from quernbrook.workbench.graphs import GraphError, same_graph

__all__ = [
    "FormulaError",
    "GraphError",
    "GraphJsonError",
    "format_formula",
    "graph_from_json",
    "graph_to_json",
    "parse_formula",
    "same_graph",
]
