"""The page that is written from the results of the benchmarks."""

from __future__ import annotations

import json
import shlex
import sys
from pathlib import Path
from typing import Any

import pytest

from bench import report
from bench.report import ARGUMENTS, BEYOND, CALLS, COPY, Figure

BENCH = Path(report.__file__).parent
CHAIN = "chain of 2 functions"


def figure(contender: str, median: float, **attributes: Any) -> Figure:
    return Figure(
        **{
            "subject": "bench_row_loop",
            "workload": CHAIN,
            "contender": contender,
            "unit": "ns a function and row",
            "median": median,
            "low": 0.9 * median,
            "high": 1.1 * median,
            **attributes,
        }
    )


def part(name: str, median: float, **attributes: Any) -> Figure:
    return figure(f"part: {name}", median, floor=True, part=name, **attributes)


MODULE = figure("this module", 200.0)
PARTS = [part(CALLS, 60.0), part(COPY, 50.0)]


def rows_of(text: str) -> list[list[str]]:
    """The cells of all table lines but the rules."""
    lines = [line for line in text.splitlines() if line.startswith("|") and "--:" not in line]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]


def result(subject: str, contender: str, seconds: float, **info: Any) -> dict[str, Any]:
    """What pytest-benchmark leaves of one test."""
    return {
        "fullname": f"bench/{subject}.py::test_it[{contender}]",
        "group": f"work of {subject}",
        "stats": {"median": seconds, "q1": seconds, "q3": seconds},
        "extra_info": {
            "contender": contender,
            "count": 2,
            "unit": "ns a cell",
            "floor": False,
            "part": "",
            "memory": "",
            **info,
        },
    }


def test_every_benchmark_has_a_title_and_every_title_a_benchmark() -> None:
    assert {path.stem for path in BENCH.glob("bench_*.py")} == report.TITLES.keys()
    assert len(set(report.TITLES.values())) == len(report.TITLES)


def test_a_figure_is_a_time_of_one_unit_of_work() -> None:
    (read,) = report.read(
        {"benchmarks": [result("bench_rank", "this module", 3e-6, part=COPY, floor=True)]}
    )
    assert read == Figure(
        "bench_rank",
        "work of bench_rank",
        "this module",
        "ns a cell",
        *[pytest.approx(1500.0)] * 3,
        floor=True,
        part=COPY,
    )


def test_own_time_is_what_calls_and_one_copy_leave() -> None:
    assert report.beyond([MODULE, figure("another", 900.0), *PARTS]) == "90"


def test_copies_of_arguments_are_told_and_not_taken_off() -> None:
    assert report.beyond([MODULE, *PARTS, part(ARGUMENTS, 40.0)]) == "90, arguments' copies 40"


@pytest.mark.parametrize(
    "group",
    [
        pytest.param([MODULE], id="no part"),
        pytest.param([MODULE, PARTS[0]], id="no copy"),
        pytest.param([MODULE, PARTS[1], part(ARGUMENTS, 40.0)], id="no calls"),
        pytest.param([*PARTS], id="no module"),
    ],
)
def test_own_time_needs_the_module_and_both_parts(group: list[Figure]) -> None:
    assert report.beyond(group) == ""


def test_own_time_has_a_column_beside_the_module() -> None:
    other = figure("this module", 300.0, workload="a bush")
    header, chain, bush = rows_of(report.section([MODULE, other, *PARTS], "Somewhere."))
    unit = "ns a function and row"
    assert header == [unit, "this module", f"{BEYOND}, {unit}", "part: calls", "part: copy"]
    assert chain == [
        CHAIN,
        "200 (180 to 220)",
        "90",
        "0.30 (0.27 to 0.33)",
        "0.25 (0.23 to 0.28)",
    ]
    assert bush == ["a bush", "300 (270 to 330)", "", "", ""]


def test_without_parts_there_is_no_such_column() -> None:
    header, _ = rows_of(report.section([MODULE, figure("another", 400.0)], "Somewhere."))
    assert header == ["ns a function and row", "this module", "another"]


def test_each_unit_has_one_table_in_whatever_order_its_figures_come() -> None:
    leaf = figure("this module", 10.0, workload="a leaf", unit="ns a row")
    text = report.section([MODULE, leaf, figure("another", 400.0)], "Somewhere.")
    assert rows_of(text) == [
        ["ns a function and row", "this module", "another"],
        [CHAIN, "200 (180 to 220)", "2.00 (1.80 to 2.20)"],
        ["ns a row", "this module"],
        ["a leaf", "10 (9 to 11)"],
    ]


def test_a_table_of_many_workloads_is_summed_up() -> None:
    numbers = range(1, report.MANY + 2)
    formulas = [figure("this module", 10.0, workload=f"formula {n}") for n in numbers]
    peers = [figure("another", 10.0 * n, workload=f"formula {n}") for n in numbers]
    few = [figure("a third", 10.0, workload=f"formula {n}") for n in (1, 2)]
    assert report.spreads(report.by_workload([*formulas, *peers, *few])) == [
        "Of 21 ratios, another has 11.0 in the middle, 1.0 (formula 1), 2.0 (formula 2), "
        "3.0 (formula 3), 4.0 (formula 4), 5.0 (formula 5) at the lower end and 21.0 (formula 21) "
        "at the upper."
    ]


def test_who_does_a_part_only_is_not_faster() -> None:
    fast = figure("another", 100.0)
    assert report.faster([MODULE, fast, *PARTS]).splitlines()[2:] == [f"- {CHAIN}: another, 0.50"]
    assert report.faster([MODULE, *PARTS]).splitlines()[2:] == ["- nobody"]


def test_subjects_that_a_run_left_out_stay_on_the_page(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    page, results = tmp_path / "performance.md", tmp_path / "results.json"
    start, end = report.MARKERS
    page.write_text(
        f"Before.\n{start}\n\n## Rank\n\nold rank\n\n## Live ticks\n\nold ticks\n\n{end}\nAfter.\n"
    )
    results.write_text(
        json.dumps(
            {
                "benchmarks": [
                    result("bench_rank", "this module", 3e-6),
                    result("bench_restores", "this module", 2e-6),
                ],
                "datetime": "2026-01-02T03:04:05",
                "commit_info": {"id": "0123456789abcdef", "dirty": False},
                "machine_info": {
                    "packages": {"numpy": "2.2"},
                    "cpu": {"count": 2},
                    "system": "Linux",
                    "machine": "x86_64",
                    "python_implementation": "CPython",
                    "python_version": "3.10.13",
                },
            }
        )
    )
    monkeypatch.setattr(report, "PAGE", page)
    # The picture takes a plotting library, which tests don't have.
    monkeypatch.setattr(report, "draw", lambda figures: None)
    monkeypatch.setattr(sys, "argv", ["report.py", str(results)])
    report.main()

    written = page.read_text()
    assert written.startswith("Before.\n") and written.endswith("\nAfter.\n")
    headings = [line for line in written.splitlines() if line.startswith("## ")]
    assert headings == ["## Live ticks", "## Restores", "## Rank"]
    assert "old ticks" in written
    assert "old rank" not in written
    assert "at commit 0123456789, on" in written
    assert "Anew: `./run bench -k bench_rank --page`." in written


def test_the_command_of_a_section_measures_that_subject_alone() -> None:
    for subject in report.TITLES:
        chosen = shlex.split(report.command(subject))[3]
        assert [stem for stem in report.TITLES if chosen in stem] == [subject]


def test_every_section_of_the_page_names_its_command() -> None:
    start, end = report.MARKERS
    shown = report.PAGE.read_text().split(start)[1].split(end)[0]
    subjects = {title: subject for subject, title in report.TITLES.items()}
    sections = shown.split("\n## ")[1:]
    assert len(sections) > 10
    for section in sections:
        title = section.split("\n", 1)[0]
        assert f"Anew: `{report.command(subjects[title])}`." in section, title
