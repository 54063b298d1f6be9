"""Formulas as text."""

from quernbrook.workbench.formulas.errors import FormulaError
from quernbrook.workbench.formulas.reader import parse_formula
from quernbrook.workbench.formulas.writer import format_formula

__all__ = ["FormulaError", "format_formula", "parse_formula"]
