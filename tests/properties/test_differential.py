"""Random runs give, raise, ask and leave the same as in the plain-Python evaluator."""

from __future__ import annotations

from collections import Counter
from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
import reference_evaluator
from hypothesis import given, settings
from properties.cases import FunctionCase, MatrixCase, NodeCase, RunCase
from properties.compare import differences, observe, require_agreement
from properties.strategies import run_cases


@given(case=run_cases())
def test_the_evaluator_agrees_with_the_plain_one(evaluator, case):
    if evaluator is reference_evaluator:
        # Nothing to compare with, but a run must not depend on what ran before it.
        assert differences(observe(evaluator, case), observe(evaluator, case)) == []
    else:
        require_agreement(reference_evaluator, evaluator, case)


# --- the comparison itself -----------------------------------------------------------------------

FEATURES = (("a", MatrixCase(((1.0, -0.0), (3.0, float("nan"))))),)
CASE = RunCase(
    graph=NodeCase("rotation", "f", (NodeCase("feature", "a"),)),
    shape=(2, 2),
    features=FEATURES,
    functions=(("f", FunctionCase(stateful=True)),),
    bound="all",
)


def altered(change: Any) -> Any:
    """The plain evaluator with `change` applied to its results or to the context afterwards."""

    def evaluate(graph: Any, context: Any, *arguments: Any, **keywords: Any) -> Any:
        result = reference_evaluator.evaluate(graph, context, *arguments, **keywords)
        change(result, context)
        return result

    return SimpleNamespace(
        __name__="altered",
        evaluate=evaluate,
        EvaluationContext=reference_evaluator.EvaluationContext,
    )


def flip_sign_of_zero(result: Any, _: Any) -> None:
    result.weights[result.weights == 0.0] *= -1.0


def other_nan(result: Any, _: Any) -> None:
    words = result.weights.view(np.uint64)
    words[np.isnan(result.weights)] += 1


def other_dtype(result: Any, _: Any) -> None:
    result.weights = result.weights.astype(np.float32)


def forgotten_state(result: Any, _: Any) -> None:
    result.states.clear()


def other_order(result: Any, _: Any) -> None:
    result.node_outputs = dict(reversed(list(result.node_outputs.items())))


def other_day(_: Any, context: Any) -> None:
    context.current_day_index += 1


def stale_registers(_: Any, context: Any) -> None:
    context.registers = np.zeros_like(context.registers)


def further_call(_: Any, context: Any) -> None:
    context.registry.has("f")


def failure(_: Any, __: Any) -> None:
    raise ValueError


@pytest.mark.parametrize(
    "change",
    [
        flip_sign_of_zero,
        other_nan,
        other_dtype,
        forgotten_state,
        other_order,
        other_day,
        stale_registers,
        further_call,
        failure,
    ],
)
def test_differences_are_seen_and_reported_with_the_case(change):
    with pytest.raises(AssertionError) as caught:
        require_agreement(reference_evaluator, altered(change), CASE)
    assert repr(CASE) in str(caught.value)


def test_the_report_builds_the_case_again():
    names = {kind.__name__: kind for kind in (RunCase, NodeCase, FunctionCase, MatrixCase)}
    assert repr(eval(repr(CASE), names, {"nan": float("nan")})) == repr(CASE)


def test_random_runs_reach_what_they_are_meant_to():
    """Otherwise agreement on them would say little."""
    reached: Counter[str] = Counter()

    @settings(max_examples=600, database=None, derandomize=True)
    @given(case=run_cases())
    def sample(case: RunCase) -> None:
        observed = observe(reference_evaluator, case)
        if "construction" in observed:
            reached["construction"] += 1
            return
        calls = Counter(entry[0] for entry in observed["calls"])
        ending = "failure" if "error" in observed["run 0"] else "result"
        reached[f"{ending} {'after calls' if calls['call'] else 'without calls'}"] += 1
        reached["long runs"] += calls["call"] > 10
        reached["restored"] += calls["restore"] > 0
        reached["reduced"] += any(
            entry[0] == "call" and "signal_pnl" in entry[3] for entry in observed["calls"]
        )
        reached["filtered"] += bool(case.graph.paths_of(("filtration",)) and ending == "result")
        reached["marked"] += bool(observed["run 0"].get("nan_source"))

    sample()
    assert reached["result after calls"] >= 60
    assert reached["failure after calls"] >= 10
    assert reached["failure without calls"] >= 10
    assert reached["long runs"] >= 5
    assert reached["restored"] >= 3
    assert reached["reduced"] >= 5
    assert reached["filtered"] >= 3
    assert reached["marked"] >= 1
