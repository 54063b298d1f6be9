"""Fields over dates and symbols, in memory."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from types import MappingProxyType
from typing import TYPE_CHECKING, Any

import numpy as np
import pandas as pd
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, EvaluationResult
from quernbrook.workbench.panels.columns import Matrix, Vector
from quernbrook.workbench.panels.labels import (
    Date,
    PanelError,
    as_date,
    as_dates,
    require_increasing,
    require_symbols,
)
from quernbrook.workbench.panels.long import collect_long
from quernbrook.workbench.panels.panel_html import html
from quernbrook.workbench.panels.universe import from_booleans, from_listings
from quernbrook.workbench.panels.wide import Table, collect

if TYPE_CHECKING:
    from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
    from quernbrook.workbench.panels.context_options import ContextOptions
    from typing_extensions import Unpack

__all__ = ["Matrix", "Panel", "PanelError", "Vector"]


@dataclass(frozen=True, eq=False)
class Panel:
    """Matrices of one shape, (dates, symbols), by the names of their fields.

    dates: increasing, none twice, in nanoseconds, with a time zone or without.
    symbols: none twice.
    fields: float64 and C-contiguous, in the order in which contexts hold them; read-only as a
        mapping.
    universe: float64 of the same shape, 1.0 inside and 0.0 outside; None where all is inside.

    Raises PanelError for labels and matrices that are otherwise.
    """

    dates: pd.DatetimeIndex
    symbols: pd.Index
    fields: Mapping[str, Matrix]
    universe: Matrix | None = None

    def __post_init__(self) -> None:
        object.__setattr__(self, "dates", as_dates("the panel", "the index", self.dates))
        object.__setattr__(self, "fields", MappingProxyType(dict(self.fields)))
        require_increasing("the panel", self.dates)
        require_symbols("the panel", self.symbols)
        for name, values in self.fields.items():
            if not isinstance(name, str):
                raise PanelError(f"the name of a field must be a text, not {name!r}")
            self._require_matrix(f"field '{name}'", values)
        if self.universe is not None:
            self._require_matrix("the universe", self.universe)

    # A read-only mapping can't be pickled.
    def __reduce__(self) -> tuple[type[Panel], tuple[Any, ...]]:
        return type(self), (self.dates, self.symbols, dict(self.fields), self.universe)

    @classmethod
    def from_frames(cls, frames: Mapping[str, Table]) -> Panel:
        """Take a wide table of numbers for each field: dates by symbols.

        A table is a pandas DataFrame with dates as its index and symbols as columns, or an Arrow
        table, polars DataFrame or anything else that hands itself over as Arrow columns, with the
        dates in its first column. Missing values are NaN.

        All must have the same dates and the same symbols, the latter in any order: that of the
        first table is taken. A pandas frame of float64 in one C-ordered block is not copied.

        Raises PanelError for other dates, time zones or symbols, for dates that don't increase,
        for a date or symbol that stands twice and for values that are no numbers.
        """
        return cls(*collect(frames.items()))

    @classmethod
    def from_long(
        cls, table: Table, *, date: str, symbol: str, fields: Iterable[str] | None = None
    ) -> Panel:
        """Take a long table: a row for each date and symbol, a column for each field.

        date, symbol: the names of their columns or, in pandas, levels of the index.
        fields: which columns to take; all others without it.

        Rows may stand in any order; dates and symbols get sorted. A cell without a row is NaN.
        Float64 columns with a row for every cell, sorted by date and then by symbol, are not
        copied; such memory may be read-only.

        Raises PanelError for a column that isn't there, a row without date or symbol, a date and
        symbol with two rows, and values that are no numbers.
        """
        return cls(*collect_long(table, date, symbol, fields))

    def with_universe(self, table: Table) -> Panel:
        """Return the panel with the universe of a wide table of truth values in place of its own.

        It has the dates and symbols of the panel, the latter in any order.

        Raises PanelError for other labels, for values that are neither True nor False and for
        missing ones.
        """
        return self._with(universe=from_booleans(table, self.dates, self.symbols))

    def with_listings(
        self,
        first: Mapping[Any, Date],
        last: Mapping[Any, Date | None] | None = None,
    ) -> Panel:
        """Return the panel with a universe in which symbols are from `first` to `last` date.

        Both dates are inside. A symbol without a last date, or with None or NaT, stays. Symbols
        that the panel hasn't are ignored.

        Raises PanelError for a symbol without a first date, for a last date before the first, for
        what is no date, and for a time zone where the panel has none or the other way round.
        """
        return self._with(universe=from_listings(first, last or {}, self.dates, self.symbols))

    def until(self, date: Date) -> Panel:
        """Return the rows up to `date`, which is included; they are not copied."""
        return self._rows(slice(None, self._rows_until(date)))

    def after(self, date: Date) -> Panel:
        """Return the rows after `date`; they are not copied."""
        return self._rows(slice(self._rows_until(date), None))

    def context(
        self, registry: RegistryProtocol | None = None, **others: Unpack[ContextOptions]
    ) -> EvaluationContext:
        """Return a new context over the fields and the universe, which are not copied.

        others: what else `EvaluationContext` takes.
        """
        index = {name: place for place, name in enumerate(self.fields)}
        return EvaluationContext(
            tuple(self.fields.values()),
            index,
            registry=registry,
            universe=self.universe,
            **others,
        )

    def frame(self, values: Matrix | EvaluationResult) -> pd.DataFrame:
        """Return values of shape (dates, symbols), or a result's weights, with their labels.

        They are not copied. Raises PanelError for another shape.
        """
        matrix = np.asarray(values)
        if matrix.shape != self._shape:
            raise PanelError(f"values of shape {matrix.shape} don't fit a panel of {self._shape}")
        return pd.DataFrame(matrix, index=self.dates, columns=self.symbols, copy=False)

    def node_frames(self, result: EvaluationResult) -> dict[str, pd.DataFrame]:
        """Return the node outputs of a result as frames, by the paths of the nodes.

        A context with `_collect_node_outputs` set to True has them collected.
        """
        return {path: self.frame(values) for path, values in result.node_outputs.items()}

    def _repr_html_(self) -> str:
        return html(self.dates, self.symbols, self.fields, self.universe)

    @property
    def _shape(self) -> tuple[int, int]:
        return len(self.dates), len(self.symbols)

    def _require_matrix(self, what: str, values: Matrix) -> None:
        if values.shape != self._shape:
            raise PanelError(
                f"{what} has the shape {values.shape}; the dates and symbols make {self._shape}"
            )
        if values.dtype != np.float64 or not values.flags.c_contiguous:
            order = "C-contiguous" if values.flags.c_contiguous else "not C-contiguous"
            raise PanelError(
                f"{what} is {values.dtype} and {order}; it must be float64 and C-contiguous"
            )

    def _with(self, universe: Matrix) -> Panel:
        return Panel(self.dates, self.symbols, self.fields, universe)

    def _rows_until(self, date: Date) -> int:
        return int(self.dates.searchsorted(as_date(date, self.dates.tz), side="right"))

    def _rows(self, rows: slice) -> Panel:
        fields = {name: values[rows] for name, values in self.fields.items()}
        universe = None if self.universe is None else self.universe[rows]
        return Panel(self.dates[rows], self.symbols, fields, universe)
