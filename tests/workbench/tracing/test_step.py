"""Going through a run node by node."""

from __future__ import annotations

import io
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host import FunctionEntry, default_registry
from quernbrook.reference_host.graphs import (
    feature,
    filtration,
    reduction,
    rotation,
    signal,
)
from quernbrook.simulator_engine._types import FunctionExecutionError, TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.tracing import Stepper, TraceError, stepping
from quernbrook.workbench.tracing.step_shell import StepShell

from . import cases
from .conftest import Program

DELTA = rotation("longitudinal_delta", feature("close"), 3)
GRAPH = rotation("latitudinal_rank", DELTA)


class Halved:
    """Reads the row's number."""

    stateful = False
    arity = 1

    def __call__(self, row: Any, *, context: Any = None) -> Any:
        row[:] = row / 2.0 + context.current_day_index
        return row


def context(compiled: bool | None = None, **options: Any) -> EvaluationContext:
    made = cases.context(compiled, **options)
    made.registry.register(  # type: ignore[union-attr]
        FunctionEntry("halved", "own", build=Halved)
    )
    return made


graphs = st.one_of(
    cases.graphs,
    cases.graphs.map(lambda below: rotation("numerical_add", rotation("halved", below), below)),
)
moves = st.lists(st.sampled_from(["step", "row", "again", "state", "go", "replace"]), max_size=12)


@settings(max_examples=60, deadline=None)
@given(data=st.data(), graph=graphs, walk=moves, compiled=st.booleans())
def test_weights_are_those_of_a_whole_run(
    data: st.DataObject, graph: Node, walk: list[str], compiled: bool
) -> None:
    watched = context(compiled)
    watched._collect_node_outputs = True
    whole = evaluate(graph, watched)
    stepper = Stepper(graph, context(compiled))
    row = 0
    for move in walk:
        path = data.draw(st.sampled_from(list(whole.node_outputs) or ["root"]))
        try:
            if move == "step":
                stepper.step()
            elif move == "row":
                stepper.next_row()
            elif move == "again":
                stepper.again()
            elif move == "state":
                stepper.state(path)
            elif move == "go":
                row = min(data.draw(st.integers(row, row + 30)), cases.ROWS - 1)
                stepper.go(row)
            else:
                # With itself: it has the state of the row's beginning.
                stepper.replace(path, stepper.instance(path))
        except TraceError:
            continue
        stop = stepper.stop
        if stop.row is None or not whole.node_outputs:
            continue
        registers, is_done = stepper.registers, True
        for path, matrix in whole.node_outputs.items():
            is_done = is_done and path != stop.before
            if is_done and stop.after is not None:
                assert registers[path].tobytes() == matrix[int(stop.row)].tobytes()
    assert stepper.finish().tobytes() == whole.weights.tobytes()


def test_universe_pools_pipelines_and_stage_data_are_seen() -> None:
    rng = np.random.default_rng(4)
    shape = (cases.ROWS, cases.COLUMNS)
    pool = {
        name: UsefulSignal(rng.normal(size=shape), rng.normal(size=(cases.ROWS, 1)), {"x": place})
        for place, name in enumerate("abc")
    }
    smooth = TransformStage("s", "on", {"on": rotation("longitudinal_mean", signal(), 2)})
    passing = filtration("gt", "x", 0.5)
    graph = rotation(
        "numerical_add",
        rotation("numerical_multiply", reduction("weighted_by_pnl", 4, passing), feature("risk")),
        rotation("halved", feature("open")),
    )

    def made() -> EvaluationContext:
        universe = np.ones(shape)
        universe[7:9, 2] = 0.0
        return context(
            useful_signals=dict(pool),
            column_labels=["gross_returns"],
            universe=universe,
            transform_pipeline=[smooth],
            stage_data=StageData({"risk": np.arange(200.0).reshape(shape)}),
        )

    given = made()
    stepper = Stepper(graph, given)
    assert stepper.finish().tobytes() == evaluate(graph, made()).weights.tobytes()
    assert given.transform_pipeline == [smooth] and "risk" not in given.feature_index


def test_a_panel_with_a_universe() -> None:
    panel = cases.panel()
    whole = panel.context(default_registry())
    whole.universe = panel.fields["volume"]
    stepper = Stepper(GRAPH, panel, universe="volume")
    assert stepper.finish().tobytes() == evaluate(GRAPH, whole).weights.tobytes()


def test_nodes_one_after_the_other() -> None:
    stepper = Stepper(GRAPH, cases.panel())
    assert str(stepper.stop) == "row 2020-01-01: before root.c0.c0"
    assert str(stepper.step()) == "row 2020-01-01: before root.c0, after root.c0.c0"
    stepper.step()
    assert str(stepper.step()) == "row 2020-01-01: after root"
    assert len(stepper.weights) == 1
    assert str(stepper.step()) == "row 2020-01-02: before root.c0, after root.c0.c0"
    assert str(stepper.next_row()) == "row 2020-01-03: before root.c0.c0"
    stepper.finish()
    assert str(stepper.stop) == str(stepper.step()) == "at the end of the run"
    with pytest.raises(TraceError, match="at its end"):
        stepper.again()


def test_breakpoints() -> None:
    panel = cases.panel()
    stepper = Stepper(GRAPH, panel)
    stepper.break_before("root.c0", "2020-01-08")
    stepper.break_after("root.c0.c0", panel.dates[10])
    stepper.break_nan("root.c0.c0", "S2")
    assert str(stepper.go()) == "row 2020-01-08: before root.c0, after root.c0.c0"
    stop = stepper.go()
    # Both the gap in the data and the breakpoint are there.
    assert (stop.row, stop.after) == ("2020-01-15", "root.c0.c0")
    assert len(stepper.breakpoints) == 2
    assert stepper.go().row is None


def test_a_nan_is_stopped_at_once_only() -> None:
    stepper = Stepper(feature("close"), cases.panel())
    stepper.break_nan("root")
    assert stepper.go().row == "2020-01-15"
    assert np.isnan(stepper.registers["root"][2])
    assert stepper.go().row is None


def test_arguments_and_states_before_and_after() -> None:
    panel = cases.panel()
    stepper = Stepper(GRAPH, panel)
    stepper.go("2020-01-08")
    stepper.step()
    (argument,) = stepper.arguments()
    np.testing.assert_array_equal(argument, panel.fields["close"][5])
    assert stepper.state().state_data["count"] == 5
    stepper.step()
    assert stepper.state("root.c0").state_data["count"] == 6
    stepper.again()
    assert stepper.state("root.c0").state_data["count"] == 5
    assert str(stepper.stop) == "row 2020-01-08: before root.c0.c0"
    for path, message in [("root", "isn't called"), ("root.c0.c0", "isn't called")]:
        with pytest.raises(TraceError, match=message):
            stepper.arguments(path)
    with pytest.raises(TraceError, match="has no state"):
        stepper.state("root")


def test_what_is_handed_out_can_be_changed() -> None:
    stepper = Stepper(GRAPH, cases.panel())
    for row in range(6):
        stepper.step()
        stepper.arguments("root.c0")[0][:] = 7.0
        stepper.registers["root.c0.c0"][:] = 7.0
        if row:
            stepper.state("root.c0").state_data["buffer"][0][0] = 7.0
            stepper.step()
            stepper.again()
            stepper.step()
            stepper.arguments()
            stepper.state("root.c0").state_data["buffer"][0][0] = 7.0
        stepper.weights[:] = 7.0
        stepper.next_row()
    whole = evaluate(GRAPH, cases.panel().context(default_registry()))
    assert stepper.finish().tobytes() == whole.weights.tobytes()


def test_a_replaced_function_counts_from_its_row_on() -> None:
    panel = cases.panel()
    graph = rotation("numerical_negate", feature("open"))
    stepper = Stepper(graph, panel)
    stepper.go("2020-01-08")
    stepper.next_row()
    stepper.step()
    stepper.step()
    absolute = default_registry().create_instance("latitudinal_rank")
    assert stepper.replace("root", absolute).before == "root"
    stepper.go(panel.dates[30])
    stepper.again()
    weights = stepper.finish()
    negated = evaluate(graph, panel.context(default_registry())).weights
    ranked = evaluate(
        rotation("latitudinal_rank", feature("open")), panel.context(default_registry())
    )
    assert weights[:6].tobytes() == negated[:6].tobytes()
    np.testing.assert_array_equal(weights[6:], ranked.weights[6:])


class Failing:
    stateful = False
    arity = 1

    def __init__(self, result: Any = None) -> None:
        self.result = result

    def __call__(self, row: Any, *, context: Any = None) -> Any:
        if context.current_day_index == 6:
            if self.result is None:
                raise ValueError("no luck")
            return self.result
        return row


@pytest.mark.parametrize("result", [None, np.zeros(3), np.zeros(5, np.float32), [1.0, 2.0, 3.0]])
def test_a_failure_is_stopped_at_and_can_be_mended(result: Any) -> None:
    panel = cases.panel()
    made = panel.context(default_registry())
    made.registry.register(  # type: ignore[union-attr]
        FunctionEntry("failing", "own", build=lambda: Failing(result))
    )
    graph = rotation("numerical_add", rotation("failing", DELTA), 2.0)
    with pytest.raises(Exception, match=r".") as plain:
        evaluate(graph, panel.context(made.registry))
    stepper = Stepper(graph, made)
    stop = stepper.go()
    assert (stop.row, stop.before) == (6, "root.c0") and "root.c0 failed" in str(stop)
    assert type(stop.error) is type(plain.value)
    assert str(stop.error).replace("row 0", "row 6") == str(plain.value)
    assert stepper.go() == stop == stepper.step()
    np.testing.assert_array_equal(
        stepper.registers["root.c0.c0"], panel.fields["close"][6] - panel.fields["close"][3]
    )
    np.testing.assert_array_equal(stepper.arguments()[0], stepper.registers["root.c0.c0"])
    assert stepper.state("root.c0.c0").state_data["count"] == 7
    with pytest.raises(type(plain.value)):
        stepper.finish()
    stepper.replace("root.c0", Failing(np.zeros(5)))
    weights = stepper.finish()
    np.testing.assert_array_equal(weights[6], np.full(5, 2.0))
    whole = evaluate(
        rotation("numerical_add", DELTA, 2.0), panel.context(default_registry())
    ).weights
    np.testing.assert_array_equal(np.delete(weights, 6, 0), np.delete(whole, 6, 0))


def test_an_interruption_leaves_a_run_that_goes_on(monkeypatch: pytest.MonkeyPatch) -> None:
    made = context()
    graph = rotation("numerical_add", rotation("halved", DELTA), feature("open"))
    whole = evaluate(graph, context())
    stepper = Stepper(graph, made)
    stepper.go(5)
    plain = Halved.__call__

    def interrupted(*arguments: Any, **named: Any) -> Any:
        raise KeyboardInterrupt

    monkeypatch.setattr(Halved, "__call__", interrupted)
    with pytest.raises(KeyboardInterrupt):
        stepper.next_row()
    monkeypatch.setattr(Halved, "__call__", plain)
    assert stepper.state("root.c0.c0").state_data["count"] == 5
    assert stepper.finish().tobytes() == whole.weights.tobytes()


def test_rows_run_again_from_states_kept_on_the_way(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(stepping, "_ROWS_BETWEEN_STATES", 5)
    stepper = Stepper(GRAPH, cases.panel())
    stepper.go("2020-02-17")
    stepper.step()
    stepper.step()
    assert stepper.state("root.c0").state_data["count"] == 34
    stepper.again()
    assert stepper.state("root.c0").state_data["count"] == 33
    whole = evaluate(GRAPH, cases.panel().context(default_registry()))
    assert stepper.finish().tobytes() == whole.weights.tobytes()


@pytest.mark.parametrize(
    ("method", "arguments", "message"),
    [
        ("break_before", ["root.c7"], "no node 'root.c7'; the nearest is 'root.c0'"),
        ("break_nan", ["root.c0.c1"], "a literal or a filter"),
        ("break_after", ["root", "2020-01-04"], "no row of 2020-01-04"),
        ("break_nan", ["root", "S9"], "no symbol 'S9'"),
        ("go", ["2020-01-02"], "row 2020-01-02 is behind"),
        ("replace", ["root.c0.c0", Halved()], "root.c0.c0 is no function"),
    ],
)
def test_places_that_are_not_there(method: str, arguments: list[Any], message: str) -> None:
    stepper = Stepper(GRAPH, cases.panel())
    stepper.go("2020-01-08")
    with pytest.raises(TraceError, match=message):
        getattr(stepper, method)(*arguments)
    assert not stepper.breakpoints


def test_a_graph_that_cannot_run() -> None:
    with pytest.raises(FunctionExecutionError, match="nothing"):
        Stepper(rotation("nothing", feature("open")), cases.panel())


def test_no_rows() -> None:
    made = EvaluationContext((np.empty((0, 2)),), {"open": 0}, registry=default_registry())
    stepper = Stepper(rotation("numerical_negate", feature("open")), made)
    assert stepper.stop.row is None and stepper.finish().shape == (0, 2)


def shell(lines: str) -> str:
    output = io.StringIO()
    StepShell(Stepper(GRAPH, cases.panel()), io.StringIO(lines), output).cmdloop()
    return output.getvalue()


@pytest.mark.parametrize(
    ("lines", "expected"),
    [
        ("step\nwhere", "row 2020-01-01: before root.c0, after root.c0.c0"),
        ("row", "row 2020-01-02: before root.c0.c0"),
        ("go 2020-01-08\nagain", "row 2020-01-08: before root.c0.c0"),
        (
            "before root\nafter root.c0 2020-01-08\nnan root\nnan root S2\nbreaks",
            "1  before root\n",
        ),
        ("after root.c0 2020-01-08\nbreaks", "1  after root.c0 in row 2020-01-08"),
        ("nan root S2\nbreaks", "1  after the first NaN of root for S2"),
        ("before root\nclear 1\ngo", "at the end of the run"),
        ("before root\nclear\ngo", "at the end of the run"),
        ("clear 1", "there is no breakpoint 1"),
        ("tree", "root.c0.c0"),
        ("step\nregisters S1", "root.c0.c0"),
        ("step\narguments", "[ 9"),
        ("step\nstate", "'count': 0"),
        ("replace root.c0 longitudinal_mean window=3\nstate root.c0", "name='longitudinal_mean'"),
        ("replace root.c0 longitudinal_meen window=3", "Function 'longitudinal_meen' is not"),
        ("replace root.c0 longitudinal_mean window=x", "must be int; got 'x'"),
        ("replace root.c0 longitudinal_mean 3", "expected NAME=VALUE; got 3"),
        ("replace root.c0", "usage: replace PATH FUNCTION"),
        ("step 3", "usage: step"),
        ("go 2020-01-04", "there is no row of 2020-01-04"),
        ("registers S9", "there is no symbol 'S9'"),
        ("fly away", "unknown command 'fly': 'help' lists all"),
        ("before 'root", "No closing quotation: 'root"),
        ("help step", "run the next node"),
        ("\n\nwhere", "row 2020-01-01"),
    ],
)
def test_the_shell(lines: str, expected: str) -> None:
    assert expected in shell(f"{lines}\nquit\n")
    # The end of the input ends it, too.
    assert expected in shell(lines)


def test_an_interruption_leads_back_to_the_prompt(monkeypatch: pytest.MonkeyPatch) -> None:
    def interrupted(*arguments: Any) -> Any:
        raise KeyboardInterrupt

    monkeypatch.setattr(Stepper, "go", interrupted)
    assert shell("go\nrow").split("(step) ")[1:3] == [
        "interrupted\nrow 2020-01-01: before root.c0.c0\n",
        "row 2020-01-02: before root.c0.c0\n",
    ]


def test_the_command(data: Path, program: Program, monkeypatch: pytest.MonkeyPatch) -> None:
    assert program("step", "rank(delta(close, 5))", "--data", data) == 0
    assert program.output.startswith("row 2015-01-02: before root.c0.c0\n")
    assert program("step", "rank(clsoe)", "--data", data) == 2
