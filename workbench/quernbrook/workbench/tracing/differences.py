"""Where two runs part."""

from __future__ import annotations

from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass
from typing import Literal

import numpy as np
from numpy.typing import NDArray
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.runs import Matrix, Run
from quernbrook.workbench.tracing.subject import Label

Kind = Literal["value", "zero sign", "NaN bits"]


@dataclass(frozen=True)
class Difference:
    """One cell that two runs have differently.

    output: the node's path, or what else the runs call it; name: what stands there.
    kind: "value" for other numbers or a number against a NaN, "zero sign" for 0.0 against -0.0,
        "NaN bits" for two NaNs of other sign or payload.
    """

    row: Label
    column: Label
    output: str
    name: str
    kind: Kind
    left: float
    right: float

    def __str__(self) -> str:
        return (
            f"{self.output} ({self.name}) on {self.row} for {self.column}: {_bits(self.left)} "
            f"against {_bits(self.right)} ({self.kind})"
        )


@dataclass(frozen=True)
class Comparison:
    """What `diff` found.

    first: the first cell with other bits; None if all are the same.
    first_value: the first with another value, 0.0 being -0.0 and any NaN any other.
    differing: how many cells of each output differ in their bits, for those that do.
    rows, columns, outputs: how many both runs have, and were compared.
    only_left, only_right: what one alone has, under "outputs", "rows" and "columns".
    """

    first: Difference | None
    first_value: Difference | None
    differing: dict[str, int]
    rows: int
    columns: int
    outputs: int
    only_left: dict[str, tuple[Label, ...]]
    only_right: dict[str, tuple[Label, ...]]

    @property
    def is_same(self) -> bool:
        """Whether both runs have the same rows, columns and outputs, and the same bits in them."""
        return self.first is None and not self.only_left and not self.only_right


def diff(left: Run, right: Run) -> Comparison:
    """Compare two runs bit for bit, and find the first cell that they have differently.

    First is the earliest row; in it the node that runs first, its inputs before it and the weights
    last; and of its columns the leftmost. Rows and columns are compared by their labels, and those
    that one run alone has are told, not compared.

    Raises TraceError for runs of other graphs, and for runs that have nothing in common.
    """
    outputs = [name for name in left.outputs if name in right.outputs]
    _require_same_nodes(left, right, outputs)
    rows = _common("row", left.rows, right.rows)
    columns = _common("column", left.columns, right.columns)
    pairs = {
        name: (
            _part(left.outputs[name], left, rows, columns),
            _part(right.outputs[name], right, rows, columns),
        )
        for name in outputs
    }

    def first(differs: Callable[[Matrix, Matrix], NDArray[np.bool_]]) -> Difference | None:
        found = None
        for name, pair in pairs.items():
            cells = differs(*pair)
            row = int(np.argmax(cells.any(axis=1)))
            if not cells[row].any() or (found is not None and found[0] <= row):
                continue
            found = (row, int(np.argmax(cells[row])), name)
        if found is None:
            return None
        row, column, name = found
        one, other = (float(matrix[row, column]) for matrix in pairs[name])
        label = left.names.get(name, name)
        return Difference(rows[row], columns[column], name, label, _kind(one, other), one, other)

    counts = {name: int(np.count_nonzero(_other_bits(*pair))) for name, pair in pairs.items()}
    return Comparison(
        first(_other_bits),
        first(_other_value),
        {name: count for name, count in counts.items() if count},
        len(rows),
        len(columns),
        len(outputs),
        _missing(left, right),
        _missing(right, left),
    )


def _require_same_nodes(left: Run, right: Run, outputs: Sequence[str]) -> None:
    if not outputs:
        raise TraceError("the runs have no output in common")
    for name in outputs:
        one, other = left.names.get(name), right.names.get(name)
        if one != other:
            raise TraceError(f"the runs are of other graphs: at {name} stand {one} and {other}")


def _common(what: str, left: Sequence[Label], right: Sequence[Label]) -> list[Label]:
    others = set(right)
    found = [label for label in left if label in others]
    if not found:
        raise TraceError(f"the runs have no {what} in common: {_span(left)} and {_span(right)}")
    return found


def _span(labels: Sequence[Label]) -> str:
    return f"{labels[0]} to {labels[-1]}" if labels else "none"


def _part(matrix: Matrix, run: Run, rows: list[Label], columns: list[Label]) -> Matrix:
    if list(run.rows) == rows and list(run.columns) == columns:
        return matrix
    row_places = {label: place for place, label in enumerate(run.rows)}
    column_places = {label: place for place, label in enumerate(run.columns)}
    chosen = np.ix_(
        [row_places[label] for label in rows], [column_places[label] for label in columns]
    )
    return matrix[chosen]


def _missing(run: Run, other: Run) -> dict[str, tuple[Label, ...]]:
    """What `run` has and `other` doesn't."""
    pairs: dict[str, tuple[Iterable[Label], Iterable[Label]]] = {
        "outputs": (run.outputs, other.outputs),
        "rows": (run.rows, other.rows),
        "columns": (run.columns, other.columns),
    }
    missing = {}
    for what, (own, others) in pairs.items():
        known = set(others)
        missing[what] = tuple(label for label in own if label not in known)
    return {what: labels for what, labels in missing.items() if labels}


def _other_bits(left: Matrix, right: Matrix) -> NDArray[np.bool_]:
    return np.ascontiguousarray(left).view(np.uint64) != np.ascontiguousarray(right).view(np.uint64)


def _other_value(left: Matrix, right: Matrix) -> NDArray[np.bool_]:
    return (left != right) & ~(np.isnan(left) & np.isnan(right))


def _kind(left: float, right: float) -> Kind:
    if np.isnan(left) and np.isnan(right):
        return "NaN bits"
    return "zero sign" if left == right else "value"


def _bits(value: float) -> str:
    """A number with all its digits; of a NaN, its bits."""
    if np.isnan(value):
        return f"nan {np.float64(value).view(np.uint64):#018x}"
    return repr(value)
