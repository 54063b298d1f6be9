"""This module beside another revision of it: what differs, and what is noise.

All take turns in every round, in an order drawn by lot, so that what else the machine does meets
them alike, and times are compared round by round. A copy of this module takes part. What it and the
module differ by is no difference in code, so that smaller ones of the revision say nothing.
"""

from __future__ import annotations

import math
import random
import time
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any

import numpy as np

from bench.report import TIME_UNITS, number_text

ROUNDS = 21
# From the fifth to the fifth but last of twenty-one: there the median lies with 99 % confidence,
# whatever the times are distributed like.
BEYOND_ENDS = 4
# What is quicker is done as often as this takes, but where something is set up each time.
SECONDS_OF_ROUND = 0.02
# So many of the lines have a copy no further off than the band.
IN_BAND = 0.95
NOISE, FASTER, SLOWER = "noise", "faster", "slower"


@dataclass(frozen=True)
class Interval:
    """The median of the rounds' ratios, and between what it lies."""

    low: float
    middle: float
    high: float

    @classmethod
    def of(cls, ratios: np.ndarray) -> Interval:
        ordered = np.sort(ratios)
        return cls(
            float(ordered[BEYOND_ENDS]),
            float(np.median(ordered)),
            float(ordered[-1 - BEYOND_ENDS]),
        )

    @property
    def distance(self) -> float:
        """How far the nearer end is from 1, as a ratio of one or more; 1 where that is within."""
        return max(self.low, 1.0 / self.high, 1.0)

    def __str__(self) -> str:
        return f"{self.middle:.3f} ({self.low:.3f} to {self.high:.3f})"


@dataclass(frozen=True)
class Line:
    """One workload: the module's time, and what the revision and the copy took over it."""

    workload: str
    time: str
    revision: Interval
    copy: Interval
    memory: str

    def verdict(self, band: float) -> str:
        """What the module is beside the revision."""
        if self.revision.low > max(band, self.copy.high):
            return FASTER
        if self.revision.high < min(1.0 / band, self.copy.low):
            return SLOWER
        return NOISE


def band_of(lines: Sequence[Line]) -> float:
    """How far off a copy of the module is, beyond what its rounds explain.

    Where in memory code and matrices come to lie can make one faster than the other in all rounds.
    """
    return float(np.quantile([line.copy.distance for line in lines], IN_BAND))


@dataclass(frozen=True)
class Turn:
    """What one contender does in a round."""

    call: Callable[[], Any]
    setup: Callable[[], None] | None
    memory: str

    def seconds(self, calls: int) -> float:
        if self.setup is not None:
            self.setup()
        start = time.process_time()
        for _ in range(calls):
            self.call()
        return time.process_time() - start

    def calls_of_a_round(self) -> int:
        self.seconds(1)  # the first is not like the others
        if self.setup is not None:
            return 1
        return math.ceil(SECONDS_OF_ROUND / max(self.seconds(1), 1e-6))


@dataclass
class Comparison:
    """The workloads of a run. Each is measured once all its contenders are known."""

    module: str
    copy: str
    revision: str
    lines: list[Line] = field(default_factory=list)
    waiting: dict[str, dict[str, Turn]] = field(default_factory=dict)

    def add(
        self,
        call: Callable[[], Any],
        *,
        workload: str,
        contender: str,
        count: float,
        unit: str,
        memory: str = "",
        setup: Callable[[], None] | None = None,
        **_: object,
    ) -> None:
        """Takes what `measure` takes, but for the number of rounds and calls, which are its own."""
        turns = self.waiting.setdefault(workload, {})
        turns[contender] = Turn(call, setup, memory)
        if turns.keys() != {self.module, self.copy, self.revision}:
            return
        # Its matrices go with it.
        del self.waiting[workload]
        times = rounds_of(turns, calls=turns[self.module].calls_of_a_round())
        own = times[self.module]
        memories = [turns[name].memory for name in (self.module, self.revision)]
        scaled = np.median(own) * TIME_UNITS[unit.split()[0]] / count
        self.lines.append(
            Line(
                workload,
                f"{number_text(float(scaled))} {unit}",
                Interval.of(times[self.revision] / own),
                Interval.of(times[self.copy] / own),
                f"{memories[0]}, revision {memories[1]}" if all(memories) else "",
            )
        )

    def text(self) -> list[str]:
        """The lines, each with its verdict, and what they come to."""
        said = [
            f"not compared, since only {' and '.join(turns)} ran it: {workload}"
            for workload, turns in self.waiting.items()
        ]
        if not self.lines:
            return [*said, f"Nothing that was chosen compares this module with {self.revision}."]
        band = band_of(self.lines)
        rows = [("", "this module", "revision over it", "copy over it", "this module is")]
        for line in self.lines:
            verdict = f"{line.verdict(band)}  {line.memory}".rstrip()
            rows.append((line.workload, line.time, str(line.revision), str(line.copy), verdict))
        return [*aligned(rows), *said, "", *self.summary(band)]

    def summary(self, band: float) -> list[str]:
        verdicts = [line.verdict(band) for line in self.lines]
        lines = "1 line" if len(verdicts) == 1 else f"{len(verdicts)} lines"
        said = [f"{lines}: {verdicts.count(NOISE)} noise"]
        for verdict in (FASTER, SLOWER):
            of_kind = [
                line.revision.middle
                for line, found in zip(self.lines, verdicts, strict=True)
                if found == verdict
            ]
            span = f" (by ratios of {min(of_kind):.3f} to {max(of_kind):.3f})" if of_kind else ""
            said.append(f"this module {verdict} in {len(of_kind)}{span}")
        revision, copy = (
            float(np.exp(np.mean(np.log([getattr(line, name).middle for line in self.lines]))))
            for name in ("revision", "copy")
        )
        return [
            f"{', '.join(said)}.",
            f"All lines together (geometric mean): {self.revision} {revision:.3f}, "
            f"copy {copy:.3f}.",
            f"A line is noise if its ratio may lie between {1.0 / band:.3f} and {band:.3f}, as "
            "copies of this module do in 19 of 20 lines, or where that of its own copy may lie.",
        ]


def rounds_of(turns: Mapping[str, Turn], calls: int) -> dict[str, np.ndarray]:
    """What a call of each took in every round, after one that doesn't count."""
    times: dict[str, list[float]] = {name: [] for name in turns}
    order, lot = list(turns), random.Random(0)
    for _ in range(1 + ROUNDS):
        lot.shuffle(order)
        for name in order:
            times[name].append(turns[name].seconds(calls) / calls)
    return {name: np.array(taken[1:]) for name, taken in times.items()}


def aligned(rows: Sequence[Sequence[str]]) -> list[str]:
    """Columns to the right, but for the first and the last."""
    widths = [max(map(len, column)) for column in zip(*rows, strict=True)]
    lines = []
    for first, *middle, last in rows:
        cells = [first.ljust(widths[0])]
        cells += [text.rjust(width) for text, width in zip(middle, widths[1:], strict=False)]
        lines.append("  ".join([*cells, last]))
    return lines
