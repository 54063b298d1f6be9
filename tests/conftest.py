"""Fixtures shared by all tests: the evaluator under test, natively built and plain Python."""

from __future__ import annotations

import importlib
import os
import signal
from collections.abc import Generator
from types import FrameType, ModuleType

import pytest

#: Seconds of the processor's time for a test. A busy machine takes none of it.
LIMIT = 300.0
MODULES = {
    "native": "quernbrook.simulator_engine.expression_evaluator",
    "reference": "reference_evaluator",
}


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption(
        "--stress", action="store_true", help="run what kills processes for minutes, too"
    )


def pytest_collection_modifyitems(config: pytest.Config, items: list[pytest.Item]) -> None:
    if config.getoption("--stress"):
        return
    for item in items:
        if item.get_closest_marker("stress"):
            item.add_marker(pytest.mark.skip(reason="kills processes for minutes: needs --stress"))


@pytest.fixture(params=sorted(MODULES))
def evaluator(request: pytest.FixtureRequest) -> ModuleType:
    """The module under test; `EVALUATOR_TESTS` (native, reference, both) chooses."""
    chosen = os.environ.get("EVALUATOR_TESTS", "both")
    if chosen not in {*MODULES, "both"}:
        raise pytest.UsageError(f"EVALUATOR_TESTS is {chosen!r}; use native, reference or both")
    if chosen not in {request.param, "both"}:
        pytest.skip(f"EVALUATOR_TESTS={chosen} leaves out the {request.param} evaluator")
    return importlib.import_module(MODULES[request.param])


@pytest.hookimpl(wrapper=True)
def pytest_runtest_protocol(item: pytest.Item) -> Generator[None, object, object]:
    """Ends a test that takes too much of the processor's time, all threads taken together."""
    marker = item.get_closest_marker("processor_time")
    limit = LIMIT if marker is None else float(marker.args[0])

    def end(signal_number: int, frame: FrameType | None) -> None:
        pytest.fail(f"it took more than {limit:g} s of the processor's time")

    before = signal.signal(signal.SIGPROF, end)
    signal.setitimer(signal.ITIMER_PROF, limit)
    try:
        return (yield)
    finally:
        signal.setitimer(signal.ITIMER_PROF, 0.0)
        signal.signal(signal.SIGPROF, before)
