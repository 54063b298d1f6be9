"""The 101 published formulas in plain pandas: what the graphs are compared with."""

from workbench.pandas_formulas import (  # noqa: F401  (each registers its formulas)
    alphas_001_to_040,
    alphas_041_to_070,
    alphas_071_to_101,
)
from workbench.pandas_formulas.formula import FORMULAS
from workbench.pandas_formulas.operations import Market
from workbench.pandas_formulas.rounding import noise_in_last_bits

__all__ = ["FORMULAS", "Market", "noise_in_last_bits"]
