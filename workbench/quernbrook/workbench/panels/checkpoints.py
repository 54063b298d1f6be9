"""Function states of a run in one file, with the symbols of the panel that they belong to.

The file is a checkpoint of the reference host: versioned, with a checksum, JSON inside. The panel's
symbols and last date stand in it as one more record, under a key that no node has.
"""

from __future__ import annotations

import os
from collections.abc import Hashable, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
from quernbrook.reference_host import checkpoints
from quernbrook.reference_host.checkpoints import CheckpointError
from quernbrook.workbench.panels.labels import PanelError, as_date, zone
from quernbrook.workbench.panels.panel import Panel

_KEY = "quernbrook-panel"
_VERSION = 1
_OTHER_RELEASE = "go on with the release that wrote it, or run the history again"
_OTHER_PANEL = "take a panel like the one that it was written for, or run the history again"
_OTHER_FILE = "name a file that save_checkpoint() wrote"


@dataclass(frozen=True)
class Checkpoint:
    """What `save_checkpoint` wrote.

    states: ready for `evaluate` or `bind_instances`.
    last_date: that of the panel whose rows the states have seen.
    symbols: those of that panel, in its order.
    """

    states: Mapping[str, Any]
    last_date: pd.Timestamp
    symbols: pd.Index


def save_checkpoint(path: str | os.PathLike[str], states: Mapping[str, Any], panel: Panel) -> None:
    """Write `states`, which have seen the panel's rows to the last, in place of what `path` held.

    A reader, or a machine back from a power cut, finds either the old file or the new one, whole.

    Raises PanelError for a panel without dates and for symbols that are neither texts nor integers,
    TypeError for a state that JSON can't hold, and OSError.
    """
    if panel.dates.empty:
        raise PanelError("a checkpoint needs a last date; the panel has no dates")
    last = panel.dates[-1]
    record = {
        "version": _VERSION,
        "symbols": [_as_json(symbol) for symbol in panel.symbols],
        # In UTC where there is a zone: local time isn't unique when clocks go back.
        "last_date": (last.tz_convert(None) if last.tz else last).isoformat(),
        "time_zone": str(last.tz) if last.tz else None,
    }
    checkpoints.save(path, {**states, _KEY: record})


def load_checkpoint(path: str | os.PathLike[str], panel: Panel | None = None) -> Checkpoint:
    """Return what a file holds, to go on with rows of `panel`; None is for whoever has no rows yet,
    and takes the file's symbols.

    Nothing in the file is run. The checksum finds accidents, not forgers: states reach the
    functions that they name, so take files from whom you trust with that.

    Raises CheckpointError for a file of other symbols, of another order of them or of another time
    zone, and for one that is cut, altered, of another version or no checkpoint of a panel at all;
    and OSError.
    """
    path = Path(path)
    states = checkpoints.load(path)
    record = states.pop(_KEY, None)
    if not isinstance(record, dict):
        raise CheckpointError(path, "holds states without the symbols of a panel", _OTHER_FILE)
    if record.get("version") != _VERSION:
        reason = f"its panel has version {record.get('version')!r}, not known (known: {_VERSION})"
        raise CheckpointError(path, reason, _OTHER_RELEASE)
    symbols, its_zone = record.get("symbols"), record.get("time_zone")
    if not isinstance(symbols, list):
        raise CheckpointError(path, "its panel has no list of symbols", _OTHER_FILE)
    try:
        last = as_date(record["last_date"], None)
    except (KeyError, PanelError) as error:
        raise CheckpointError(path, "its panel has no last date", _OTHER_FILE) from error
    if panel is not None:
        _require_symbols(path, symbols, panel)
        its_zone_text = f"in the time zone {its_zone}" if its_zone else zone(None)
        if its_zone_text != zone(panel.dates.tz):
            reason = f"its dates are {its_zone_text}, those of the panel {zone(panel.dates.tz)}"
            raise CheckpointError(path, reason, _OTHER_PANEL)
    if its_zone:
        last = last.tz_localize("UTC").tz_convert(its_zone if panel is None else panel.dates.tz)
    return Checkpoint(states, last, pd.Index(symbols))


def _as_json(symbol: Hashable) -> str | int:
    if isinstance(symbol, str) or (isinstance(symbol, int) and not isinstance(symbol, bool)):
        return symbol
    if isinstance(symbol, np.integer):
        return int(symbol)
    raise PanelError(f"a checkpoint holds symbols that are texts or integers, not {symbol!r}")


def _require_symbols(path: Path, symbols: list[Any], panel: Panel) -> None:
    expected = [_as_json(symbol) for symbol in panel.symbols]
    if symbols == expected:
        return
    for place, (its, ours) in enumerate(zip(symbols, expected, strict=False)):
        if its != ours:
            reason = f"written for other symbols: number {place} is {its!r}, in the panel {ours!r}"
            raise CheckpointError(path, reason, _OTHER_PANEL)
    reason = f"written for {len(symbols)} symbols; the panel has {len(expected)}"
    raise CheckpointError(path, reason, _OTHER_PANEL)
