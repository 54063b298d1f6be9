"""Formulas as text, labelled panels and the 101 published formulas."""

from __future__ import annotations

from importlib import import_module
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from quernbrook.workbench.explanation import Explanation, ExplanationError, explain
    from quernbrook.workbench.formulas import FormulaError, format_formula, parse_formula
    from quernbrook.workbench.graph_json import GraphJsonError, graph_from_json, graph_to_json
    from quernbrook.workbench.graphs import GraphError, same_graph

__all__ = [
    "Explanation",
    "ExplanationError",
    "FormulaError",
    "GraphError",
    "GraphJsonError",
    "explain",
    "format_formula",
    "graph_from_json",
    "graph_to_json",
    "parse_formula",
    "same_graph",
]

# Imported when they are asked for: the command line's help needs neither NumPy nor the evaluator.
_MODULES = {
    "Explanation": "explanation",
    "ExplanationError": "explanation",
    "FormulaError": "formulas",
    "GraphError": "graphs",
    "GraphJsonError": "graph_json",
    "explain": "explanation",
    "format_formula": "formulas",
    "graph_from_json": "graph_json",
    "graph_to_json": "graph_json",
    "parse_formula": "formulas",
    "same_graph": "graphs",
}


def __getattr__(name: str) -> Any:
    if name not in _MODULES:
        raise AttributeError(f"module '{__name__}' has no attribute '{name}'")
    return getattr(import_module(f"{__name__}.{_MODULES[name]}"), name)


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
