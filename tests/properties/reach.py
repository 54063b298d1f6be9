"""Makes sure that the random cases of a strategy lead to where they are meant to."""

from __future__ import annotations

from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass
from random import Random
from typing import Any

import pytest
import reference_evaluator
from hypothesis import Phase, find, settings
from hypothesis import strategies as st
from hypothesis.errors import NoSuchExample
from properties.cases import RunCase
from properties.observe import Observation, observe

#: Many times as many as the rarest goal takes on average: a miss is no bad luck.
MOST_EXAMPLES = 4_000


@dataclass
class Reached:
    case: RunCase
    observed: Observation
    counts: Counter[str]

    def outcome(self, run: int = 0) -> Observation:
        return self.observed.get(f"run {run}", {})

    def error(self, run: int = 0) -> Any:
        """The name of the error that a run ends with."""
        error = self.outcome(run).get("error") or self.observed.get("construction")
        return error and error[0].rpartition(".")[2]

    @property
    def log(self) -> list[Any]:
        return self.observed.get("calls", [])

    def questions(self, question: str) -> int:
        return sum(entry[0] == question for entry in self.log)


def require_reach(
    cases: st.SearchStrategy[RunCase], count: Callable[[Reached], None], goals: dict[str, int]
) -> None:
    """Tries cases, the same ones each time, until all goals have been counted often enough."""
    counts: Counter[str] = Counter()

    def suffices(case: RunCase) -> bool:
        count(Reached(case, observe(reference_evaluator, case), counts))
        return all(counts[goal] >= times for goal, times in goals.items())

    enough = settings(max_examples=MOST_EXAMPLES, database=None, phases=[Phase.generate])
    try:
        find(cases, suffices, settings=enough, random=Random(1))
    except NoSuchExample:
        pytest.fail(f"{MOST_EXAMPLES} cases reach {dict(counts)}; the goals are {goals}")
