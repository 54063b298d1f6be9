"""Choices out of several lists in one draw: a draw costs more than a run."""

from __future__ import annotations

from collections.abc import Sequence
from math import prod
from typing import Any

from hypothesis import strategies as st


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
