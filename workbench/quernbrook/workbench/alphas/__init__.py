"""The 101 published formulas."""

from quernbrook.workbench.alphas.evaluation import Evaluated, evaluate_formulas
from quernbrook.workbench.alphas.published import (
    CHOICES,
    FIELDS,
    choices_of,
    fields_of,
    published_formulas,
    published_graphs,
)

__all__ = [
    "CHOICES",
    "FIELDS",
    "Evaluated",
    "choices_of",
    "evaluate_formulas",
    "fields_of",
    "published_formulas",
    "published_graphs",
]
