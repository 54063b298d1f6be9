"""The names and signs of the published formulas, and the registered functions they stand for.

The notation is that of Z. Kakushadze, "101 Formulaic Alphas", arXiv:1601.00991, appendix A. This
table alone knows the registered names; where the paper leaves a choice, `settings` makes it.
"""

from __future__ import annotations

import re
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

FIELDS = ("open", "high", "low", "close", "volume", "vwap", "cap")
GROUPS = ("sector", "industry", "subindustry")

# Groups of shares are spelt IndClass.sector.
GROUP_PREFIX = "IndClass."
GROUPING = "latitudinal_demean_within_groups"


@dataclass(frozen=True)
class Notation:
    """A name or sign of the formulas.

    name: as it is printed; it is read in any case.
    function: the registered function.
    signature: the operands as an error message shows them. The last of them is a window, rounded
        down and at least 1, if it is called d, and a number that may be left out if it has a
        default.
    settings: the configuration of the node.
    """

    name: str
    function: str
    signature: tuple[str, ...]
    settings: Mapping[str, Any] = field(default_factory=dict)

    @property
    def has_window(self) -> bool:
        return self.signature[-1] == "d"

    @property
    def has_optional_number(self) -> bool:
        return "=" in self.signature[-1]

    @property
    def rows(self) -> int:
        """The number of operands that are rows."""
        return len(self.signature) - (self.has_window or self.has_optional_number)

    @property
    def usage(self) -> str:
        return f"{self.name}({', '.join(self.signature)})"


_ONE = ("x",)
_TWO = ("x", "y")
_ONE_ALONG_TIME = ("x", "d")
_TWO_ALONG_TIME = ("x", "y", "d")

_FINITE = {"infinities_as_nan": True}

BINARY = (
    Notation("||", "numerical_or", _TWO),
    Notation("&&", "numerical_and", _TWO),
    Notation("==", "numerical_equal", _TWO),
    Notation("!=", "numerical_not_equal", _TWO),
    Notation("<", "numerical_less", _TWO),
    Notation("<=", "numerical_less_equal", _TWO),
    Notation(">", "numerical_greater", _TWO),
    Notation(">=", "numerical_greater_equal", _TWO),
    Notation("+", "numerical_add", _TWO),
    Notation("-", "numerical_subtract", _TWO),
    Notation("*", "numerical_multiply", _TWO),
    Notation("/", "numerical_divide", _TWO, _FINITE),
    Notation("^", "numerical_power", _TWO),
)
UNARY = (
    Notation("-", "numerical_negate", _ONE),
    Notation("!", "numerical_not", _ONE),
)
CHOICE = Notation("?:", "numerical_where", ("condition", "x", "y"))

CALLS = (
    Notation("abs", "numerical_absolute", _ONE),
    Notation("log", "numerical_logarithm", _ONE),
    Notation("sign", "numerical_sign", _ONE),
    Notation("signedpower", "numerical_signed_power", _TWO),
    Notation("min", "numerical_minimum", _TWO),
    Notation("max", "numerical_maximum", _TWO),
    Notation("rank", "latitudinal_relative_rank", _ONE),
    Notation("scale", "latitudinal_scale", ("x", "a = 1"), _FINITE),
    Notation("indneutralize", GROUPING, ("x", "group")),
    Notation("delay", "longitudinal_delay", _ONE_ALONG_TIME),
    Notation("delta", "longitudinal_delta", _ONE_ALONG_TIME),
    Notation("sum", "longitudinal_sum", _ONE_ALONG_TIME),
    Notation("product", "longitudinal_product", _ONE_ALONG_TIME),
    Notation("stddev", "longitudinal_std", _ONE_ALONG_TIME),
    Notation("ts_min", "longitudinal_min", _ONE_ALONG_TIME),
    Notation("ts_max", "longitudinal_max", _ONE_ALONG_TIME),
    Notation("ts_argmin", "longitudinal_days_since_min", _ONE_ALONG_TIME),
    Notation("ts_argmax", "longitudinal_days_since_max", _ONE_ALONG_TIME),
    Notation("ts_rank", "longitudinal_rank", _ONE_ALONG_TIME),
    Notation("decay_linear", "longitudinal_decay_mean", _ONE_ALONG_TIME),
    Notation("correlation", "longitudinal_correlation", _TWO_ALONG_TIME),
    Notation("covariance", "longitudinal_covariance", _TWO_ALONG_TIME),
)

# With a number in the second place these are the extremes of a window.
ALONG_TIME = {"min": "ts_min", "max": "ts_max"}

# Names that stand for a formula. A number in the name takes the place of "{d}".
DEFINITIONS = (
    (re.compile(r"returns()", re.IGNORECASE), "close / delay(close, 1) - 1"),
    (re.compile(r"adv([1-9]\d*)", re.IGNORECASE), "longitudinal_mean(volume * vwap, {d})"),
)


DEFINED_NAMES = ("returns", "adv{d}")


def definition(name: str) -> str | None:
    """The formula that `name` stands for, or None."""
    for pattern, formula in DEFINITIONS:
        found = pattern.fullmatch(name)
        if found is not None:
            return formula.replace("{d}", found[1])
    return None
