"""The page: pictures, numbers and the code that draws them in one text."""

from __future__ import annotations

from dataclasses import dataclass
from importlib import resources

import numpy as np
import pandas as pd
from bokeh.embed import components
from bokeh.plotting import figure
from bokeh.resources import Resources
from jinja2 import Environment
from quernbrook.reference_host import draw_tree
from quernbrook.workbench.formulas import FormulaError, format_formula
from quernbrook.workbench.graphs import GraphError
from quernbrook.workbench.report import facts
from quernbrook.workbench.report.evaluated_run import EvaluatedRun
from quernbrook.workbench.seeing import interactive, series

_TREE_LINES = 500
_TITLE_LENGTH = 80


@dataclass(frozen=True)
class _Picture:
    """alternative: what stands in for the picture where it can't be seen."""

    figure: figure
    caption: str
    alternative: str


def report_page(run: EvaluatedRun, *, benchmark: pd.Series | None = None) -> str:
    """Return the report of a run as an HTML document, which loads nothing from elsewhere.

    benchmark: daily returns by date, as fractions, with a name for the legend. Without one it is
        the mean of the returns of all symbols that have one on the day.

    Weights and exposures are in the weights' units. Turnover, PnL and drawdown are those of weights
    scaled to a gross exposure of 1 on each day.

    Raises ValueError for a run without days or symbols.
    """
    if run.weights.empty:
        raise ValueError(f"nothing to report on: the weights have the shape {run.weights.shape}")
    earned = _earned(run, benchmark)
    pictures = _pictures(run, earned)
    _link(pictures)
    script, drawn = components({name: one.figure for name, one in pictures.items()})
    formula = _formula(run)
    template = Environment(autoescape=True, trim_blocks=True, lstrip_blocks=True).from_string(
        _text("page.html")
    )
    return template.render(
        title=formula if formula and len(formula) <= _TITLE_LENGTH else str(run.graph.node),
        formula=formula,
        tree=_tree(run),
        run_facts=facts.run_facts(run),
        data_facts=facts.data_facts(run),
        fields=facts.field_coverage(run),
        cause_facts=facts.cause_facts(run),
        pnl_facts=None if earned is None else facts.pnl_facts(earned),
        symbols=facts.symbol_table(run),
        pictures=pictures,
        drawn=drawn,
        pictures_script=script,
        library=Resources(mode="inline", components=["bokeh"]).render_js(),
        style=_text("page.css"),
        page_script=_text("page.js"),
    )


def _earned(run: EvaluatedRun, benchmark: pd.Series | None) -> pd.DataFrame | None:
    if run.returns is None:
        return None
    if benchmark is None:
        finite = run.returns.where(np.isfinite(run.returns))
        benchmark = finite.mean(axis=1).rename("all symbols, equal weights")
    name = "benchmark" if benchmark.name is None else str(benchmark.name)
    if name == "weights":
        name = "weights (benchmark)"
    return series.pnl(run.weights, run.returns, benchmark).rename(columns={"benchmark": name})


def _pictures(run: EvaluatedRun, earned: pd.DataFrame | None) -> dict[str, _Picture]:
    span = f"from {facts.day(run.panel.dates[0])} to {facts.day(run.panel.dates[-1])}"
    told = facts.run_facts(run)
    causes = "; ".join(f"{name} {share}" for name, share in facts.cause_facts(run).items())
    made = {
        "weights": _Picture(
            interactive.heat_map(run.weights),
            "Dates from left to right, symbols from top to bottom. Grey: no weight.",
            f"Heat map of the weights of {len(run.panel.symbols):,} symbols {span}: "
            f"{told['coverage']}.",
        ),
        "exposures": _Picture(
            interactive.exposures(run.weights),
            "The sum of the absolute weights, and the sum of the weights, by day, in the weights' "
            "units.",
            f"Curves of gross and net exposure {span}: gross {told['gross exposure']}, net "
            f"{told['net exposure']}.",
        ),
        "turnover": _Picture(
            interactive.turnover(run.weights),
            "The sum of the absolute changes of weights since the day before, of weights scaled to "
            "a gross exposure of 1.",
            f"Curve of turnover {span}: {told['turnover']}.",
        ),
        "concentration": _Picture(
            interactive.concentration(run.weights),
            "Herfindahl's index: 1 / n for n weights of one size, 1 for a single one.",
            f"Curve of concentration {span}: on average {told['concentration']}.",
        ),
        "nan-causes": _Picture(
            interactive.nan_causes(run.causes, run.panel.dates),
            "The share of each day's cells that have a weight, or none, by cause.",
            f"Areas of the causes of NaN {span}, as shares of all cells: {causes}.",
        ),
    }
    if earned is not None:
        ends = "; ".join(f"{name}: {text}" for name, text in facts.pnl_facts(earned).items())
        made["pnl"] = _Picture(
            interactive.pnl(earned),
            "Cumulative PnL of weights scaled to a gross exposure of 1. The weights of a day earn "
            "the returns of the next, without costs.",
            f"Curves of cumulative PnL {span}. {ends}.",
        )
        made["drawdown"] = _Picture(
            interactive.drawdown(earned),
            "Cumulative PnL less the highest that it has been.",
            f"Curves of drawdown {span}. {ends}.",
        )
    return made


def _link(pictures: dict[str, _Picture]) -> None:
    """All pictures with an axis of dates show the same ones."""
    dated = [one.figure for name, one in pictures.items() if name != "weights"]
    for one in dated[1:]:
        one.x_range = dated[0].x_range


def _formula(run: EvaluatedRun) -> str:
    """The graph as a formula; "" if none says the same."""
    try:
        return format_formula(run.graph)
    except (FormulaError, GraphError):
        return ""


def _tree(run: EvaluatedRun) -> str:
    lines = draw_tree(run.graph).splitlines()
    if len(lines) > _TREE_LINES:
        lines = [*lines[:_TREE_LINES], f"and {len(lines) - _TREE_LINES:,} nodes more"]
    return "\n".join(lines)


def _text(name: str) -> str:
    return resources.files(__package__).joinpath(name).read_text("utf-8")
