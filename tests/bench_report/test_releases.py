"""What is kept of a release's figures, and how releases are drawn beside each other."""

from __future__ import annotations

import json
import sys
from collections.abc import Mapping
from pathlib import Path
from typing import Any

import pytest

from bench import releases, report
from bench.releases import Point, Release

SPREAD = (0.9, 1.0, 1.1)
RANK = "rank of random numbers, 2,000 x 3,000"


def measured(
    workload: str, contender: str, seconds: float, floor: bool = False, subject: str = "bench_rank"
) -> dict[str, Any]:
    """What pytest-benchmark leaves of one test."""
    return {
        "fullname": f"bench/{subject}.py::test_it[{contender}]",
        "group": workload,
        "stats": {"median": seconds, "q1": 0.9 * seconds, "q3": 1.2 * seconds},
        "extra_info": {
            "contender": contender,
            "count": 1000,
            "unit": "ns a cell",
            "floor": floor,
            "part": "",
            "memory": "",
        },
    }


def results(benchmarks: list[dict[str, Any]], dirty: bool = False) -> dict[str, Any]:
    return {
        "benchmarks": benchmarks,
        "datetime": "2026-01-02T03:04:05",
        "commit_info": {"id": "0123456789abcdef", "dirty": dirty},
        "machine_info": {
            "packages": {"numpy": "2.2.6", "pandas": "2.3.3"},
            "load": 1.5234375,
            "cpu": {"count": 2, "brand_raw": "A Processor", "flags": ["many"] * 100},
            "system": "Linux",
            "machine": "x86_64",
            "python_implementation": "CPython",
            "python_version": "3.10.13",
        },
    }


def release(version: str, ratios: Mapping[str, float], yardstick: str = "bare calls") -> Release:
    points = [
        Point("bench_rank", workload, "ns", SPREAD, yardstick, (0.9 * ratio, ratio, 1.1 * ratio))
        for workload, ratio in ratios.items()
    ]
    return Release(version, "2026-01-02", "0123456789", "a machine", 0.5, {"numpy": "2.2"}, points)


@pytest.fixture
def folder(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """Where releases are kept, with the page and the picture beside them."""
    start, end = releases.MARKERS
    (tmp_path / "performance.md").write_text(f"Before.\n\n{start}\nold\n{end}\n\nAfter.\n")
    monkeypatch.setattr(releases, "KEPT", tmp_path / "results")
    monkeypatch.setattr(releases, "PAGE", tmp_path / "performance.md")
    monkeypatch.setattr(releases, "DOCS", tmp_path)
    monkeypatch.setattr(releases, "PICTURE", tmp_path / "images" / "releases.png")
    return tmp_path


def test_a_point_is_a_time_and_its_ratio_to_a_yardstick() -> None:
    figures = report.read(
        results([measured(RANK, "this module", 2e-6), measured(RANK, "NumPy formulation", 9e-6)])
    )
    (point,) = releases.points_of(figures)
    assert point.time == (1.8, 2.0, 2.4)
    assert point.yardstick == "NumPy formulation"
    # From the quickest yardstick over the slowest run to the other way round.
    assert point.ratio == (round(8.1 / 2.4, 3), 4.5, 6.0)


def test_a_yardstick_is_what_no_release_of_ours_changes() -> None:
    ours = ["plain-Python evaluator", "the same, by Cython", "the host's own calls"]
    assert not set(ours) & set(releases.YARDSTICKS)
    both = [
        measured("a", "this module", 1e-6),
        *(measured("a", name, 2e-6) for name in ours),
        measured("a", "pandas", 3e-6),
        measured("a", "bare calls", 4e-6, floor=True),
        measured("b", "this module", 1e-6),
        *(measured("b", name, 2e-6) for name in ours),
        measured("c", "bare calls", 1e-6, floor=True),
    ]
    (point,) = releases.points_of(report.read(results(both)))
    assert (point.workload, point.yardstick) == ("a", "bare calls")


def test_every_workload_of_the_picture_can_have_a_yardstick() -> None:
    """Their names stand in the benchmarks that name one, too."""
    sources = [path.read_text() for path in Path(releases.__file__).parent.glob("*.py")]
    sources = [text for text in sources if "YARDSTICKS" not in text]
    for name in releases.YARDSTICKS:
        words = name.split(", 101")[0]
        assert any(f'"{words}' in text for text in sources), name


def test_what_is_kept_is_read_back_in_the_order_of_versions(folder: Path) -> None:
    given = [release(version, {RANK: 2.0}) for version in ("0.10.0", "0.9.0", "0.9.0rc1", "1.0.0")]
    for one in given:
        releases.keep(one)
    assert releases.kept() == [given[2], given[1], given[0], given[3]]


def test_a_kept_release_is_small_and_has_a_line_for_each_workload(folder: Path) -> None:
    workloads = [f"formula {number}" for number in range(300)]
    benchmarks = [
        measured(workload, contender, seconds)
        for workload in workloads
        for contender, seconds in {"this module": 1.23456789e-6, "pandas": 3.3333333e-5}.items()
    ]
    releases.keep(releases.release_of(results(benchmarks), "0.2.0"))
    file = folder / "results" / "0.2.0.json"
    lines = file.read_text().splitlines()
    assert file.stat().st_size < 60_000
    assert sum('"workload"' in line for line in lines) == len(workloads)
    values = json.loads(file.read_text())
    assert values["version"] == "0.2.0"
    assert values["commit"] == "0123456789"
    assert values["load"] == 1.5
    assert values["machine"] == "A Processor (2 processors), Linux x86_64, CPython 3.10.13"
    assert values["packages"]["numpy"] == "2.2.6"
    assert values["points"][0]["ratio"][1] == 27.0


def test_uncommitted_changes_are_no_release() -> None:
    benchmarks = [measured(RANK, "this module", 1e-6), measured(RANK, "pandas", 2e-6)]
    with pytest.raises(SystemExit, match="0123456789 with uncommitted changes"):
        releases.release_of(results(benchmarks, dirty=True), "0.2.0")


def test_without_a_yardstick_nothing_is_kept() -> None:
    with pytest.raises(SystemExit, match="No workload"):
        releases.release_of(results([measured(RANK, "this module", 1e-6)]), "0.2.0")


def test_a_line_has_the_releases_that_measured_it_and_ends_with_its_yardstick() -> None:
    given = [
        release("0.1.0", {RANK: 2.0}),
        release("0.2.0", {"another": 5.0}),
        release("0.3.0", {RANK: 3.0}),
        release("0.4.0", {RANK: 8.0}, yardstick="pandas"),
    ]
    lines = releases.lines_of(given, RANK)
    middles = {name: [(place, ratio[1]) for place, ratio in line] for name, line in lines.items()}
    assert middles == {"bare calls": [(0, 2.0), (2, 3.0)], "pandas": [(3, 8.0)]}


def test_results_go_into_the_page(folder: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    drawn: list[list[str]] = []
    # The picture takes a plotting library, which tests need not have.
    monkeypatch.setattr(
        releases, "draw", lambda given: drawn.append([one.version for one in given])
    )
    monkeypatch.setattr(releases.metadata, "version", lambda name: "0.2.0")
    releases.keep(release("0.1.0", {RANK: 2.0}))
    file = folder / "results.json"
    benchmarks = [measured(RANK, "this module", 1e-6), measured(RANK, "pandas", 2e-6)]
    file.write_text(json.dumps(results(benchmarks)))
    monkeypatch.setattr(sys, "argv", ["releases", str(file)])
    releases.main()

    assert drawn == [["0.1.0", "0.2.0"]]
    page = (folder / "performance.md").read_text()
    assert page.startswith("Before.\n\n") and page.endswith("\n\nAfter.\n")
    assert "old" not in page
    assert "](images/releases.png)" in page
    assert "| 0.1.0 | 2026-01-02 | 0123456789 | 1 | a machine | 0.5 | 2.2 |" in page
    assert "| 0.2.0 | 2026-01-02 | 0123456789 | 1 | A Processor (2 processors)" in page


@pytest.mark.parametrize("count", [1, 5])
def test_the_picture_has_a_panel_for_each_workload(folder: Path, count: int) -> None:
    pytest.importorskip("matplotlib")
    given = [
        release(f"0.{number}.0", dict.fromkeys(report.DEPICTED[1:], 1.0 + number))
        for number in range(1, count + 1)
    ]
    releases.draw(given)
    assert (folder / "images" / "releases.png").stat().st_size > 10_000


def test_the_ratios_are_drawn_from_nothing_on(folder: Path) -> None:
    pyplot = pytest.importorskip("matplotlib.pyplot")
    given = [release("0.1.0", {RANK: 8.0}), release("0.2.0", {RANK: 8.1})]
    canvas, panel = pyplot.subplots()
    releases.draw_panel(panel, RANK, given)
    (line,) = [each for each in panel.lines if each.get_label() == "bare calls"]
    assert list(line.get_xdata()) == [0, 1]
    assert list(line.get_ydata()) == [8.0, 8.1]
    assert panel.get_ylim()[0] == 0.0
    assert [label.get_text() for label in panel.get_xticklabels()] == ["0.1.0", "0.2.0"]
    pyplot.close(canvas)
