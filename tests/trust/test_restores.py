"""No state is lost or wrong over a restore: at any cut, after any kill, from any damaged file."""

from __future__ import annotations

import gzip
import io
import json
import multiprocessing
import os
import pickle
import signal
import subprocess
import sys
import time
from collections import Counter
from contextlib import suppress
from pathlib import Path
from random import Random
from types import ModuleType

import numpy as np
import pytest
import reference_evaluator
from quernbrook.reference_host import CheckpointError, SavedState, checkpoints
from quernbrook.simulator_engine import expression_evaluator as native
from support import checkpoint_writer, killed_saves
from support.graphs import feature, integer, reduction, rotation
from support.restores import (
    WEIGHTED,
    History,
    bits,
    every_stateful_function,
    longest_reduction,
    plain,
    random_graph,
)

GRAPHS, CUTS_OF_EACH = 25, 40
KILLS = 30


@pytest.fixture
def path(tmp_path: Path) -> Path:
    return tmp_path / "run.checkpoint"


# --- cuts ----------------------------------------------------------------------------------------


def test_a_thousand_random_cuts(
    evaluator: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    # Nobody pulls the plug here, and syncing would take most of the time.
    monkeypatch.setattr(os, "fsync", lambda descriptor: None)
    # The plain evaluator is slow, and here to show what is meant.
    graphs = GRAPHS // 5 if evaluator is reference_evaluator else GRAPHS
    history = History(24)
    reached: Counter[str] = Counter()
    for seed in range(graphs):
        random = Random(seed)
        graph, staged = random_graph(random), random.random() < 0.3
        whole = [
            history.run(evaluator, graph, 0, rows, staged=staged)
            for rows in range(history.rows + 1)
        ]
        for place in range(CUTS_OF_EACH):
            cut = random.randrange(history.rows)
            stop = min(cut + random.randint(1, 8), history.rows)
            # Earlier it would top up the reductions that are still short.
            cold = cut >= longest_reduction(graph)
            # A new one for each: to replace a file costs as much as to sync it.
            path = tmp_path / f"{seed} {place}"
            checkpoints.save(path, whole[cut].states)
            states = checkpoints.load(path)
            first = history.run(evaluator, graph, cut, cut + 1, states, cold=cold, staged=staged)
            rest = history.run(evaluator, graph, cut + 1, stop, first.states, staged=staged)
            weights = np.concatenate([first.weights, rest.weights])
            where = f"seed {seed}, rows {cut} to {stop}: {graph}"
            assert bits(weights) == bits(whole[stop].weights[cut:]), where
            assert plain(rest.states) == plain(whole[stop].states), where
            reached["cold"] += cold
            reached["early"] += not cold
            reached["number"] += bool(np.isfinite(weights).any())
            reached["staged"] += staged
            reached["reduction"] += longest_reduction(graph) > 0
    # Otherwise equality would say little.
    cuts = graphs * CUTS_OF_EACH
    assert reached["cold"] + reached["early"] == cuts
    assert reached["number"] > cuts / 2
    assert min(reached.values()) > 0


@pytest.mark.parametrize("cut", range(4))
@pytest.mark.parametrize("name", WEIGHTED)
def test_an_early_cold_start_doubles_one_row_and_forgets_none(
    evaluator: ModuleType, path: Path, name: str, cut: int
) -> None:
    window = 4
    graph = rotation(
        "numerical_add",
        rotation("longitudinal_mean", feature("a"), integer(2)),
        reduction(f"weighted_by_{name}", integer(window)),
    )
    history = History(16)
    whole = history.run(evaluator, graph, 0, history.rows)
    checkpoints.save(path, history.run(evaluator, graph, 0, cut).states)
    first = history.run(evaluator, graph, cut, cut + 1, checkpoints.load(path), cold=True)
    rest = history.run(evaluator, graph, cut + 1, history.rows, first.states)
    weights = np.concatenate([first.weights, rest.weights])
    assert bits(weights[:window]) != bits(whole.weights[cut : cut + window])
    assert bits(weights[window:]) == bits(whole.weights[cut + window :])
    assert repr(rest.states["root.c0"]) == repr(whole.states["root.c0"])
    short, full = rest.states["root.c1"].state_data, whole.states["root.c1"].state_data
    assert short.pop("count") == full.pop("count") + 1
    assert repr(short) == repr(full)


# --- kills ---------------------------------------------------------------------------------------


@pytest.fixture
def children_find_modules(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join(filter(None, sys.path)))


def kill_while_it_saves(path: Path, random: Random) -> int:
    """The number of rows of the last save that the killed process could tell of."""
    processes = multiprocessing.get_context("forkserver")
    # Otherwise each child would import everything anew.
    processes.set_forkserver_preload([checkpoint_writer.__name__])
    receiver, sender = processes.Pipe(duplex=False)
    child = processes.Process(target=checkpoint_writer.go_on, args=(path, sender))
    child.start()
    sender.close()
    try:
        receiver.recv()
        begin = time.perf_counter()
        saved: int = receiver.recv()
        one_row = time.perf_counter() - begin
        time.sleep(random.uniform(0.0, 2.0) * one_row)
    finally:
        child.kill()
        child.join()
    assert child.exitcode == -signal.SIGKILL
    with suppress(EOFError):
        while True:
            saved = receiver.recv()
    return saved


@pytest.mark.usefixtures("children_find_modules")
def test_killed_at_random_moments(path: Path) -> None:
    history, graph = checkpoint_writer.HISTORY, checkpoint_writer.GRAPH
    checkpoint_writer.save(path, 10, history.run(native, graph, 0, 10))
    random = Random(5)
    kills = hit = 0
    # Some processes must have been killed while they wrote.
    while kills < KILLS or (hit == 0 and kills < 20 * KILLS):
        kills += 1
        # It goes on from the file that the process killed before has left.
        saved = kill_while_it_saves(path, random)
        rows, weights, states = checkpoint_writer.load(path)
        assert rows in (saved, saved + 1)
        whole = history.run(native, graph, 0, rows)
        assert bits(weights) == bits(whole.weights[-1])
        assert plain(states) == plain(whole.states)
        strays = set(path.parent.iterdir()) - {path}
        assert all(stray.name.startswith(f".{path.name}.") for stray in strays)
        hit += bool(strays)
        for stray in strays:
            stray.unlink()
    assert hit > 0
    rest = history.run(native, graph, rows, rows + 9, states, cold=True)
    whole = history.run(native, graph, 0, rows + 9)
    assert bits(rest.weights) == bits(whole.weights[rows:])
    assert plain(rest.states) == plain(whole.states)


@pytest.mark.usefixtures("children_find_modules")
def test_killed_at_every_step(path: Path) -> None:
    finished = subprocess.run(
        [sys.executable, "-m", killed_saves.__name__, str(path)],
        capture_output=True,
        text=True,
    )
    assert finished.returncode == 0, finished.stderr
    found = [int(line) for line in finished.stdout.splitlines()]
    # Up to some step the old file is there, and from then on the new one.
    assert found == sorted(found)
    assert set(found) == {killed_saves.OLD, killed_saves.NEW}


# --- damaged and foreign files -------------------------------------------------------------------


@pytest.fixture
def whole(path: Path) -> bytes:
    """A good checkpoint, which is also in the file."""
    result = History(20).run(native, every_stateful_function(), 0, 20)
    checkpoints.save(path, result.states)
    return path.read_bytes()


def put(path: Path, content: bytes) -> None:
    """Into a new file: to write over one costs as much as to sync it."""
    path.unlink()
    path.write_bytes(content)


def refusal(path: Path) -> str:
    """The reason for which the file is refused, in a message that helps."""
    with pytest.raises(CheckpointError) as caught:
        checkpoints.load(path)
    error = caught.value
    assert str(error) == f"checkpoint '{path}': {error.reason}; {error.remedy}"
    assert error.reason and error.remedy
    return error.reason


def test_cut_at_every_length(path: Path, whole: bytes) -> None:
    for length in range(len(whole) - 1, -1, -1):
        os.truncate(path, length)
        assert "cut" in refusal(path), length


def test_a_bit_flipped_in_every_byte(path: Path, whole: bytes) -> None:
    random = Random(6)
    for place in range(len(whole)):
        # The first line has no checksum of its own.
        every_bit = place <= whole.index(b"\n")
        for bit in range(8) if every_bit else [random.randrange(8)]:
            damaged = bytearray(whole)
            damaged[place] ^= 1 << bit
            put(path, damaged)
            assert refusal(path), (place, bit)


def test_blocks_lost_or_misplaced(path: Path, whole: bytes) -> None:
    """What a bad disk or copy leaves."""
    checkpoints.save(path, History(19).run(native, every_stateful_function(), 0, 19).states)
    other = path.read_bytes()
    assert other != whole
    random = Random(7)
    for _ in range(500):
        start, stop = sorted(random.sample(range(len(whole) + 1), 2))
        block = whole[start:stop]
        for instead in (
            b"",
            bytes(len(block)),
            block * 2,
            block[::-1],
            random.randbytes(len(block)),
            other[start:stop],
        ):
            damaged = whole[:start] + instead + whole[stop:]
            put(path, damaged)
            if damaged not in (whole, other):
                assert refusal(path), (start, stop, instead)


def foreign_files(whole: bytes) -> dict[str, bytes]:
    header, payload = whole.split(b"\n", 1)
    states = {
        key: {"name": state.name, "state_data": state.state_data}
        for key, state in zip("ab", [SavedState("f", {"count": 1}), SavedState("g")], strict=True)
    }
    arrays = io.BytesIO()
    np.savez(arrays, a=np.zeros(3))
    return {
        "empty": b"",
        "blank lines": b"\n" * 1000,
        "pickle": pickle.dumps(states),
        "picture": b"\x89PNG\r\n\x1a\n\x00\x00\x00\rIHDR" + bytes(1000),
        "arrays": arrays.getvalue(),
        "JSON": json.dumps(states).encode(),
        "JSON lines": b"".join(json.dumps(state).encode() + b"\n" for state in states.values()),
        "bytes of one state": payload.split(b"\n")[1],
        "payload": payload,
        "payload first": payload + header + b"\n",
        "compressed": gzip.compress(whole),
        "line ends of Windows": whole.replace(b"\n", b"\r\n"),
        "byte order mark": b"\xef\xbb\xbf" + whole,
        "UTF-16": whole.decode().encode("utf-16"),
        "doubled": whole * 2,
        "trailing line end": whole + b"\n",
        "trailing zeros": whole + bytes(4096),
        "long line": b"x" * 1_000_000,
        "version 0": whole.replace(b" 1 ", b" 0 ", 1),
        "version 2": whole.replace(b" 1 ", b" 2 ", 1),
        "version 10": whole.replace(b" 1 ", b" 10 ", 1),
    }


def test_foreign_files(path: Path, whole: bytes) -> None:
    for name, content in foreign_files(whole).items():
        put(path, content)
        reason = refusal(path)
        assert name.startswith("version") == reason.startswith(name), (name, reason)


def test_a_folder(tmp_path: Path) -> None:
    assert refusal(tmp_path) == "not a regular file"


def test_a_state_s_own_bytes_cut_at_every_length(evaluator: ModuleType) -> None:
    states = History(20).run(evaluator, every_stateful_function(), 0, 20).states
    assert len(states) > 1
    for state in states.values():
        record = evaluator.FunctionState(state.name, state.state_data)
        stream = record.to_bytes()
        assert repr(evaluator.FunctionState.from_bytes(stream)) == repr(record)
        for damaged in (*(stream[:length] for length in range(len(stream))), stream * 2):
            with pytest.raises(json.JSONDecodeError):
                evaluator.FunctionState.from_bytes(damaged)
