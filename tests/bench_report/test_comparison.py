"""What a comparison with another revision calls a difference, and what noise."""

from __future__ import annotations

import math
import re
from collections.abc import Callable
from itertools import count
from types import SimpleNamespace

import numpy as np
import pytest

from bench import comparison
from bench.comparison import FASTER, NOISE, ROUNDS, SLOWER, Comparison, Interval, Line, Turn

NAMES = ["this module", "a copy of it", "revision old"]
CLEAR = Interval(0.99, 1.0, 1.01)


def line(revision: Interval, copy: Interval = CLEAR) -> Line:
    return Line("rank", "5 ns a cell", revision, copy, "")


@pytest.fixture
def clock(monkeypatch: pytest.MonkeyPatch) -> Callable[[float], None]:
    """The processor's time, which passes only when somebody spends it."""
    now = [0.0]

    def spend(seconds: float) -> None:
        now[0] += seconds

    monkeypatch.setattr(comparison, "time", SimpleNamespace(process_time=lambda: now[0]))
    return spend


def compared(
    spend: Callable[[float], None], speeds: dict[str, float], workloads: int = 12, **options: object
) -> Comparison:
    """A comparison of contenders that take so many milliseconds, each with noise of 5 %."""
    noise = np.random.default_rng(0)
    found = Comparison(*NAMES)
    for number in range(workloads):
        for name, speed in speeds.items():

            def call(speed: float = speed) -> None:
                spend(1e-3 * speed * noise.lognormal(0.0, 0.05))

            found.add(
                call,
                workload=f"work {number}",
                contender=name,
                count=1000,
                unit="ns a cell",
                rounds=3,
                **options,
            )
    return found


def verdicts(found: Comparison) -> list[str]:
    band = comparison.band_of(found.lines)
    return [line.verdict(band) for line in found.lines]


def test_the_median_lies_between_the_ends_with_the_confidence_that_is_told() -> None:
    # It doesn't where all but so few rounds lie on one side of it.
    beside = sum(math.comb(ROUNDS, few) for few in range(comparison.BEYOND_ENDS + 1))
    assert 0.99 <= 1.0 - 2.0 * beside / 2.0**ROUNDS < 0.995
    interval = Interval.of(np.random.default_rng(0).permutation(ROUNDS) + 1.0)
    assert interval == Interval(1.0 + comparison.BEYOND_ENDS, 11.0, ROUNDS - comparison.BEYOND_ENDS)


def test_the_same_code_is_noise(clock: Callable[[float], None]) -> None:
    found = compared(clock, dict.fromkeys(NAMES, 1.0))
    assert verdicts(found) == [NOISE] * 12


@pytest.mark.parametrize(("speed", "verdict"), [(1.1, FASTER), (0.9, SLOWER)])
def test_a_tenth_is_found(clock: Callable[[float], None], speed: float, verdict: str) -> None:
    found = compared(clock, dict(zip(NAMES, [1.0, 1.0, speed], strict=True)))
    assert verdicts(found) == [verdict] * 12
    assert found.lines[0].revision.middle == pytest.approx(speed, rel=0.03)
    number, unit = found.lines[0].time.split(" ", 1)
    assert float(number.replace(",", "")) == pytest.approx(1000.0, rel=0.03)
    assert unit == "ns a cell"


@pytest.mark.parametrize(
    ("revision", "copy", "band", "verdict"),
    [
        pytest.param(Interval(1.04, 1.05, 1.06), CLEAR, 1.02, FASTER, id="beyond both"),
        pytest.param(Interval(0.94, 0.95, 0.96), CLEAR, 1.02, SLOWER, id="below both"),
        pytest.param(Interval(0.98, 1.05, 1.06), CLEAR, 1.00, NOISE, id="may be 1"),
        pytest.param(Interval(1.04, 1.05, 1.06), CLEAR, 1.05, NOISE, id="in the band"),
        pytest.param(Interval(0.94, 0.95, 0.96), CLEAR, 1.05, NOISE, id="in the band below"),
        pytest.param(
            Interval(1.04, 1.05, 1.06), Interval(1.0, 1.03, 1.05), 1.02, NOISE, id="like its copy"
        ),
        pytest.param(
            Interval(0.94, 0.95, 0.96), Interval(0.95, 0.97, 1.0), 1.02, NOISE, id="as its copy"
        ),
    ],
)
def test_a_difference_is_beyond_the_band_and_the_copy(
    revision: Interval, copy: Interval, band: float, verdict: str
) -> None:
    assert line(revision, copy).verdict(band) == verdict


def test_the_band_is_what_rounds_do_not_explain_of_the_copies() -> None:
    may_be_one, above, below = CLEAR, Interval(1.02, 1.03, 1.04), Interval(0.9, 0.95, 0.96)
    assert comparison.band_of([line(CLEAR, may_be_one)] * 3) == 1.0
    assert comparison.band_of([line(CLEAR, above)]) == pytest.approx(1.02)
    assert comparison.band_of([line(CLEAR, below)]) == pytest.approx(1.0 / 0.96)
    # One in forty is one of the twentieth that is left out.
    assert comparison.band_of([line(CLEAR, may_be_one)] * 39 + [line(CLEAR, above)]) == 1.0


def test_all_take_turns_in_every_round() -> None:
    taken: list[str] = []
    turns = {
        name: Turn(lambda name=name: taken.append(name), None, "")  # type: ignore[misc]
        for name in NAMES
    }
    comparison.rounds_of(turns, calls=1)
    rounds = [tuple(taken[start : start + 3]) for start in range(0, len(taken), 3)]
    assert len(rounds) == ROUNDS + 1
    assert all(set(one) == set(NAMES) for one in rounds)
    assert len(set(rounds)) > 3  # in an order of its own


def test_what_is_quick_is_done_often_and_what_is_set_up_once(
    clock: Callable[[float], None],
) -> None:
    calls, setups = count(), count()

    def call() -> None:
        next(calls)
        clock(1e-3)

    assert Turn(call, None, "").calls_of_a_round() == 20
    assert Turn(call, lambda: clock(next(setups)), "").calls_of_a_round() == 1
    before = next(setups)
    # The setting up isn't timed.
    assert Turn(call, lambda: clock(next(setups)), "").seconds(1) == pytest.approx(1e-3)
    assert next(setups) == before + 2


def test_the_end_sums_up(clock: Callable[[float], None]) -> None:
    found = compared(clock, dict(zip(NAMES, [1.0, 1.0, 1.2], strict=True)), memory="5 MiB")
    found.add(lambda: None, workload="a graph", contender=NAMES[0], count=1, unit="ns a cell")
    text = found.text()
    columns = ["this module", "revision over it", "copy over it", "this module is"]
    assert re.split("  +", text[0].strip()) == columns
    assert text[1].startswith("work 0 ") and text[1].endswith("faster  5 MiB, revision 5 MiB")
    assert "not compared, since only this module ran it: a graph" in text
    counts, mean, noise = text[-3:]
    ratios = re.fullmatch(
        r"12 lines: 0 noise, this module faster in 12 \(by ratios of ([\d.]+) to ([\d.]+)\), "
        r"this module slower in 0\.",
        counts,
    )
    assert ratios is not None
    assert 1.17 < float(ratios[1]) < 1.2 < float(ratios[2]) < 1.23
    means = re.search(r"revision old ([\d.]+), copy ([\d.]+)\.", mean)
    assert means is not None
    assert [float(each) for each in means.groups()] == pytest.approx([1.2, 1.0], abs=0.01)
    assert "between 1.000 and 1.000" in noise


def test_nothing_to_compare_is_told() -> None:
    assert Comparison(*NAMES).text() == [
        "Nothing that was chosen compares this module with revision old."
    ]
