"""Sweeps whose workers, drivers, disks and files fail."""

from __future__ import annotations

import errno
import os
import random
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from functools import partial
from pathlib import Path
from typing import Any

import pytest
from quernbrook.workbench.sweeps import (
    Run,
    SweepError,
    SweepReport,
    read_manifest,
    read_weights,
    sweep,
)
from support import sweep_registry
from support.sweeps import (
    REGISTRY,
    SLOW_FORMULA,
    assert_equal,
    assert_tidy,
    files,
    kill,
    lasting,
    make_panel,
    make_runs,
    worker_ids,
)

# The thread of loky that watches a worker dies with it at times.
pytestmark = pytest.mark.filterwarnings("ignore::pytest.PytestUnhandledThreadExceptionWarning")
needs_proc = pytest.mark.skipif(sys.platform != "linux", reason="finds processes in /proc")
TESTS = Path(__file__).parents[1]


@pytest.fixture
def traces(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    folder = tmp_path / "traces"
    folder.mkdir()
    monkeypatch.setenv(sweep_registry.FOLDER, str(folder))
    return folder


def in_processes(runs: list[Run], out: Path, **others: Any) -> SweepReport:
    return sweep(runs, make_panel(), out=out, workers=2, registry=REGISTRY, **others)


def serially(runs: list[Run], out: Path, registry: str = REGISTRY) -> SweepReport:
    return sweep(runs, make_panel(), out=out, engine="serial", registry=registry)


def test_processes_write_the_same(tmp_path: Path) -> None:
    runs = make_runs(40)
    serially(runs, tmp_path / "serial")
    assert in_processes(runs, tmp_path / "out") == SweepReport(40, 0, 0)
    assert_equal(tmp_path / "out", tmp_path / "serial")
    assert_tidy(tmp_path / "out")
    assert worker_ids(os.getpid()) == []


@contextmanager
def workers_killed(pause: float) -> Iterator[list[int]]:
    """Every so often one of this process's workers is killed, whatever it does."""
    killed: list[int] = []
    over = threading.Event()
    rng = random.Random(1)

    def go_on() -> None:
        while not over.wait(pause):
            found = worker_ids(os.getpid())
            if found:
                killed.append(rng.choice(found))
                kill(killed[-1])

    thread = threading.Thread(target=go_on)
    thread.start()
    try:
        yield killed
    finally:
        over.set()
        thread.join()


def kill_workers_during(count: int, pause: float, tmp_path: Path) -> None:
    runs = make_runs(count, SLOW_FORMULA)
    serially(runs, tmp_path / "serial")
    with workers_killed(pause) as killed:
        report = in_processes(runs, tmp_path / "out", tries=50)
    assert killed
    assert report == SweepReport(count, 0, 0)
    assert_equal(tmp_path / "out", tmp_path / "serial")
    assert_tidy(tmp_path / "out")


@needs_proc
def test_workers_killed_at_random(tmp_path: Path) -> None:
    kill_workers_during(100, 0.7, tmp_path)


@needs_proc
@pytest.mark.stress
def test_workers_killed_at_random_in_a_thousand_runs(tmp_path: Path) -> None:
    kill_workers_during(1000, 0.9, tmp_path)


def test_a_run_that_kills_its_worker_is_a_row(tmp_path: Path, traces: Path) -> None:
    runs = [*make_runs(6), Run("deadly", "dies(close)"), Run("crash", "crashes(open)")]
    assert in_processes(runs, tmp_path / "out", tries=2) == SweepReport(6, 2, 0)
    rows = read_manifest(tmp_path / "out")
    for name in ("deadly", "crash"):
        assert (rows.loc[name, "error"], rows.loc[name, "tries"]) == ("WorkerDied", 2)
    assert "SIGKILL" in str(rows.loc["deadly", "message"])
    assert "SIGSEGV" in str(rows.loc["crash", "message"])
    # Once among others at most, and twice by itself.
    assert 2 <= len((traces / "deaths").read_text()) <= 3
    serially(runs[:6], tmp_path / "serial")
    assert files(tmp_path / "out") == files(tmp_path / "serial")


def test_a_run_that_kills_its_worker_once_is_done(tmp_path: Path, traces: Path) -> None:
    assert in_processes([Run("once", "dies_once(close)")], tmp_path / "out") == SweepReport(1, 0, 0)
    assert read_manifest(tmp_path / "out").loc["once", "tries"] == 2


def test_a_run_that_overruns_its_time_is_a_row(tmp_path: Path) -> None:
    runs = [*make_runs(6), Run("slow", "sleeps(close)")]
    report = in_processes(runs, tmp_path / "out", tries=2, time_limit=1.0)
    assert report == SweepReport(6, 1, 0)
    row = read_manifest(tmp_path / "out").loc["slow"]
    assert (row["error"], row["tries"]) == ("TimeLimitExceeded", 2)
    assert row["message"] == "it took more than 1 seconds"
    assert worker_ids(os.getpid()) == []


def test_warnings_and_failures_come_back_from_processes(tmp_path: Path) -> None:
    runs = [*make_runs(4), Run("loud", "warns(close)"), Run("bad", "rank(fails(close))")]
    assert in_processes(runs, tmp_path / "out") == SweepReport(5, 1, 0)
    rows = read_manifest(tmp_path / "out")
    assert rows.loc["loud", "warnings"] == ["RuntimeWarning: a row of odd numbers"]
    assert rows.loc["delta-1", "warnings"] == []
    bad = rows.loc["bad"]
    assert (bad["error_path"], bad["error_row"]) == ("root.c0", 0)


def start_driver(out: Path, count: int) -> subprocess.Popen[str]:
    paths = [*sys.path, str(TESTS)]
    return subprocess.Popen(
        [sys.executable, "-m", "support.sweep_driver", str(out), str(count)],
        env=os.environ | {"PYTHONPATH": os.pathsep.join(path for path in paths if path)},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def wait_until(happens: Callable[[], Any], seconds: float = 30.0) -> Any:
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        found = happens()
        if found:
            return found
        time.sleep(0.005)
    raise AssertionError("it did not happen in time")


def lines_of(out: Path) -> int:
    manifest = out / "manifest.jsonl"
    return manifest.read_bytes().count(b"\n") if manifest.exists() else 0


def has_more_lines(out: Path, before: int) -> bool:
    return lines_of(out) > before


def have_ended(processes: list[int]) -> bool:
    return not any(Path(f"/proc/{process}").exists() for process in processes)


@needs_proc
def test_a_driver_killed_and_started_again(tmp_path: Path) -> None:
    count, out = 60, tmp_path / "out"
    for _ in range(2):
        driver = start_driver(out, count)
        wait_until(partial(has_more_lines, out, lines_of(out)))
        workers = worker_ids(driver.pid)
        driver.kill()
        driver.communicate()
        # Nobody told the workers, which end by themselves.
        wait_until(partial(have_ended, workers))
    kept = lines_of(out)
    last = start_driver(out, count)
    output, errors = last.communicate(timeout=60)
    assert output.strip() == repr(SweepReport(count - kept, 0, kept)), errors
    serially(make_runs(count, SLOW_FORMULA), tmp_path / "serial")
    assert_equal(out, tmp_path / "serial")
    assert_tidy(out)


@needs_proc
def test_ctrl_c_ends_workers_and_keeps_what_is_done(tmp_path: Path) -> None:
    out = tmp_path / "out"
    driver = start_driver(out, 60)
    wait_until(lambda: lines_of(out))
    workers = worker_ids(driver.pid)
    driver.send_signal(signal.SIGINT)
    errors = driver.communicate(timeout=30)[1]
    assert "KeyboardInterrupt" in errors
    assert have_ended(workers)
    assert_tidy(out)
    rows = lasting(out)
    assert set(files(out)) == {f"weights/run={name}/weights.parquet" for name in rows}


def test_two_drivers_on_one_folder(tmp_path: Path) -> None:
    out = tmp_path / "out"
    first = start_driver(out, 60)
    wait_until(lambda: (out / "manifest.jsonl").exists())
    # It would end before the second is ready on a slow machine.
    first.send_signal(signal.SIGSTOP)
    second = start_driver(out, 60)
    refusal = second.communicate(timeout=30)[1]
    first.send_signal(signal.SIGCONT)
    output, errors = first.communicate(timeout=60)
    assert output.strip() == repr(SweepReport(60, 0, 0)), errors
    expected = f"{out} is written by process {first.pid} on {os.uname().nodename}: wait for it"
    assert refusal.startswith(expected), refusal
    serially(make_runs(60, SLOW_FORMULA), tmp_path / "serial")
    assert_equal(out, tmp_path / "serial")


@pytest.mark.parametrize("engine", ["serial", "joblib"])
def test_a_full_disk(tmp_path: Path, small_disk: Path, engine: Any) -> None:
    runs, panel, out = make_runs(60), make_panel(), small_disk / "out"
    with pytest.raises(SweepError, match=r"No space left on device\. What was done is kept"):
        sweep(runs, panel, out=out, engine=engine, workers=2)
    kept = lasting(out)
    assert 0 < len(kept) < 60
    assert_tidy(out)
    for name in kept:
        assert read_weights(out, [name]).num_rows == panel.fields["close"].size
    subprocess.run(["mount", "-o", "remount,size=40m", str(small_disk)], check=True)
    report = sweep(runs, panel, out=out, engine=engine, workers=2)
    assert report == SweepReport(60 - len(kept), 0, len(kept))
    serially(runs, tmp_path / "serial", "quernbrook.reference_host:default_registry")
    assert_equal(out, tmp_path / "serial")


def test_a_manifest_that_can_not_grow(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    """The line that was begun is taken back."""
    from quernbrook.workbench.sweeps import manifest

    class Disk:
        def __init__(self, file: Any) -> None:
            self._file = file

        def fileno(self) -> int:
            number: int = self._file.fileno()
            return number

        def write(self, data: memoryview) -> int:
            if self._file.tell() > 1500:
                raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
            written: int = self._file.write(data[:700])
            return written

        def close(self) -> None:
            self._file.close()

    plain = manifest.Manifest.drop

    def drop(self: Any, names: Any) -> None:
        plain(self, names)
        self._file = Disk(self._file)

    out = tmp_path / "out"
    with monkeypatch.context() as patch:
        patch.setattr(manifest.Manifest, "drop", drop)
        with pytest.raises(SweepError, match="No space left on device"):
            serially(make_runs(8), out)
    assert (out / "manifest.jsonl").read_bytes().endswith(b"\n") or not lines_of(out)
    serially(make_runs(8), out)
    serially(make_runs(8), tmp_path / "serial")
    assert_equal(out, tmp_path / "serial")
