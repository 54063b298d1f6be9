"""Where the time of a run goes, and that measuring changes nothing."""

from __future__ import annotations

import json
import time
import xml.etree.ElementTree as ElementTree
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionEntry, default_registry
from quernbrook.reference_host.graphs import feature, reduction, rotation
from quernbrook.simulator_engine._types import FunctionExecutionError, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.tracing import profile, timed_kernels
from support.row_kernels import ROW_KERNEL, STATELESS, RowKernel, RunRows, block_at, capsule_of

from . import cases
from .conftest import Program

pytest.importorskip("quernbrook.row_kernels")


@pytest.fixture(params=["machine code", "callback"])
def _kernel_timing(request: pytest.FixtureRequest, monkeypatch: pytest.MonkeyPatch) -> None:
    if request.param == "callback":
        monkeypatch.setattr(timed_kernels, "machine_code", lambda: None)
    elif timed_kernels.machine_code() is None:
        pytest.skip("needs llvmlite")


def assert_same(profiled: Any, plain: Any) -> None:
    assert profiled.weights.tobytes() == plain.weights.tobytes()
    assert profiled.states.keys() == plain.states.keys()
    for key, state in plain.states.items():
        assert type(profiled.states[key]) is type(state)
        np.testing.assert_equal(profiled.states[key].state_data, state.state_data)
    assert profiled.node_outputs.keys() == plain.node_outputs.keys()
    for path, matrix in plain.node_outputs.items():
        assert profiled.node_outputs[path].tobytes() == matrix.tobytes()


class Doubled:
    """With a method for blocks of rows."""

    stateful = False
    arity = 1

    def __call__(self, row: Any, *, context: Any = None) -> Any:
        return row * 2.0

    __quernbrook_row_block__ = __call__


class Halved:
    """Reads the run's context, as bound functions can't."""

    stateful = False
    arity = 1

    def __call__(self, row: Any, *, context: Any = None) -> Any:
        return row / 2.0 + context.current_day_index


def registry(kind: str) -> Any:
    made = default_registry(compiled=kind != "plain")
    for function in (Doubled, Halved):
        made.register(FunctionEntry(function.__name__.lower(), "own", build=function))
    if kind == "mixed":
        made.register(default_registry(compiled=False).get_entry("numerical_add"))
    return made


own = st.one_of(
    cases.graphs,
    cases.graphs.map(lambda below: rotation("doubled", below)),
    cases.graphs.map(lambda below: rotation("numerical_add", rotation("halved", below), below)),
)


@pytest.mark.usefixtures("_kernel_timing")
@settings(max_examples=40, deadline=None)
@given(
    graph=own,
    kind=st.sampled_from(["plain", "compiled", "mixed"]),
    with_outputs=st.booleans(),
)
def test_profiled_runs_have_the_same_bits(graph: Node, kind: str, with_outputs: bool) -> None:
    def context() -> EvaluationContext:
        made = cases.context()
        made.registry = registry(kind)
        made._collect_node_outputs = with_outputs
        return made

    plain = evaluate(graph, context())
    given = context()
    found = profile(graph, given)
    assert_same(found.result, plain)
    assert given.registers is None and type(given.registry).__name__ == "FunctionRegistry"
    for node in found.nodes:
        assert node.rows in (0, cases.ROWS) and (node.seconds > 0.0) == (node.calls > 0)
    assert sum(node.seconds for node in found.nodes) <= found.seconds


@pytest.mark.usefixtures("_kernel_timing")
def test_ways_and_rows() -> None:
    context = cases.context()
    context.registry = registry("compiled")
    graph = rotation(
        "numerical_add",
        rotation("doubled", feature("open")),
        rotation("longitudinal_mean", feature("close"), 3),
    )
    ways = {node.path: (node.way, node.rows) for node in profile(graph, context).nodes}
    assert ways == {
        "root.c0": ("blocks", cases.ROWS),
        "root.c1": ("kernel", cases.ROWS),
        "root": ("kernel", cases.ROWS),
    }


def test_equal_functions_are_still_computed_once() -> None:
    delta = [rotation("longitudinal_delta", feature("close"), 3) for _ in range(2)]
    graph = rotation("numerical_multiply", rotation("numerical_negate", delta[0]), delta[1])
    found = profile(graph, cases.context(compiled=True))
    ways = {node.path: node.way for node in found.nodes}
    assert sorted([ways["root.c0.c0"], ways["root.c1"]]) == ["kernel", "none"]
    assert len(found.result.states) == 2


def test_fast_roads_stay_fast_roads() -> None:
    # Equal values in a row would keep the run off the road.
    values = np.random.default_rng(1).normal(size=(40, 5))
    context = EvaluationContext((values,), {"open": 0}, registry=default_registry())
    found = profile(rotation("latitudinal_rank", feature("open")), context)
    assert [node.way for node in found.nodes] == ["none"]
    assert found.evaluator_seconds == found.seconds
    assert not profile(feature("open"), cases.context()).nodes


class Slow(Halved):
    def __call__(self, row: Any, *, context: Any = None) -> Any:
        time.sleep(0.001)
        return row


def test_time_goes_to_the_node_that_takes_it() -> None:
    context = cases.context()
    context.registry.register(  # type: ignore[union-attr]
        FunctionEntry("slow", "own", build=Slow)
    )
    graph = rotation(
        "numerical_negate", rotation("slow", rotation("numerical_negate", feature("open")))
    )
    found = profile(graph, context)
    slow = next(node for node in found.nodes if node.name == "slow")
    assert slow.seconds >= 0.001 * cases.ROWS and slow.calls == cases.ROWS
    assert max(found.nodes, key=lambda node: node.seconds) is slow
    assert slow.gain is None
    assert str(found).splitlines()[1].split()[:2] == ["root.c0", "slow"]
    assert "unknown" in str(found)


def test_of_many_calls_some_stand_for_all() -> None:
    features = (np.ones((200, 2)),)
    made = default_registry()
    made.register(FunctionEntry("slow", "own", build=Slow))
    context = EvaluationContext(features, {"open": 0}, registry=made)
    (slow,) = profile(rotation("slow", feature("open")), context).nodes
    assert slow.calls == slow.rows == 200
    assert slow.seconds >= 0.2


def test_the_gain_is_known_for_functions_of_the_library() -> None:
    graph = rotation(
        "numerical_add", feature("open"), rotation("longitudinal_mean", feature("close"), 3)
    )
    for node in profile(graph, cases.context(compiled=False)).nodes:
        assert node.way == "calls" and node.gain is not None
        assert 0.0 <= node.gain <= node.seconds
    for node in profile(graph, cases.context(compiled=True)).nodes:
        assert node.way == "kernel" and node.gain is None


def test_reductions() -> None:
    rng = np.random.default_rng(4)
    shape = (cases.ROWS, cases.COLUMNS)
    pool = {
        name: UsefulSignal(rng.normal(size=shape), rng.normal(size=(cases.ROWS, 1)))
        for name in "ab"
    }
    graph = rotation("numerical_add", reduction("weighted_by_pnl", 4), feature("open"))
    for compiled in (True, False):
        plain, profiled = (
            cases.context(compiled, useful_signals=pool, column_labels=["gross_returns"])
            for _ in range(2)
        )
        found = profile(graph, profiled)
        assert_same(found.result, evaluate(graph, plain))
        assert found.nodes[0].rows == cases.ROWS and found.nodes[0].gain is None


class Running:
    """A row kernel with a state, which several instances may share."""

    stateful = True
    arity = 1

    def __init__(self, flags: int = 0, state: Any = None) -> None:
        self.sums = np.zeros(cases.COLUMNS) if state is None else state

        def run(
            state: Any,
            arguments: Any,
            count: int,
            rows: int,
            columns: int,
            result: Any,
            failure: Any,
        ) -> int:
            block = block_at(arguments[0], rows, columns)
            out = np.ctypeslib.as_array(result, (rows, columns))
            for row in range(rows):
                self.sums[:] = self.sums * 0.5 + block[row]
                out[row] = self.sums
            return 0

        self._run = RunRows(run)
        self._kernel = RowKernel(40 - 8, flags, self.sums.ctypes.data, self._run)
        self._capsule = capsule_of(self._kernel, ROW_KERNEL)

    def __quernbrook_row_kernel__(self) -> Any:
        return self._capsule

    def __call__(self, row: Any, *, context: Any = None) -> Any:
        self.sums[:] = self.sums * 0.5 + row
        return self.sums.copy()

    def get_state(self) -> dict[str, Any]:
        return {"sums": self.sums.tolist()}


@pytest.mark.usefixtures("_kernel_timing")
@pytest.mark.parametrize("shared", ["instance", "state", "nothing"])
def test_shared_states_take_turns_as_ever(shared: str) -> None:
    graph = rotation("running", rotation("running", feature("volume")))

    def context() -> EvaluationContext:
        made = cases.context()
        kept: list[Running] = []

        def build() -> Running:
            if shared == "instance" and kept:
                return kept[0]
            kept.append(Running(state=kept[0].sums if kept and shared == "state" else None))
            return kept[-1]

        made.registry.register(  # type: ignore[union-attr]
            FunctionEntry("running", "own", build=build, stateful=True)
        )
        return made

    plain = evaluate(graph, context())
    found = profile(graph, context())
    assert found.result.weights.tobytes() == plain.weights.tobytes()
    assert found.result.states == plain.states
    assert {node.sharing for node in found.nodes} == {2 if shared == "instance" else 1}


class Failing(Running):
    def __init__(self) -> None:
        super().__init__(STATELESS)

        def run(*arguments: Any) -> int:
            arguments[-1][0].row, arguments[-1][0].kind = 7, 1
            arguments[-1][0].text = b"no luck"
            return 1

        self._run = RunRows(run)
        self._kernel.run = self._run


@pytest.mark.usefixtures("_kernel_timing")
def test_failures_of_kernels_are_told_as_ever() -> None:
    context = cases.context()
    context.registry.register(  # type: ignore[union-attr]
        FunctionEntry("failing", "own", build=Failing)
    )
    with pytest.raises(FunctionExecutionError, match="'failing' failed at row 7: no luck"):
        profile(rotation("failing", feature("open")), context)


def test_an_interruption_in_a_callback_is_not_lost(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(timed_kernels, "machine_code", lambda: None)
    clock = time.perf_counter_ns

    def interrupted() -> int:
        raise KeyboardInterrupt

    monkeypatch.setattr(time, "perf_counter_ns", interrupted)
    graph = rotation("numerical_negate", feature("open"))
    with pytest.raises(KeyboardInterrupt):
        profile(graph, cases.context(compiled=True))
    monkeypatch.setattr(time, "perf_counter_ns", clock)
    profile(graph, cases.context(compiled=True))


@pytest.mark.parametrize("capsule", [1, "wrong name"])
def test_kernels_that_cannot_be_used_are_refused_as_ever(capsule: Any) -> None:
    class Odd(Running):
        def __quernbrook_row_kernel__(self) -> Any:
            return capsule_of(self._kernel, b"other") if capsule == "wrong name" else capsule

    context = cases.context()
    context.registry.register(  # type: ignore[union-attr]
        FunctionEntry("odd", "own", build=Odd)
    )
    with pytest.raises(FunctionExecutionError, match="offers a kernel that cannot be used"):
        profile(rotation("odd", feature("open")), context)


def test_the_flame_view(tmp_path: Path) -> None:
    context = cases.context(compiled=False)
    context.registry.register(  # type: ignore[union-attr]
        FunctionEntry("a<b&c", "own", build=Halved)
    )
    graph = rotation("numerical_add", feature("open"), rotation("a<b&c", feature("close")))
    found = profile(graph, context)
    found.write_svg(tmp_path / "p.svg")
    root = ElementTree.parse(tmp_path / "p.svg").getroot()
    titles = [title.text or "" for title in root.iter("{http://www.w3.org/2000/svg}title")]
    assert titles[0].startswith("run: ") and len(titles) == 4
    assert any(title.startswith("root.c1 a<b&c (calls)") for title in titles)
    widths = [float(box.get("width", 0)) for box in root.iter("{http://www.w3.org/2000/svg}rect")]
    assert max(widths) == 1200.0 == widths[0]
    assert "href" not in found.svg()


def test_the_command(data: Path, program: Program) -> None:
    arguments = ("profile", "rank(delta(close, 5))", "--data", data)
    assert program(*arguments, "--svg", "p.svg") == 0
    assert "longitudinal_delta" in program.output and "the evaluator itself" in program.output
    assert Path("p.svg").read_text().startswith("<svg")
    assert program(*arguments, "--json") == 0
    document = json.loads(program.output)
    assert [node["path"] for node in document["nodes"]] == ["root.c0", "root"]
    assert program(*arguments, "--svg", "none/p.svg") == 2
    assert program.errors.startswith("quernbrook: --svg none/p.svg: there is no folder none")
