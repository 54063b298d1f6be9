"""Sweeps on Ray: one machine, and a cluster that loses a node."""

from __future__ import annotations

import os
import subprocess
import sys
import threading
from collections.abc import Iterator
from pathlib import Path

import pytest
from quernbrook.workbench.sweeps import Run, SweepError, SweepReport, read_manifest, sweep
from support import sweep_registry
from support.sweeps import (
    REGISTRY,
    SLOW_FORMULA,
    assert_equal,
    assert_tidy,
    files,
    lasting,
    make_panel,
    make_runs,
)

pytestmark = [
    pytest.mark.stress,
    # Ray's own.
    pytest.mark.filterwarnings("ignore::DeprecationWarning", "ignore::FutureWarning"),
    pytest.mark.filterwarnings(
        "ignore::ResourceWarning", "ignore::pytest.PytestUnraisableExceptionWarning"
    ),
]


@pytest.fixture(autouse=True)
def _ray_works_here(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    pytest.importorskip("ray")
    # Workers import the registry of the tests, and evaluate with this process's modules.
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join(path for path in sys.path if path))
    monkeypatch.setenv("RAY_ACCEL_ENV_VAR_OVERRIDE_ON_ZERO", "0")
    monkeypatch.setenv(sweep_registry.FOLDER, str(tmp_path))


def serially(runs: list[Run], out: Path) -> SweepReport:
    return sweep(runs, make_panel(), out=out, engine="serial", registry=REGISTRY)


def test_one_machine(tmp_path: Path) -> None:
    runs = make_runs(30)
    faulty = [
        Run("deadly", "dies(close)"),
        Run("slow", "sleeps(close)"),
        Run("bad", "fails(close)"),
        Run("loud", "warns(close)"),
    ]
    serially(runs, tmp_path / "serial")
    out = tmp_path / "out"
    report = sweep(
        [*runs, *faulty],
        make_panel(),
        out=out,
        engine="ray",
        registry=REGISTRY,
        workers=2,
        tries=2,
        time_limit=8.0,
    )
    assert report == SweepReport(31, 3, 0)
    rows = read_manifest(out)
    errors = rows["error"].dropna().to_dict()
    assert errors == {
        "deadly": "WorkerDied",
        "slow": "TimeLimitExceeded",
        "bad": "FunctionExecutionError",
    }
    assert rows.loc["loud", "warnings"] == ["RuntimeWarning: a row of odd numbers"]
    written = files(out)
    assert files(tmp_path / "serial").items() <= written.items()
    assert len(written) == 31
    assert_tidy(out)


def test_a_full_disk(tmp_path: Path, small_disk: Path) -> None:
    """Workers on the driver's node write there themselves; the driver tells what is wrong."""
    runs, panel, out = make_runs(60), make_panel(), small_disk / "out"
    with pytest.raises(SweepError, match=r"No space left on device\. What was done is kept"):
        sweep(runs, panel, out=out, engine="ray", registry=REGISTRY, workers=2)
    kept = lasting(out)
    assert 0 < len(kept) < 60
    assert_tidy(out)
    subprocess.run(["mount", "-o", "remount,size=40m", str(small_disk)], check=True)
    report = sweep(runs, panel, out=out, engine="ray", registry=REGISTRY, workers=2)
    assert report == SweepReport(60 - len(kept), 0, len(kept))
    serially(runs, tmp_path / "serial")
    assert_equal(out, tmp_path / "serial")


@pytest.fixture
def cluster() -> Iterator[object]:
    utilities = pytest.importorskip("ray.cluster_utils")
    made = utilities.Cluster(
        initialize_head=True, head_node_args={"num_cpus": 1, "include_dashboard": False}
    )
    try:
        yield made
    finally:
        made.shutdown()


def test_a_cluster_that_loses_a_node(tmp_path: Path, cluster: object) -> None:
    others = [cluster.add_node(num_cpus=1) for _ in range(2)]  # type: ignore[attr-defined]
    runs, out = make_runs(100, SLOW_FORMULA), tmp_path / "out"
    serially(runs, tmp_path / "serial")
    lost = threading.Event()

    def lose_a_node() -> None:
        while not (out / "manifest.jsonl").exists() or not (out / "manifest.jsonl").read_bytes():
            if lost.wait(0.05):
                return
        cluster.remove_node(others[0], allow_graceful=False)  # type: ignore[attr-defined]
        lost.set()

    thread = threading.Thread(target=lose_a_node)
    thread.start()
    try:
        report = sweep(
            runs,
            make_panel(),
            out=out,
            engine="ray",
            registry=REGISTRY,
            ray_address=cluster.address,  # type: ignore[attr-defined]
            tries=10,
        )
        assert lost.is_set()
    finally:
        lost.set()
        thread.join()
    assert report == SweepReport(100, 0, 0)
    assert_equal(out, tmp_path / "serial")


def test_no_such_cluster(tmp_path: Path) -> None:
    with pytest.raises(SweepError, match=r"no Ray cluster answers at 127.0.0.1:1: "):
        sweep(make_runs(1), make_panel(), out=tmp_path, engine="ray", ray_address="127.0.0.1:1")
