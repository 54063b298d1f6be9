"""What is told of a formula's values."""

from __future__ import annotations

from dataclasses import dataclass

from quernbrook.workbench.alphas.evaluation import Evaluated
from quernbrook.workbench.alphas.measures import correlated_days
from quernbrook.workbench.panels.panel import Matrix
from quernbrook.workbench.seeing import measures


@dataclass(frozen=True)
class Summary:
    """What is kept of a formula when its values are written.

    coverage: the share of cells with a value. turnover: from 0 to 2 a day.
    sample: the holdings of some days, to be compared with those of other formulas.
    """

    number: int
    seconds: float
    coverage: float
    turnover: float
    sample: Matrix


def summarise(evaluated: Evaluated) -> Summary:
    held = measures.holdings(evaluated.values)
    days = correlated_days(len(held))
    return Summary(
        evaluated.number,
        evaluated.seconds,
        measures.coverage(evaluated.values),
        measures.turnover(held),
        held[days].copy(),
    )
