"""The states of the stateful instances, as a run hands them out."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
import structlog
from support.functions import RecordingFunction, raising
from support.graphs import feature, reduction, rotation
from support.logs import RecordingLogger
from support.pools import make_pool
from support.reductions import Scripted, reduction_context, stateful
from support.runs import fails, lets_through, same_bits

FAILED = "expression_evaluator.get_state_failed"
NAMES = "fghk"


def graph(**identities: Any) -> Any:
    """ "h" over the rotation "f" and the reduction "g", whose child is "k"."""

    def keyed(name: str) -> dict[str, Any]:
        return {"_state_identity": identities[name]} if name in identities else {}

    below = rotation("k", feature("a"), **keyed("k"))
    return rotation(
        "h",
        rotation("f", feature("a"), **keyed("f")),
        reduction("g", below, **keyed("g")),
        **keyed("h"),
    )


PATHS = {"f": "root.c0", "k": "root.c1.c0", "g": "root.c1", "h": "root"}


def functions_of(**replaced: Any) -> dict[str, Any]:
    """Stateful functions, their states being objects of their own."""
    made = {name: stateful(0.0, state=object()) for name in NAMES}
    return {**made, **replaced}


def run(
    evaluator,
    functions: dict[str, Any],
    tree: Any = None,
    *,
    bound: bool = False,
    **attributes: Any,
) -> Any:
    context = reduction_context(evaluator, functions, rows=2)
    for name, value in attributes.items():
        setattr(context, name, value)
    instances = {PATHS[name]: made for name, made in functions.items()} if bound else None
    return evaluator.evaluate(
        graph() if tree is None else tree, context, bound_function_instances=instances
    )


@pytest.mark.parametrize("bound", [True, False])
def test_states_by_their_paths(evaluator, bound):
    functions = functions_of()
    states = run(evaluator, functions, bound=bound).states
    assert type(states) is dict
    assert list(states) == ["root.c0", "root.c1.c0", "root.c1", "root"]
    for name, instance in functions.items():
        assert states[PATHS[name]] is instance.state
        assert instance.state_reads == 1


@pytest.mark.parametrize("bound", [True, False])
def test_states_by_their_keys(evaluator, bound):
    functions = functions_of()
    states = run(evaluator, functions, graph(f="first", h=None, k=5), bound=bound).states
    assert list(states) == ["first", 5, "root.c1", None]
    assert states["first"] is functions["f"].state


def test_the_last_of_two_with_one_key(evaluator):
    functions = functions_of()
    states = run(evaluator, functions, graph(f="same", g="same", h="root.c1.c0")).states
    assert states == {"same": functions["g"].state, "root.c1.c0": functions["h"].state}
    assert [functions[name].state_reads for name in NAMES] == [1] * 4


@pytest.mark.parametrize("falsy", [False, 0, None, "", np.False_])
def test_stateless_instances_give_none(evaluator, falsy):
    stateless = RecordingFunction(0.0, stateful=falsy)
    states = run(evaluator, functions_of(f=stateless, g=stateless)).states
    assert list(states) == ["root.c1.c0", "root"]
    assert stateless.state_reads == 0


@pytest.mark.parametrize("state", [None, {}, 5, np.zeros(2), {"count": 1}])
def test_states_are_handed_out_as_they_are(evaluator, state):
    states = run(evaluator, functions_of(f=stateful(0.0, state=lambda: state))).states
    assert states["root.c0"] is state


@pytest.mark.parametrize("value", [False, None, 0, [], ""])
@pytest.mark.parametrize("bound", [True, False])
def test_no_collection(evaluator, value, bound):
    functions = functions_of()
    states = run(evaluator, functions, bound=bound, _collect_states=value).states
    assert states == {}
    assert [functions[name].state_reads for name in NAMES] == [0] * 4


@pytest.mark.parametrize("value", [True, 1, "no", [0]])
def test_collection(evaluator, value):
    assert len(run(evaluator, functions_of(), _collect_states=value).states) == 4


def test_a_truth_that_fails(evaluator):
    fault = RuntimeError("truth")
    unclear = type("Unclear", (), {"__bool__": raising(fault)})()
    with lets_through(fault):
        run(evaluator, functions_of(), _collect_states=unclear)


def test_without_collection_stateful_is_not_read(evaluator):
    """Three reads of a reduction's row, and none after the rows."""
    for collects, left in ((False, ["after the rows", False]), (True, [False])):
        instance = Scripted(*[False] * 6, "after the rows", False)
        run(evaluator, functions_of(g=instance), _collect_states=collects)
        assert instance.reads == left


def test_no_rows(evaluator):
    functions = functions_of()
    context = reduction_context(evaluator, functions, rows=0)
    assert len(evaluator.evaluate(graph(), context).states) == 4
    assert functions["g"].calls == []


def test_a_precomputed_node_has_a_state(evaluator):
    tree = graph()
    tree.children[0].canonical_id = "id"
    functions = functions_of()
    outputs = {"id": [1.0, 2.0, 3.0]}
    states = run(evaluator, functions, tree, _precomputed_node_outputs=outputs).states
    assert states["root.c0"] is functions["f"].state
    assert functions["f"].calls == []


def test_states_are_read_when_all_else_is_done(evaluator):
    """The context shows the whole run, and what a state does to it stays."""
    pool = make_pool(rows=2)
    context = reduction_context(evaluator, {}, rows=2)
    seen: list[Any] = []

    def read() -> Any:
        seen.append((context.current_day_index, context.registers.copy()))
        context.registers = "replaced"
        return {"count": 2}

    instance = stateful(state=read)
    context.useful_signals = pool
    result = evaluator.evaluate(
        reduction("g"), context, bound_function_instances={"root": instance}
    )
    ((day, registers),) = seen
    assert day == 1
    same_bits(registers, result.weights[1:])
    assert context.registers == "replaced"


def test_a_state_that_runs_the_context_again(evaluator):
    context = reduction_context(evaluator, {"g": stateful(5.0)}, rows=2)
    inner: list[Any] = []

    def read() -> str:
        inner.append(evaluator.evaluate(reduction("g"), context))
        return "outer"

    result = evaluator.evaluate(
        reduction("f"), context, bound_function_instances={"root": stateful(1.0, state=read)}
    )
    assert result.states == {"root": "outer"}
    assert result.weights.tolist() == [[1.0] * 3] * 2
    assert inner[0].weights.tolist() == [[5.0] * 3] * 2


# --- failures ------------------------------------------------------------------------------------


@pytest.mark.parametrize("bound", [True, False])
@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("kind", [RuntimeError, KeyError, StopIteration])
def test_a_failure_is_logged_and_passes(evaluator, monkeypatch, name, kind, bound):
    fault = kind("state")
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    failing = stateful(0.0, state=raising(fault))
    functions = functions_of(**{name: failing})
    with pytest.raises(kind) as caught:
        run(evaluator, functions, bound=bound)
    assert caught.value is fault
    assert fault.__cause__ is fault.__context__ is None
    fields = {"instance_id": id(failing), "node_id": PATHS[name], "function_name": name}
    assert logger.events == [("error", (FAILED,), fields)]
    order = list(PATHS)
    expected = [int(order.index(other) <= order.index(name)) for other in order]
    assert [functions[other].state_reads for other in order] == expected


@pytest.mark.parametrize("kind", [KeyboardInterrupt, SystemExit, GeneratorExit])
def test_an_interrupt_passes_without_a_word(evaluator, monkeypatch, kind):
    fault = kind("state")
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    with lets_through(fault):
        run(evaluator, functions_of(g=stateful(0.0, state=raising(fault))))
    assert logger.events == []


def test_a_key_that_cannot_be_entered(evaluator, monkeypatch):
    """The state has been read by then, and the failure is logged like that of the state."""
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    functions = functions_of()
    with fails(TypeError, "unhashable type: 'list'"):
        run(evaluator, functions, graph(f=[]))
    fields = {"instance_id": id(functions["f"]), "node_id": "root.c0", "function_name": "f"}
    assert logger.events == [("error", (FAILED,), fields)]
    assert functions["f"].state_reads == 1


def test_a_key_that_is_interrupted(evaluator, monkeypatch):
    fault = KeyboardInterrupt("hash")
    key = type("Key", (), {"__hash__": raising(fault)})()
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    with lets_through(fault):
        run(evaluator, functions_of(), graph(f=key))
    assert logger.events == []


def test_the_state_is_read_before_the_key_is_used(evaluator, monkeypatch):
    fault = RuntimeError("state")
    monkeypatch.setattr(evaluator, "_logger", RecordingLogger())
    with lets_through(fault):
        run(evaluator, functions_of(f=stateful(0.0, state=raising(fault))), graph(f=[]))


def test_an_instance_without_a_state(evaluator, monkeypatch):
    class Instance:
        stateful = True

        def __call__(self, *_: Any, **__: Any) -> float:
            return 0.0

    instance = Instance()
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    with fails(AttributeError, "'Instance' object has no attribute 'get_state'"):
        run(evaluator, functions_of(f=instance))
    assert logger.events[0][2]["instance_id"] == id(instance)


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_a_stateful_that_fails_is_not_logged(evaluator, monkeypatch, kind):
    fault = kind("stateful")
    monkeypatch.setattr(evaluator, "_logger", logger := RecordingLogger())
    with lets_through(fault):
        run(evaluator, functions_of(g=Scripted(*[False] * 6, fault)))
    assert logger.events == []


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_a_logger_that_fails(evaluator, monkeypatch, kind):
    fault, logging = ValueError("state"), kind("log")
    monkeypatch.setattr(evaluator, "_logger", RecordingLogger(logging))
    with pytest.raises(kind) as caught:
        run(evaluator, functions_of(f=stateful(0.0, state=raising(fault))))
    assert caught.value is logging
    assert logging.__cause__ is None
    assert logging.__context__ is fault


def test_what_a_failing_run_leaves(evaluator, monkeypatch):
    monkeypatch.setattr(evaluator, "_logger", RecordingLogger())
    context = reduction_context(
        evaluator, {"g": stateful(state=raising(RuntimeError("state")))}, rows=2
    )
    before = context.extraction_buffer
    with pytest.raises(RuntimeError, match="state"):
        evaluator.evaluate(reduction("g"), context)
    assert context.current_day_index == 1
    assert context.registers[0, 0] == 630.0
    assert context.extraction_buffer is not before


def test_the_module_s_own_logger(evaluator):
    """A structlog logger, which takes the event and its fields as they are handed over here."""
    with structlog.testing.capture_logs() as logs, pytest.raises(RuntimeError):
        run(evaluator, functions_of(f=stateful(0.0, state=raising(RuntimeError("state")))))
    (log,) = logs
    assert (log["event"], log["log_level"]) == (FAILED, "error")
    assert (log["node_id"], log["function_name"]) == ("root.c0", "f")
