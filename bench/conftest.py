"""How the benchmarks are chosen, measured and named."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterator
from importlib import metadata
from typing import Any

import pytest

from bench.comparison import Comparison
from bench.evaluators import COPY, MODULE, OTHER
from bench.report import BEYOND, Figure, beyond, by_subject_and_unit, by_workload, spreads

PACKAGES = ["numpy", "bottleneck", "numbagg", "numexpr", "pandas", "polars", "scipy", "Cython"]
# One thread for all, and for numbagg, too, which asks when it is imported.
os.environ["NUMBA_NUM_THREADS"] = "1"
FIGURES = pytest.StashKey[list[Figure]]()
COMPARISON = pytest.StashKey[Comparison]()


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--slow", action="store_true", help="run the large benchmarks too")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line("markers", "slow: minutes or gigabytes; runs with --slow only")
    config.stash[FIGURES] = []
    config.stash[COMPARISON] = Comparison(MODULE, COPY, OTHER)
    # Everything runs in one thread, and its own time doesn't count what else the machine does.
    config.option.benchmark_timer = "time.process_time"
    # One table of all columns for every group hides what is compared; ours is printed instead.
    config.option.benchmark_quiet = True


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    if not config.getoption("--slow"):
        skip = pytest.mark.skip(reason="needs --slow")
        for item in items:
            if item.get_closest_marker("slow"):
                item.add_marker(skip)
    if OTHER:
        leave_those_to_compare(config, items)


def leave_those_to_compare(config: pytest.Config, items: list[pytest.Item]) -> None:
    """Only what the other revision does, too."""
    of_other = {function_of(item) for item in items if OTHER in values_of(item)}
    parted: dict[bool, list[pytest.Item]] = {True: [], False: []}
    for item in items:
        parted[function_of(item) in of_other].append(item)
    config.hook.pytest_deselected(items=parted[False])
    items[:] = parted[True]


def function_of(item: pytest.Item) -> tuple[str, str]:
    return str(item.path), getattr(item, "originalname", item.name)


def values_of(item: pytest.Item) -> list[str]:
    callspec = getattr(item, "callspec", None)
    return (
        [value for value in callspec.params.values() if isinstance(value, str)] if callspec else []
    )


def pytest_benchmark_update_machine_info(machine_info: dict[str, Any]) -> None:
    machine_info["packages"] = {name: metadata.version(name) for name in PACKAGES}
    # Of the last fifteen minutes; the benchmarks themselves are 1 of it.
    machine_info["load"] = os.getloadavg()[2]


if OTHER:

    @pytest.fixture
    def measure(request: pytest.FixtureRequest) -> Callable[..., None]:
        return request.config.stash[COMPARISON].add

else:

    @pytest.fixture
    def measure(benchmark: Any, request: pytest.FixtureRequest) -> Iterator[Callable[..., None]]:
        """Times `call`, which does `count` times what the unit names, in one workload's group.

        `unit` begins with the unit of time: "ns a cell". `floor` tells that the contender does
        only a part of the work, `part` which one (see bench/report.py), and `memory` what it took.
        `setup` comes before every round and isn't timed.
        """

        def run(
            call: Callable[[], Any],
            *,
            workload: str,
            contender: str,
            count: float,
            unit: str,
            rounds: int = 7,
            iterations: int = 1,
            floor: bool = False,
            part: str = "",
            memory: str = "",
            setup: Callable[[], None] | None = None,
        ) -> None:
            benchmark.group = workload
            benchmark.extra_info.update(
                contender=contender, count=count, unit=unit, floor=floor, part=part, memory=memory
            )
            benchmark.pedantic(
                call, setup=setup, rounds=rounds, iterations=iterations, warmup_rounds=1
            )

        yield run
        if benchmark.stats is not None:
            figure = Figure.of(
                request.node.nodeid,
                benchmark.group,
                benchmark.stats.stats.as_dict(),
                benchmark.extra_info,
            )
            request.config.stash[FIGURES].append(figure)


def pytest_terminal_summary(terminalreporter: Any, config: pytest.Config) -> None:
    if OTHER:
        terminalreporter.section(f"this module and {OTHER}, by turns", sep="-", bold=True)
        for line in config.stash[COMPARISON].text():
            terminalreporter.write_line(line)
        return
    for group in by_workload(config.stash[FIGURES]):
        first = group[0]
        terminalreporter.section(f"{first.workload} ({first.unit})", sep="-", bold=True)
        for figure in group:
            ratio = figure.ratio_text(first)
            line = f"{figure.contender:<26} {figure.text:>26} {ratio:>22}  {figure.memory}"
            terminalreporter.write_line(line.rstrip())
        if own := beyond(group):
            terminalreporter.write_line(f"{BEYOND:<26} {own:>26}")
    for figures in by_subject_and_unit(config.stash[FIGURES]):
        for line in spreads(by_workload(figures)):
            terminalreporter.write_line(line)
