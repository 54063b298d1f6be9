"""Checkpoint files: whole, or refused by name and reason."""

from __future__ import annotations

import hashlib
import os
import pickle
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest
from quernbrook.reference_host import CheckpointError, SavedState, checkpoints, default_registry

STATES = {
    "root": SavedState("longitudinal_mean", {"count": 3, "window": 9, "buffer": [[1.0, 2.5]]}),
    "root.c0": SavedState("longitudinal_std", {"buffer": [float("nan"), float("inf"), 0.1 + 0.2]}),
    "näme\n": SavedState("f\r\n", {"text": "line\u2028break\x85\n"}),
}


@pytest.fixture
def path(tmp_path: Path) -> Path:
    return tmp_path / "run.checkpoint"


def refusal(path: Path) -> str:
    """The reason for which the file is refused; its message must name file and remedy, too."""
    with pytest.raises(CheckpointError) as caught:
        checkpoints.load(path)
    error = caught.value
    assert str(error) == f"checkpoint '{path}': {error.reason}; {error.remedy}"
    return error.reason


def forge(path: Path, payload: bytes, *, states: int = 1, version: int = 1) -> None:
    digest = hashlib.sha256(payload).hexdigest()
    header = f"quernbrook-checkpoint {version} {states} {len(payload)} {digest}\n"
    path.write_bytes(header.encode() + payload)


def test_round_trip(path: Path) -> None:
    checkpoints.save(path, STATES)
    loaded = checkpoints.load(path)
    assert list(loaded) == list(STATES)
    for key, state in STATES.items():
        assert loaded[key].name == state.name
        assert repr(loaded[key].state_data) == repr(state.state_data)


def test_loaded_states_can_be_saved_again(path: Path) -> None:
    checkpoints.save(path, STATES)
    first = path.read_bytes()
    checkpoints.save(path, checkpoints.load(path))
    assert path.read_bytes() == first


def test_no_states(path: Path) -> None:
    checkpoints.save(path, {})
    assert checkpoints.load(path) == {}


def test_instance_goes_on_bit_for_bit(path: Path) -> None:
    registry = default_registry()
    rows = np.random.default_rng(5).normal(size=(40, 6))
    instance = registry.create_instance("longitudinal_zscore", window=7)
    for row in rows[:25]:
        instance(row)
    checkpoints.save(str(path), {"root": instance.get_state()})
    state = checkpoints.load(str(path))["root"]
    restored = registry.create_instance_from_state("longitudinal_zscore", state, window=7)
    for row in rows[25:]:
        assert restored(row).tobytes() == instance(row).tobytes()


def test_every_cut_is_refused(path: Path) -> None:
    checkpoints.save(path, STATES)
    whole = path.read_bytes()
    for length in range(len(whole)):
        path.write_bytes(whole[:length])
        assert "cut" in refusal(path), length


def test_every_altered_byte_is_refused(path: Path) -> None:
    checkpoints.save(path, STATES)
    whole = path.read_bytes()
    for i in range(len(whole)):
        path.write_bytes(whole[:i] + bytes([whole[i] ^ 1]) + whole[i + 1 :])
        assert refusal(path), i


def test_surplus_bytes_are_refused(path: Path) -> None:
    checkpoints.save(path, STATES)
    size = path.stat().st_size
    with path.open("ab") as file:
        file.write(b"\n")
    header = path.read_bytes().index(b"\n") + 1
    assert refusal(path) == f"too long: {size - header + 1} of {size - header} bytes"


def test_oversized_file_is_refused_unread(path: Path) -> None:
    checkpoints.save(path, STATES)
    os.truncate(path, 1 << 40)
    assert refusal(path).startswith("too long: ")


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"\n",
        b"PK\x03\x04" + bytes(500),
        b"x" * 10_000,
        b"other-format 1 0 0 " + b"0" * 64 + b"\n",
    ],
)
def test_foreign_file_is_refused(path: Path, content: bytes) -> None:
    path.write_bytes(content)
    assert refusal(path) == "not a checkpoint, or cut in its first line"


def test_later_version_is_refused(path: Path) -> None:
    forge(path, b"", states=0, version=2)
    assert refusal(path) == "version 2 is not known (known: 1)"


def test_each_refusal_has_its_remedy(path: Path) -> None:
    """Otherwise one might throw away a file that another release can read."""
    remedies = []
    for version in (1, 2):
        forge(path, b"", version=version)
        with pytest.raises(CheckpointError) as caught:
            checkpoints.load(path)
        remedies.append(caught.value.remedy)
    with pytest.raises(CheckpointError) as caught:
        checkpoints.load(path.parent)
    assert [*remedies, caught.value.remedy] == [
        "put an intact copy in its place, or run the history again",
        "go on with the release that wrote it, or run the history again",
        "name a file that save() wrote",
    ]


@pytest.mark.parametrize("make", [os.mkdir, os.mkfifo])
def test_what_is_no_regular_file_is_refused_at_once(
    path: Path, make: Callable[[Path], None]
) -> None:
    make(path)
    assert refusal(path) == "not a regular file"


@pytest.mark.parametrize(
    ("payload", "reason"),
    [
        (b'"root"\n{"name": "f"}\n', "holds no states: KeyError: 'state_data'"),
        (b'"root"\nnull\n', "holds no states: TypeError: "),
        (b'"root"\n{\n', "holds no states: JSONDecodeError: "),
        (b'"root"\n\xff\n', "holds no states: UnicodeDecodeError: "),
        (b'"root"\n', "holds no states: ValueError: "),
        (b"[]\n{}\n", "holds no states: "),
        (b'"a"\n' + b"[" * 100_000 + b"\n", "holds no states: "),
        (b"", "holds 0 of 1 states"),
    ],
)
def test_payload_that_holds_no_states(path: Path, payload: bytes, reason: str) -> None:
    forge(path, payload)
    assert refusal(path).startswith(reason)


def test_missing_file(path: Path) -> None:
    with pytest.raises(FileNotFoundError):
        checkpoints.load(path)


def test_failed_save_leaves_the_old_file_and_nothing_else(
    path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    checkpoints.save(path, STATES)
    old = path.read_bytes()
    with pytest.raises(TypeError, match="not JSON serializable"):
        checkpoints.save(path, {"root": SavedState("f", {"row": np.zeros(2)})})

    def fail(descriptor: int) -> None:
        raise OSError("disk full")

    monkeypatch.setattr(os, "fsync", fail)
    with pytest.raises(OSError, match="disk full"):
        checkpoints.save(path, {})
    assert path.read_bytes() == old
    assert list(path.parent.iterdir()) == [path]


def test_file_and_then_its_folder_are_synced(path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    synced = []
    really_sync = os.fsync

    def record(descriptor: int) -> None:
        target = Path(os.readlink(f"/proc/self/fd/{descriptor}"))
        synced.append((target, path.exists()))
        really_sync(descriptor)

    monkeypatch.setattr(os, "fsync", record)
    checkpoints.save(path, STATES)
    (temporary, existed_before), (folder, existed_after) = synced
    assert (temporary.parent, existed_before) == (path.parent, False)
    assert (folder, existed_after) == (path.parent, True)


def test_error_can_be_pickled(path: Path) -> None:
    error = CheckpointError(path, "cut", "copy it")
    again = pickle.loads(pickle.dumps(error))
    assert str(again) == str(error) == f"checkpoint '{path}': cut; copy it"
    assert vars(again) == vars(error)
