"""Restored instances have served warm-up rows already: those are not blanked again."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.functions import RecordingFunction, raising
from support.graphs import feature, integer, reduction, rotation
from support.logs import RecordingLogger
from support.reductions import Scripted, reduction_context, stateful
from support.registries import entry
from support.runs import fails, lets_through

ROWS = 12
TWO = rotation("h", rotation("f", feature("a")), reduction("g"))
FAILED = "expression_evaluator.get_state_failed"


def counting(count: Any, **options: Any) -> Any:
    """A stateful function whose state says that it has seen `count` rows."""
    return stateful(0.0, state=lambda: {"count": count}, **options)


def plain() -> Any:
    return RecordingFunction(0.0)


def blank_rows(
    evaluator,
    figure: Any,
    functions: dict[str, Any],
    graph: Any = TWO,
    *,
    states: Any = None,
    cold: bool = False,
    **options: Any,
) -> int:
    """The leading rows that are blank when the graph's warm-up is `figure` rows."""
    context = reduction_context(evaluator, functions, rows=ROWS, **options)
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(evaluator, "_compute_graph_warmup_rows", lambda *_: figure)
        weights = evaluator.evaluate(graph, context, states, cold).weights
    blank = np.isnan(weights).all(axis=1)
    assert blank[: blank.sum()].all()
    return int(blank.sum())


@pytest.mark.parametrize(
    ("figure", "first", "second", "expected"),
    [
        (10, 4, 7, 3),
        (10, 7, 4, 3),
        (10, 12, 4, 0),
        (10, 10, 0, 0),
        (10, 9, 0, 1),
        (10, 0, 0, 10),
        (10, -5, -7, 10),
        (99, 1, 4, 12),
        (10, "7", "abc", 3),
        (10, None, 6.9, 4),
        (10, 2**70, 0, 0),
        (1, 0, 0, 1),
    ],
)
def test_the_most_advanced_instance_counts(evaluator, figure, first, second, expected):
    functions = {"f": counting(first), "g": counting(second), "h": plain()}
    assert blank_rows(evaluator, figure, functions) == expected
    assert functions["f"].state_reads == functions["g"].state_reads == 2
    assert functions["h"].state_reads == 0


@pytest.mark.parametrize("state", [None, {}, {"window": 5}])
def test_states_without_a_count(evaluator, state):
    functions = {"f": stateful(0.0, state=state), "g": plain(), "h": plain()}
    assert blank_rows(evaluator, 5, functions) == 5


@pytest.mark.parametrize("figure", [0, -1, False])
def test_without_a_warm_up_no_state_is_read_before_the_end(evaluator, figure):
    events: list[str] = []
    instance = stateful(
        lambda *_, **__: events.append("call") or 0.0, state=lambda: events.append("state")
    )
    assert blank_rows(evaluator, figure, {"f": instance, "g": plain(), "h": plain()}) == 0
    assert events == ["call"] * ROWS + ["state"]


def test_states_are_read_before_the_first_row_and_after_the_last(evaluator):
    events: list[str] = []

    def recorder(name: str) -> Any:
        return stateful(
            lambda *_, **__: events.append(name) or 0.0,
            state=lambda: events.append(f"{name} state") or {"count": 1},
        )

    assert blank_rows(evaluator, 3, {name: recorder(name) for name in "fgh"}) == 2
    states = ["f state", "g state", "h state"]
    assert events == [*states, *list("fgh") * ROWS, *states]


def test_stateless_instances_are_not_asked(evaluator):
    unasked = RecordingFunction(0.0, state=raising(AssertionError("asked")))
    functions = {"f": counting(2), "g": unasked, "h": unasked}
    assert blank_rows(evaluator, 5, functions) == 3


def test_stateful_is_read_once(evaluator):
    instance = Scripted(True, False, result=lambda *_: 0.0)
    functions = {"f": plain(), "g": instance, "h": plain()}
    assert blank_rows(evaluator, 5, functions) == 5
    assert instance.reads == [False]


def test_counts_as_the_prefill_has_raised_them(evaluator):
    """A window that is topped up with three rows has seen three rows more."""
    instance = stateful(0.0, window=5)
    instance.state = lambda: {"count": 2 + len(instance.calls)}
    functions = {"f": plain(), "g": instance, "h": plain()}
    states = {"root.c1": {"count": 2, "window": 5}}
    assert blank_rows(evaluator, 9, functions, states=states) == 7
    instance.calls.clear()
    assert blank_rows(evaluator, 9, functions, states=states, cold=True) == 4


def test_by_the_graph_s_own_figure(evaluator):
    for count, expected in ((0, 4), (3, 1), (4, 0), (9, 0)):
        context = reduction_context(
            evaluator, {"f": counting(count)}, entries={"f": entry(stateful=True)}, rows=ROWS
        )
        graph = rotation("f", feature("a"), integer(5))
        result = evaluator.evaluate(graph, context, {"root": {"count": count}})
        assert np.isnan(result.weights).all(axis=1).sum() == expected


def test_bound_instances_are_not_asked_before_the_end(evaluator):
    functions = {"f": counting(4), "g": counting(7), "h": plain()}
    context = reduction_context(evaluator, {}, rows=ROWS)
    paths = {"root.c0": functions["f"], "root.c1": functions["g"], "root": functions["h"]}
    evaluator.evaluate(TWO, context, bound_function_instances=paths)
    assert [functions[name].state_reads for name in "fgh"] == [1, 1, 0]


# --- failures ------------------------------------------------------------------------------------


class Unreadable(dict):
    """State data that hold something and cannot be read."""

    def __init__(self, fault: BaseException) -> None:
        super().__init__(count=1)
        self.fault = fault

    def get(self, *_: Any) -> Any:
        raise self.fault


def failing_states(fault: BaseException) -> list[Any]:
    """What may fail in the reading of a count: the state, its data, the count."""
    no_truth = type("NoTruth", (dict,), {"__bool__": raising(fault), "__len__": raising(fault)})
    no_integer = type("NoInteger", (), {"__int__": raising(fault)})
    return [
        raising(fault),
        lambda: Unreadable(fault),
        lambda: no_truth(),
        lambda: {"count": no_integer()},
        lambda: type("State", (), {"state_data": property(raising(fault))})(),
    ]


@pytest.mark.parametrize("place", range(5))
@pytest.mark.parametrize("kind", [RuntimeError, OverflowError, KeyError])
def test_a_failure_is_logged_and_passes(evaluator, monkeypatch, place, kind):
    fault = kind("state")
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    failing = stateful(0.0, state=failing_states(fault)[place])
    after = counting(1)
    functions = {"f": counting(1), "g": failing, "h": after}
    with lets_through(fault):
        blank_rows(evaluator, 5, functions)
    fields = {"instance_id": id(failing), "node_id": "root.c1", "function_name": "g"}
    assert logger.events == [("error", (FAILED,), fields)]
    assert list(logger.events[0][2]) == ["instance_id", "node_id", "function_name"]
    assert functions["f"].state_reads == 1
    assert after.state_reads == 0
    assert all(one.calls == [] for one in functions.values())


@pytest.mark.parametrize("place", range(5))
@pytest.mark.parametrize("kind", [KeyboardInterrupt, SystemExit, GeneratorExit])
def test_an_interrupt_passes_without_a_word(evaluator, monkeypatch, place, kind):
    fault = kind("state")
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    functions = {"f": stateful(0.0, state=failing_states(fault)[place]), "g": plain(), "h": plain()}
    with lets_through(fault):
        blank_rows(evaluator, 5, functions)
    assert logger.events == []


def test_an_instance_without_a_state(evaluator, monkeypatch):
    class Instance:
        stateful = True

    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    with fails(AttributeError, "'Instance' object has no attribute 'get_state'"):
        blank_rows(evaluator, 5, {"f": Instance(), "g": plain(), "h": plain()})
    assert len(logger.events) == 1


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_a_stateful_that_fails_is_not_logged(evaluator, monkeypatch, kind):
    fault = kind("stateful")
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    with lets_through(fault):
        blank_rows(evaluator, 5, {"f": Scripted(fault), "g": plain(), "h": plain()})
    assert logger.events == []


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_a_logger_that_fails(evaluator, monkeypatch, kind):
    fault, logging = ValueError("state"), kind("log")
    monkeypatch.setattr(evaluator, "_logger", RecordingLogger(logging))
    functions = {"f": stateful(0.0, state=raising(fault)), "g": plain(), "h": plain()}
    with pytest.raises(kind) as caught:
        blank_rows(evaluator, 5, functions)
    assert caught.value is logging
    assert logging.__cause__ is None
    assert logging.__context__ is fault
