"""All function states of a run in one file.

The file begins with a line that names the format, its version, the number of states, the length
of what follows and its SHA-256. Then come two lines for each state: its key as a JSON string, and
the bytes of ``FunctionState.to_bytes``, which never hold a line break. A state that is a plain dict
stands there without a name.
"""

from __future__ import annotations

import hashlib
import json
import os
import re
import secrets
from collections.abc import Mapping
from contextlib import suppress
from pathlib import Path
from typing import Any

_FORMAT = "quernbrook-checkpoint"
_VERSION = 1
_LONGEST_HEADER = 256
_REPLACE = "put an intact copy in its place, or run the history again"
_OTHER_RELEASE = "go on with the release that wrote it, or run the history again"
_OTHER_FILE = "name a file that save() wrote"
_HEADER = re.compile(
    rb"(?P<format>[!-~]+) (?P<version>\d{1,9}) (?P<states>\d{1,18}) (?P<length>\d{1,18}) "
    rb"(?P<sha256>[0-9a-f]{64})\n"
)


class CheckpointError(Exception):
    """A file that is no intact checkpoint; the message says which, why, and what to do."""

    def __init__(self, path: Path, reason: str, remedy: str = _REPLACE) -> None:
        super().__init__(f"checkpoint '{path}': {reason}; {remedy}")
        self.path = path
        self.reason = reason
        self.remedy = remedy

    def __reduce__(self) -> tuple[type[CheckpointError], tuple[Path, str, str]]:
        return type(self), (self.path, self.reason, self.remedy)


def save(path: str | os.PathLike[str], states: Mapping[str, Any]) -> None:
    """Write `states`, as an evaluation returned them, in place of whatever `path` held.

    A state is an object with ``name`` and ``state_data``, or a dict of its data.

    A reader, or a machine back from a power cut, finds either the old file or the new one, whole.
    A process that is killed meanwhile may leave a hidden file beside it, ``.NAME.`` and 16 digits,
    which nobody reads.

    Raises TypeError for a state that JSON can't hold, with its key and function, and OSError.
    """
    path = Path(path)
    payload = _encode(states)
    digest = hashlib.sha256(payload).hexdigest()
    header = f"{_FORMAT} {_VERSION} {len(states)} {len(payload)} {digest}\n".encode()
    temporary = path.with_name(f".{path.name}.{secrets.token_hex(8)}")
    try:
        try:
            with temporary.open("xb") as file:
                file.write(header)
                file.write(payload)
                file.flush()
                os.fsync(file.fileno())
            temporary.replace(path)
        finally:
            with suppress(OSError):
                temporary.unlink()
    except OSError as error:
        if error.errno is None:
            raise
        # The user knows of one file.
        raise OSError(error.errno, error.strerror, str(path)) from None
    _sync_folder(path.parent)


def load(path: str | os.PathLike[str]) -> dict[str, Any]:
    """Return the states of the file, ready for ``function_states``.

    Each is a ``FunctionState``, or a dict if it was saved as one.

    Raises CheckpointError for a file that is cut, altered, too long, of another version or no
    checkpoint at all, and OSError.
    """
    path = Path(path)
    # Asked before it is opened: a pipe would wait for its writer for ever.
    if path.exists() and not path.is_file():
        raise CheckpointError(path, "not a regular file", _OTHER_FILE)
    with path.open("rb") as file:
        line = file.readline(_LONGEST_HEADER)
        header = _HEADER.fullmatch(line)
        if header is None or header["format"] != _FORMAT.encode():
            raise CheckpointError(path, "not a checkpoint, or cut in its first line")
        if int(header["version"]) != _VERSION:
            version = int(header["version"])
            reason = f"version {version} is not known (known: {_VERSION})"
            raise CheckpointError(path, reason, _OTHER_RELEASE)
        # Measured before it is read, so that a foreign file of any size costs nothing.
        length = os.fstat(file.fileno()).st_size - len(line)
        if length != int(header["length"]):
            word = "cut" if length < int(header["length"]) else "too long"
            raise CheckpointError(path, f"{word}: {length} of {int(header['length'])} bytes")
        payload = file.read()
    if hashlib.sha256(payload).hexdigest() != header["sha256"].decode():
        raise CheckpointError(path, "altered: its checksum differs")
    try:
        states = _decode(payload)
    except (KeyError, TypeError, ValueError, RecursionError) as error:
        reason = f"holds no states: {type(error).__name__}: {error}"
        raise CheckpointError(path, reason) from error
    if len(states) != int(header["states"]):
        raise CheckpointError(path, f"holds {len(states)} of {int(header['states'])} states")
    return states


def _encode(states: Mapping[str, Any]) -> bytes:
    if not isinstance(states, Mapping):
        raise TypeError(
            "states must be a mapping of key to state, such as a result's `states`; "
            f"got {type(states).__name__}"
        )
    lines = []
    for key, state in states.items():
        if not isinstance(key, str):
            raise TypeError(f"the key of a state must be a text; got {key!r}")
        lines.append(json.dumps(key).encode())
        lines.append(_encode_state(key, state))
    return b"".join(line + b"\n" for line in lines)


def _encode_state(key: str, state: Any) -> bytes:
    name = None
    try:
        if isinstance(state, dict):
            return _function_state()(None, state).to_bytes()
        if not (hasattr(state, "name") and hasattr(state, "state_data")):
            raise TypeError(f"a state is a dict, or has name and state_data; got {state!r}")
        name = state.name
        return _function_state()(name, state.state_data).to_bytes()
    except (TypeError, ValueError, RecursionError) as error:
        function = "" if name is None else f" of function '{name}'"
        raise TypeError(f"state '{key}'{function} can't be saved: {error}") from error


def _decode(payload: bytes) -> dict[str, Any]:
    lines = payload.splitlines()
    return {
        json.loads(key): _decode_state(state)
        for key, state in zip(lines[::2], lines[1::2], strict=True)
    }


def _decode_state(line: bytes) -> Any:
    state = _function_state().from_bytes(line)
    return state.state_data if state.name is None else state


def _function_state() -> Any:
    # Not at the top: the evaluator imports its host's modules while it loads.
    from quernbrook.simulator_engine.expression_evaluator import FunctionState

    return FunctionState


def _sync_folder(folder: Path) -> None:
    """Make the rename itself last."""
    descriptor = os.open(folder, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
