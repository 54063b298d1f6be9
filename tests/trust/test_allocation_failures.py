"""Whichever allocation of a run fails, the run ends in MemoryError or well, and never in a crash."""

from __future__ import annotations

import json
import os
import subprocess
import sys
from typing import Any

import pytest
from support.children import child
from support.leak_roads import FAILING_ROADS, GOOD_ROADS
from support.strip_roads import FAILING_STRIP_ROADS, GOOD_STRIP_ROADS

MODULE = "quernbrook.simulator_engine.expression_evaluator"
#: Their ends differ from run to run, or the run is too long to fail at each allocation.
LEFT_OUT = {
    "cycle",
    "results of many kinds, bound",
    "results of many kinds, registry",
    # Python behind a C function can't tell of its errors.
    "a kernel of a reduction",
    "a filtered reduction in strips",
    # Where a block finds no memory, its rows may.
    "blocks of another shape",
    "no blocks",
}
EVERY_ROAD = {**GOOD_ROADS, **FAILING_ROADS, **GOOD_STRIP_ROADS, **FAILING_STRIP_ROADS}
ROADS = [road for road in EVERY_ROAD if road not in LEFT_OUT]
GROUPS = 4


def sweep(module: str, *roads: str) -> subprocess.CompletedProcess[str]:
    return child("-m", "support.allocation_failures", module, *roads)


@pytest.fixture(autouse=True)
def native_only() -> None:
    if os.environ.get("EVALUATOR_TESTS") == "reference":
        pytest.skip("the plain evaluator allocates through the interpreter alone")


@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="no memory hooks here")
@pytest.mark.parametrize("group", range(GROUPS))
def test_every_allocation_of_every_road_fails_once(group: int) -> None:
    pytest.importorskip("_testcapi", reason="this interpreter is built without _testcapi")
    left = roads = ROADS[group::GROUPS]
    reports: dict[str, Any] = {}
    while left:
        finished = sweep(MODULE, *left)
        lines = [json.loads(line) for line in finished.stdout.splitlines() if line[:1] == "{"]
        reports |= {line["road"]: line for line in lines if "road" in line}
        if finished.returncode == 0:
            break
        crashed = lines[-1].get("begun", "no road")
        # CPython 3.12.1 and 3.13.0 crash by themselves where some host's calls find no memory.
        crashes_itself = sweep("reference_evaluator", crashed).returncode < 0
        assert crashes_itself, f"{crashed}: {finished.stderr}"
        roads = [road for road in roads if road != crashed]
        left = left[left.index(crashed) + 1 :]
    assert list(reports) == roads
    assert {road: report["odd"] for road, report in reports.items() if report["odd"]} == {}
    assert [road for road, report in reports.items() if report["locked"]] == []
    # Otherwise the hooks would not be at work.
    assert [road for road, report in reports.items() if not report["failed"]] == []


# NumPy and the module's own tables take their memory past those hooks, from the system.
LARGE = """
import importlib, resource, sys
import numpy as np
from support.leak_roads import STUBS, evaluating, functions_registry
from support.graphs import feature, integer, rotation

evaluator = importlib.import_module(sys.argv[1])
matrix = np.arange(800_000.0).reshape(-1, 4)
options = {"features": {"a": matrix}, "nan_features": None}
roads = [
    evaluating(feature("a"), universe=matrix, **options),
    evaluating(rotation("latitudinal_rank", feature("a")), **options),
    evaluating(rotation("longitudinal_mean", feature("a"), integer(9)), registry=STUBS, **options),
    # Its registers are wide, too.
    evaluating(
        rotation("f", feature("a")),
        registry=functions_registry(),
        features={"a": matrix.reshape(2, -1)},
        nan_features=None,
    ),
]
ends = set()
used = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
for road in roads:
    run = road(evaluator)
    expected = run().weights
    for more in range(0, 40_000_000, 1_000_000):
        limits = resource.getrlimit(resource.RLIMIT_AS)
        resource.setrlimit(resource.RLIMIT_AS, (used + more, limits[1]))
        try:
            result = run()
        except MemoryError:
            ends.add("no memory")
        else:
            resource.setrlimit(resource.RLIMIT_AS, limits)
            assert np.array_equal(result.weights, expected, equal_nan=True)
            ends.add("result")
        finally:
            resource.setrlimit(resource.RLIMIT_AS, limits)
print(sorted(ends))
"""


@pytest.mark.skipif(sys.platform != "linux", reason="needs /proc and a limit of the address space")
@pytest.mark.skipif("libasan" in os.environ.get("LD_PRELOAD", ""), reason="it reserves terabytes")
def test_matrices_that_the_system_refuses() -> None:
    finished = child("-c", LARGE, MODULE)
    assert finished.returncode == 0, finished.stderr
    assert finished.stdout == "['no memory', 'result']\n"
