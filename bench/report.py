"""Writes measured figures into docs/performance.md: python -m bench.report RESULTS.json

RESULTS.json is what ./run bench --benchmark-json=RESULTS.json leaves. Subjects that the run left
out keep what the page says of them, each with the commit that it was measured at.
"""

from __future__ import annotations

import json
import statistics
import sys
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from itertools import groupby
from pathlib import Path
from typing import Any

DOCS = Path(__file__).resolve().parents[1] / "docs"
PAGE = DOCS / "performance.md"
PICTURE = DOCS / "images" / "performance.png"
MARKERS = ("<!-- figures -->", "<!-- end of figures -->")
TIME_UNITS = {"s": 1.0, "ms": 1e3, "µs": 1e6, "ns": 1e9}
TITLES = {
    "bench_row_loop": "The row loop",
    "bench_leaves": "Leaves and literals",
    "bench_universe": "The universe",
    "bench_missing_data": "Marks of missing data",
    "bench_node_outputs": "Node outputs",
    "bench_ticks": "Live ticks",
    "bench_restores": "Restores",
    "bench_reductions": "Reductions",
    "bench_cold_start": "Cold start",
    "bench_rank": "Rank",
    "bench_rolling": "Rolling statistics",
    "bench_row_functions": "Functions in machine code",
    "bench_strips": "Strips of rows",
    "bench_alphas": "The published formulas",
    "bench_single_alphas": "Each published formula",
    "bench_alpha_ticks": "Ticks of the published formulas",
    "bench_demo": "The demonstration",
    "bench_large_graphs": "From the call to the first row",
    "bench_pickling": "Pickling a context",
    "bench_panels": "Reading panels",
    "bench_explain": "Explaining a graph",
    "bench_report_page": "A report",
    "bench_sweeps": "Many runs",
}
# The workloads of the picture.
DEPICTED = [
    "chain of 20 Python functions over 500 columns, bound",
    "tick of a chain of 20 functions",
    "mean reduction of 500 signals, free",
    "wide graph of 10,000 nodes",
    "rank of random numbers, 2,000 x 3,000",
    "rolling zscore of 100,000 x 100, window 20",
]
# Parts of what every evaluator spends. The copies of arguments are for instances of a registry,
# which may keep and change what they are given.
CALLS, COPY, ARGUMENTS = "calls", "copy", "arguments"
BEYOND = "beyond calls and copies"
# From so many workloads of one unit on, a table is summed up.
MANY = 20
# This module, those who do the whole work, those who do a part of it.
BLUE, DARK, LIGHT = "#1b6ca8", "#5b6b77", "#b4c0c8"


@dataclass(frozen=True)
class Figure:
    """What one contender took on one workload: the median of the rounds and their quartiles.

    The first contender of a workload is this module. A `floor` does less than the others: it is
    a part of the work that nobody can leave out. `part` names it where such parts add up.
    """

    subject: str
    workload: str
    contender: str
    unit: str
    median: float
    low: float
    high: float
    floor: bool = False
    memory: str = ""
    part: str = ""

    @classmethod
    def of(
        cls, name: str, group: str, stats: Mapping[str, float], info: Mapping[str, Any]
    ) -> Figure:
        """From the parts of a result of pytest-benchmark; `name` begins with the file's path."""
        scale = TIME_UNITS[info["unit"].split()[0]] / info["count"]
        return cls(
            subject=Path(name.split("::")[0]).stem,
            workload=group,
            contender=info["contender"],
            unit=info["unit"],
            median=stats["median"] * scale,
            low=stats["q1"] * scale,
            high=stats["q3"] * scale,
            floor=info["floor"],
            memory=info["memory"],
            part=info["part"],
        )

    @property
    def text(self) -> str:
        return f"{number_text(self.median)} ({number_text(self.low)} to {number_text(self.high)})"

    def ratio_text(self, base: Figure) -> str:
        median, low, high = (
            f"{time / base.median:.2f}" for time in (self.median, self.low, self.high)
        )
        return f"{median} ({low} to {high})"


def number_text(value: float) -> str:
    return f"{value:,.0f}" if value >= 100.0 else f"{value:.3g}"


def by_workload(figures: Iterable[Figure]) -> list[list[Figure]]:
    groups: dict[str, list[Figure]] = {}
    for figure in figures:
        groups.setdefault(figure.workload, []).append(figure)
    return list(groups.values())


def by_subject_and_unit(figures: Iterable[Figure]) -> list[list[Figure]]:
    """Those that stand in one table."""
    tables: dict[tuple[str, str], list[Figure]] = {}
    for figure in figures:
        tables.setdefault((figure.subject, figure.unit), []).append(figure)
    return list(tables.values())


def beyond(group: Sequence[Figure]) -> str:
    """What the module spends on its own; empty where its parts weren't measured.

    That is its time less the bare calls and one copy of a row. The copies of arguments are not
    taken off but told.
    """
    parts = {each.part: each.median for each in group if each.part}
    if group[0].floor or not {CALLS, COPY} <= parts.keys():
        return ""
    own = number_text(group[0].median - parts[CALLS] - parts[COPY])
    if ARGUMENTS not in parts:
        return own
    return f"{own}, arguments' copies {number_text(parts[ARGUMENTS])}"


def read(results: Mapping[str, Any]) -> list[Figure]:
    return [
        Figure.of(each["fullname"], each["group"], each["stats"], each["extra_info"])
        for each in results["benchmarks"]
    ]


def table(header: Sequence[str], rows: Iterable[Sequence[str]]) -> str:
    rule = ["---", *["--:"] * (len(header) - 1)]
    return "\n".join(f"| {' | '.join(row)} |" for row in (header, rule, *rows))


def section(figures: Sequence[Figure], setting: str) -> str:
    """The tables of one subject, one for each unit of time."""
    parts = [f"## {TITLES[figures[0].subject]}", setting]
    for same in by_subject_and_unit(figures):
        groups = by_workload(same)
        parts.append(times(same[0].unit, groups))
        parts.extend(spreads(groups))
    with_memory = [each for each in figures if each.memory]
    if with_memory:
        names = list(dict.fromkeys(each.contender for each in with_memory))
        rows = []
        for group in by_workload(with_memory):
            used = {each.contender: each.memory for each in group}
            rows.append([group[0].workload, *(used.get(name, "") for name in names)])
        parts.append(table(["Memory", *names], rows))
    parts.append(faster(figures))
    return "\n\n".join(parts)


def times(unit: str, groups: Sequence[Sequence[Figure]]) -> str:
    """The table of one unit: the module's times, and what the others took over that."""
    others = list(dict.fromkeys(each.contender for group in groups for each in group[1:]))
    own = [beyond(group) for group in groups]
    header = [unit, groups[0][0].contender, *others]
    rows = []
    for first, *rest in groups:
        ratios = {each.contender: each.ratio_text(first) for each in rest}
        rows.append([first.workload, first.text, *(ratios.get(name, "") for name in others)])
    if any(own):
        header.insert(2, f"{BEYOND}, {unit}")
        for row, text in zip(rows, own, strict=True):
            row.insert(2, text)
    return table(header, rows)


def spreads(groups: Sequence[Sequence[Figure]]) -> list[str]:
    """A line for each contender of many workloads: its lowest, middle and highest ratios."""
    ratios: dict[str, list[tuple[float, str]]] = {}
    for first, *rest in groups:
        for each in rest:
            ratio = each.median / first.median
            ratios.setdefault(each.contender, []).append((ratio, each.workload))
    lines = []
    for name, found in ratios.items():
        if len(found) < MANY:
            continue
        least = ", ".join(f"{ratio:.1f} ({workload})" for ratio, workload in sorted(found)[:5])
        greatest, of = max(found)
        middle = statistics.median(ratio for ratio, _ in found)
        lines.append(
            f"Of {len(found)} ratios, {name} has {middle:.1f} in the middle, {least} at the lower "
            f"end and {greatest:.1f} ({of}) at the upper."
        )
    return lines


def faster(figures: Sequence[Figure]) -> str:
    """Those that do the whole work and whose slower quarter still beats the module's faster one."""
    lines = [
        f"- {each.workload}: {each.contender}, {each.median / first.median:.2f}"
        for first, *rest in by_workload(figures)
        for each in rest
        if not each.floor and each.high < first.low
    ]
    explained = "Faster than this module at the whole work, by quartiles that don't overlap:"
    return "\n".join([explained, "", *(lines or ["- nobody"])])


def machine_text(machine: Mapping[str, Any]) -> str:
    processor = machine["cpu"].get("brand_raw", "an unnamed processor")
    return (
        f"{processor} ({machine['cpu']['count']} processors), "
        f"{machine['system']} {machine['machine']}, "
        f"{machine['python_implementation']} {machine['python_version']}"
    )


def setting(results: Mapping[str, Any], subject: str) -> str:
    machine, commit = results["machine_info"], results["commit_info"]
    packages = ", ".join(f"{name} {version}" for name, version in machine["packages"].items())
    state = " with uncommitted changes" if commit["dirty"] else ""
    return (
        f"Measured on {results['datetime'][:10]} at commit {commit['id'][:10]}{state}, on "
        f"{machine_text(machine)}, {packages}. Anew: `{command(subject)}`."
    )


def command(subject: str) -> str:
    return f"./run bench -k {subject} --page"


def draw(figures: Sequence[Figure]) -> None:
    # The summary at the end of a run needs this file, but no plotting library.
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    groups = {group[0].workload: group for group in by_workload(figures)}
    if missing := [workload for workload in DEPICTED if workload not in groups]:
        print(f"The picture stays as it is: the run left out {', '.join(missing)}.")
        return
    shown = [groups[workload] for workload in DEPICTED]
    columns = 2
    # A panel is as high as it has lines.
    heights = [max(map(len, pair)) + 1.4 for pair in zip(shown[::2], shown[1::2], strict=True)]
    canvas, panels = pyplot.subplots(
        len(heights),
        columns,
        figsize=(13, 0.36 * sum(heights) + 1.3),
        squeeze=False,
        sharex=True,
        height_ratios=heights,
        layout="constrained",
    )
    ratios = [each.median / group[0].median for group in shown for each in group]
    for panel, group in zip(panels.flat, shown, strict=True):
        draw_panel(panel, group)
        panel.set_xlim(min(ratios) / 4, max(ratios) * 4)  # the same for all
    canvas.get_layout_engine().set(wspace=0.06, hspace=0.04)
    canvas.suptitle("Times over that of this module: shorter is faster (logarithmic)", fontsize=15)
    kinds = {"this module": BLUE, "does the whole work": DARK, "a part that nobody can save": LIGHT}
    canvas.legend(
        [pyplot.Line2D([], [], color=colour, marker="o", lw=3) for colour in kinds.values()],
        list(kinds),
        loc="outside lower center",
        ncols=len(kinds),
        fontsize=12,
        frameon=False,
    )
    PICTURE.parent.mkdir(parents=True, exist_ok=True)
    canvas.savefig(PICTURE, dpi=110)
    pyplot.close(canvas)


def draw_panel(panel: Any, group: Sequence[Figure]) -> None:
    """A line for each contender, from where this module stands; the parts of the work first."""
    first, *others = group
    rest = sorted(others, key=lambda figure: not figure.floor)
    panel.axvline(1.0, color=BLUE, linewidth=1.5)
    for place, figure in enumerate((first, *rest)):
        ratio = figure.median / first.median
        colour = BLUE if figure is first else LIGHT if figure.floor else DARK
        panel.hlines(place, 1.0, ratio, color=colour, linewidth=3)
        panel.plot(ratio, place, "o", color=colour)
        text = f"{number_text(first.median)} {first.unit}" if figure is first else f"{ratio:.3g} x"
        beside = 8 if ratio >= 1.0 else -8
        panel.annotate(
            text,
            (ratio, place),
            xytext=(beside, 0),
            textcoords="offset points",
            ha="left" if ratio >= 1.0 else "right",
            va="center",
            fontsize=12,
            color=colour if figure is first else "black",
        )
    panel.set_xscale("log")
    panel.xaxis.set_major_formatter("{x:g}")
    panel.minorticks_off()
    panel.grid(axis="x", color="#e6eaed")
    panel.set_axisbelow(True)
    panel.set_yticks(range(len(group)), [figure.contender for figure in (first, *rest)])
    panel.set_ylim(len(group) - 0.5, -0.5)
    panel.set_title(first.workload, fontsize=12, loc="left", fontweight="bold")
    panel.tick_params(labelsize=12, length=0)
    panel.spines[["top", "right", "left"]].set_visible(False)


def replace_between(markers: tuple[str, str], page: str, text: str) -> str:
    start, end = markers
    before, rest = page.split(start)
    _, after = rest.split(end)
    return f"{before}{start}\n\n{text}\n\n{end}{after}"


def main() -> None:
    if len(sys.argv) != 2:
        sys.exit("usage: python -m bench.report RESULTS.json")
    results = json.loads(Path(sys.argv[1]).read_text())
    figures = read(results)
    start, end = MARKERS
    page = PAGE.read_text()
    shown = page.split(start)[1].split(end)[0]
    sections = {part.split("\n", 1)[0]: f"## {part.strip()}" for part in shown.split("\n## ")[1:]}
    for subject, same in groupby(figures, lambda figure: figure.subject):
        sections[TITLES[subject]] = section(list(same), setting(results, subject))
    draw(figures)
    picture = f"![Times beside those of this module]({PICTURE.relative_to(DOCS)})"
    known = [sections[title] for title in TITLES.values() if title in sections]
    PAGE.write_text(replace_between(MARKERS, page, "\n\n".join([picture, *known])))


if __name__ == "__main__":
    main()
