"""Keeps a release's figures and draws those of all: python -m bench.releases [RESULTS.json]

RESULTS.json is what ./run bench --benchmark-json=RESULTS.json leaves; without it, what was kept is
drawn anew. Machines differ by several times, so that releases are compared by ratios to a
yardstick alone: code that no release of ours changes, measured in the same run.
"""

from __future__ import annotations

import json
import sys
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from importlib import metadata
from itertools import cycle
from pathlib import Path
from typing import Any

from packaging.version import Version

from bench.report import (
    BLUE,
    DEPICTED,
    DOCS,
    PAGE,
    Figure,
    by_workload,
    machine_text,
    read,
    replace_between,
    table,
)

KEPT = Path(__file__).with_name("results")
PICTURE = DOCS / "images" / "performance_releases.png"
MARKERS = ("<!-- releases -->", "<!-- end of releases -->")
DISTRIBUTION = "quernbrook-expression-evaluator"
# The first of these that a workload has. Whoever changes one gives it another name: a line of the
# picture ends where the yardstick changes.
YARDSTICKS = (
    "NumPy formulation",
    "NumPy, whole matrix",
    "NumPy, rows and mask",
    "filling of the rows",
    "bare calls",
    "walk in plain Python",
    "copy of the matrix",
    "copy of the rows",
    "copy of the outputs",
    "the bare matrices",
    "loop in C by hand",
    "numexpr",
    "bottleneck",
    "numbagg",
    "pandas",
    "pandas, 101",
    "polars",
    "Arrow, bare tables",
    "Arrow, the bare table",
)

# One for each yardstick that a workload has had.
COLOURS = (BLUE, "#c0562b", "#3f8f5b")

#: The lower quartile, the median, the upper quartile.
Spread = tuple[float, float, float]


@dataclass(frozen=True)
class Point:
    """A workload in one release: its time, and what its yardstick took over that."""

    subject: str
    workload: str
    unit: str
    time: Spread
    yardstick: str
    ratio: Spread

    @classmethod
    def of(cls, own: Figure, yardstick: Figure) -> Point:
        # At the ends, what both spreads allow at most.
        ratio = (
            yardstick.low / own.high,
            yardstick.median / own.median,
            yardstick.high / own.low,
        )
        return cls(
            own.subject,
            own.workload,
            own.unit,
            rounded(own.low, own.median, own.high),
            yardstick.contender,
            rounded(*ratio),
        )


def rounded(low: float, middle: float, high: float) -> Spread:
    """Four digits, more than repeat."""
    return float(f"{low:.4g}"), float(f"{middle:.4g}"), float(f"{high:.4g}")


@dataclass(frozen=True)
class Release:
    version: str
    date: str
    commit: str
    machine: str
    load: float
    packages: Mapping[str, str]
    points: Sequence[Point]


def points_of(figures: Iterable[Figure]) -> list[Point]:
    """Of the workloads that have a yardstick."""
    points = []
    for own, *others in by_workload(figures):
        beside = {each.contender: each for each in others}
        yardstick = next((beside[name] for name in YARDSTICKS if name in beside), None)
        if yardstick is not None:
            points.append(Point.of(own, yardstick))
    return points


def release_of(results: Mapping[str, Any], version: str) -> Release:
    machine, commit = results["machine_info"], results["commit_info"]
    if commit["dirty"]:
        sys.exit(
            f"The results are of commit {commit['id'][:10]} with uncommitted changes, which nobody "
            "can measure again: commit them, and run the benchmarks once more."
        )
    points = points_of(read(results))
    if not points:
        sys.exit("No workload of the results has a yardstick beside it: nothing is kept.")
    return Release(
        version,
        results["datetime"][:10],
        commit["id"][:10],
        machine_text(machine),
        round(machine["load"], 1),
        machine["packages"],
        points,
    )


def keep(release: Release) -> None:
    """A line for each workload, so that changes can be read."""
    head = {name: value for name, value in vars(release).items() if name != "points"}
    lines = [f"  {json.dumps(name)}: {json.dumps(value)}," for name, value in head.items()]
    points = ",\n".join(
        f"    {json.dumps(vars(point), ensure_ascii=False)}" for point in release.points
    )
    KEPT.mkdir(exist_ok=True)
    (KEPT / f"{release.version}.json").write_text(
        "\n".join(["{", *lines, '  "points": [', points, "  ]", "}", ""])
    )


def kept() -> list[Release]:
    """All releases, in the order of their versions."""
    releases = []
    for path in KEPT.glob("*.json"):
        values = json.loads(path.read_text())
        points = [
            Point(**{**point, "time": tuple(point["time"]), "ratio": tuple(point["ratio"])})
            for point in values.pop("points")
        ]
        releases.append(Release(**values, points=points))
    return sorted(releases, key=lambda release: Version(release.version))


def lines_of(releases: Sequence[Release], workload: str) -> dict[str, list[tuple[int, Spread]]]:
    """For each yardstick, the ratios by the places of the releases that have one."""
    lines: dict[str, list[tuple[int, Spread]]] = {}
    for place, release in enumerate(releases):
        for point in release.points:
            if point.workload == workload:
                lines.setdefault(point.yardstick, []).append((place, point.ratio))
    return lines


def draw(releases: Sequence[Release]) -> None:
    # Tests of what is kept need no plotting library.
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    columns = 2
    canvas, panels = pyplot.subplots(
        -(-len(DEPICTED) // columns),
        columns,
        figsize=(13, 10),
        squeeze=False,
        sharex=True,
        layout="constrained",
    )
    for panel, workload in zip(panels.flat, DEPICTED, strict=True):
        draw_panel(panel, workload, releases)
    canvas.suptitle(
        "The yardstick's time over this module's, in the same run: higher is faster", fontsize=15
    )
    PICTURE.parent.mkdir(parents=True, exist_ok=True)
    canvas.savefig(PICTURE, dpi=80)
    pyplot.close(canvas)


def draw_panel(panel: Any, workload: str, releases: Sequence[Release]) -> None:
    """A line for each yardstick, with the quartiles of each release."""
    lines = lines_of(releases, workload)
    top = 0.0
    for (yardstick, ratios), colour in zip(lines.items(), cycle(COLOURS), strict=False):
        places = [place for place, _ in ratios]
        lows, middles, highs = zip(*(ratio for _, ratio in ratios), strict=True)
        top = max(top, *highs)
        panel.plot(places, middles, "o-", color=colour, label=yardstick)
        panel.vlines(places, lows, highs, color=colour, linewidth=1.5)
        for place, middle in zip(places, middles, strict=True):
            panel.annotate(
                f"{middle:.3g}",
                (place, middle),
                xytext=(8, 7),
                textcoords="offset points",
                fontsize=12,
            )
    # From nothing on, so that a little doesn't look like much.
    panel.set_ylim(0.0, 1.5 * top or 1.0)
    panel.set_xlim(-0.5, len(releases) - 0.5)
    panel.set_xticks(range(len(releases)), [release.version for release in releases])
    panel.set_title(workload, fontsize=12, loc="left", fontweight="bold")
    panel.grid(axis="y", color="#e6eaed")
    panel.set_axisbelow(True)
    panel.tick_params(labelsize=12, length=0)
    panel.spines[["top", "right"]].set_visible(False)
    if lines:
        panel.legend(frameon=False, fontsize=11, loc="upper right", ncols=len(lines))


def page_text(releases: Sequence[Release]) -> str:
    picture = f"![Ratios to yardsticks, release by release]({PICTURE.relative_to(DOCS)})"
    header = ["Release", "measured", "at commit", "lines", "on", "load", "NumPy"]
    rows = [
        [
            release.version,
            release.date,
            release.commit,
            f"{len(release.points)}",
            release.machine,
            f"{release.load:.1f}",
            release.packages["numpy"],
        ]
        for release in releases
    ]
    return f"{picture}\n\n{table(header, rows)}"


def main() -> None:
    if len(sys.argv) > 2:
        sys.exit("usage: python -m bench.releases [RESULTS.json]")
    if len(sys.argv) == 2:
        results = json.loads(Path(sys.argv[1]).read_text())
        keep(release_of(results, metadata.version(DISTRIBUTION)))
    releases = kept()
    if not releases:
        sys.exit(f"There are no releases in {KEPT}: ./run bench --keep measures one.")
    draw(releases)
    PAGE.write_text(replace_between(MARKERS, PAGE.read_text(), page_text(releases)))


if __name__ == "__main__":
    main()
