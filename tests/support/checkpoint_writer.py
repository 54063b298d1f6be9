"""A process that goes on from a checkpoint file row by row, and saves after each."""

from __future__ import annotations

from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any

import numpy as np
from quernbrook.reference_host import SavedState, checkpoints
from quernbrook.simulator_engine import expression_evaluator as native
from support.restores import History, every_stateful_function

#: More rows than anybody waits for.
HISTORY = History(20_000)
GRAPH = every_stateful_function()
_POSITION = "position"


def save(path: Path, rows: int, result: Any) -> None:
    """The states of a run over so many rows, and its last weights."""
    position = SavedState(_POSITION, {"rows": rows, "weights": result.weights[-1].tolist()})
    checkpoints.save(path, {**result.states, _POSITION: position})


def load(path: Path) -> tuple[int, Any, dict[str, Any]]:
    """The number of rows that the saved run had seen, its last weights, and its states."""
    states = checkpoints.load(path)
    position = states.pop(_POSITION).state_data
    return position["rows"], np.array(position["weights"]), states


def go_on(path: Path, saved: Connection) -> None:
    """Send the number of rows after every save."""
    rows, _, states = load(path)
    cold = True
    while True:
        result = HISTORY.run(native, GRAPH, rows, rows + 1, states, cold=cold)
        rows, states, cold = rows + 1, result.states, False
        save(path, rows, result)
        saved.send(rows)
