"""Functions that keep, change or misuse what they are handed."""

from __future__ import annotations

import sys
import threading
import weakref
from collections.abc import Callable
from functools import partial
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationShapeError
from support.functions import RecordingFunction
from support.graphs import feature, integer, number, rotation
from support.registries import RecordingRegistry
from support.runs import counting_matrix, make_context, same_bits

ROWS = 6
EXPECTED = counting_matrix(ROWS)
BOTH_ROADS = pytest.mark.parametrize("bound", [True, False], ids=["bound", "registry"])


class Function:
    """Calls `act` and keeps nothing of what it was handed."""

    stateful = False

    def __init__(self, act: Callable[[np.ndarray], Any]) -> None:
        self.act = act

    def __call__(self, row: np.ndarray, context: Any = None) -> Any:
        return self.act(row)


def run(evaluator, act: Callable[[np.ndarray], Any], bound: bool) -> Any:
    """Runs a function over one feature; the context comes back."""
    instance = Function(act)
    registry = RecordingRegistry(factories={"f": instance})
    context = make_context(evaluator, {"a": EXPECTED.copy()}, registry=registry)
    context._collect_node_outputs = True
    instances = {"root": instance} if bound else None
    result = evaluator.evaluate(
        rotation("f", feature("a")), context, bound_function_instances=instances
    )
    same_bits(result.node_outputs["root.c0"], EXPECTED)
    return context


# --- keeping -------------------------------------------------------------------------------------


def keep(row: np.ndarray) -> Any:
    return row


KEEPERS = {
    "the array": keep,
    "a view": lambda row: row[1:],
    "a reshaped view": lambda row: row.reshape(3, 1),
    "a memoryview": memoryview,
    "a flat iterator": lambda row: row.flat,
    "its iterator": iter,
    "a bound method": lambda row: row.copy,
    "a tuple": lambda row: (row,),
    "a frame": lambda row: sys._getframe(),
    "a closure": lambda row: lambda: row,
    "the buffer interface": lambda row: np.frombuffer(row),
    "ctypes": lambda row: row.ctypes,
}


def values_of(kept: Any) -> list[float]:
    """The numbers that stand in what was kept of an argument."""
    if isinstance(kept, np.ndarray):
        return kept.reshape(-1).tolist()
    if isinstance(kept, memoryview):
        return kept.tolist()
    if isinstance(kept, tuple):
        return kept[0].tolist()
    if hasattr(kept, "f_locals"):
        return kept.f_locals["row"].tolist()
    if isinstance(kept, np.flatiter):
        return kept.base.tolist()
    if hasattr(kept, "__reduce__") and type(kept).__name__ == "iterator":
        return kept.__reduce__()[1][0].tolist()
    if hasattr(kept, "_arr"):
        return kept._arr.tolist()
    return np.asarray(kept()).tolist()


@pytest.mark.parametrize("keeper", KEEPERS.values(), ids=KEEPERS.keys())
def test_what_a_registry_function_keeps_never_changes(evaluator, keeper):
    kept: list[Any] = []
    then: list[list[float]] = []

    def act(row: np.ndarray) -> float:
        kept.append(keeper(row))
        then.append(values_of(kept[-1]))
        return 0.0

    run(evaluator, act, bound=False)
    assert [values_of(one) for one in kept] == then
    assert [values[-1] for values in then] == EXPECTED[:, -1].tolist()


@pytest.mark.parametrize("keeper", KEEPERS.values(), ids=KEEPERS.keys())
def test_what_a_bound_function_keeps_stays_a_view(evaluator, keeper):
    kept: list[Any] = []

    def act(row: np.ndarray) -> float:
        kept.append(keeper(row))
        return 0.0

    context = run(evaluator, act, bound=True)
    for one in kept:
        assert values_of(one)[-1] == EXPECTED[-1, -1]
    context.registers[0] = -1.0
    for one in kept:
        assert values_of(one)[-1] == -1.0


@BOTH_ROADS
def test_every_call_has_an_array_of_its_own(evaluator, bound):
    kept: list[np.ndarray] = []

    def act(row: np.ndarray) -> float:
        kept.append(row)
        return 0.0

    run(evaluator, act, bound)
    assert len({id(row) for row in kept}) == ROWS


@BOTH_ROADS
@pytest.mark.parametrize("release", [1, 3])
def test_keeping_now_and_then(evaluator, bound, release):
    """What is let go of may serve again; what is kept may not."""
    kept: dict[int, np.ndarray] = {}
    calls: list[int] = []

    def act(row: np.ndarray) -> float:
        calls.append(len(calls))
        if len(calls) % 2:
            kept[len(calls) - 1] = row
        if len(calls) == release:
            kept.clear()
        return 0.0

    run(evaluator, act, bound)
    for t, row in kept.items():
        same_bits(row, EXPECTED[-1] if bound else EXPECTED[t])


def test_a_kept_row_of_a_registry_run_survives_it(evaluator):
    kept: list[np.ndarray] = []
    context = run(evaluator, lambda row: kept.append(row), bound=False)
    del context
    same_bits(np.stack(kept), EXPECTED)
    for row in kept:
        row += 1.0
    same_bits(np.stack(kept), EXPECTED + 1.0)


def test_a_kept_row_of_a_bound_run_keeps_the_registers_alive(evaluator):
    kept: list[np.ndarray] = []
    context = run(evaluator, lambda row: kept.append(row) or 5.0, bound=True)
    registers = weakref.ref(context.registers)
    context.registers = None
    del context
    assert registers() is kept[0].base
    same_bits(kept[0].base, np.stack([EXPECTED[-1], np.full(3, 5.0)]))
    kept.clear()
    assert registers() is None


def test_a_weak_reference_never_sees_another_row(evaluator):
    seen: list[tuple[Any, list[float]]] = []

    def act(row: np.ndarray) -> float:
        for reference, values in seen:
            alive = reference()
            assert alive is None or alive is not row
            assert alive is None or alive.tolist() == values
        seen.append((weakref.ref(row), row.tolist()))
        return 0.0

    run(evaluator, act, bound=False)
    assert all(reference() is None for reference, _ in seen)


@BOTH_ROADS
def test_a_weak_reference_dies_once(evaluator, bound):
    deaths: list[int] = []
    references: list[Any] = []

    def act(row: np.ndarray) -> float:
        number_of_row = len(references)
        references.append(weakref.ref(row, lambda _: deaths.append(number_of_row)))
        return 0.0

    run(evaluator, act, bound)
    assert sorted(deaths) == list(range(ROWS))


@BOTH_ROADS
def test_rows_kept_by_another_thread(evaluator, bound):
    kept: list[np.ndarray] = []

    def act(row: np.ndarray) -> float:
        thread = threading.Thread(target=kept.append, args=(row,))
        thread.start()
        thread.join()
        return 0.0

    run(evaluator, act, bound)
    same_bits(np.stack(kept), np.tile(EXPECTED[-1], (ROWS, 1)) if bound else EXPECTED)


# --- changing the argument -----------------------------------------------------------------------


def set_attribute(name: str, value: Any) -> Callable[[np.ndarray], None]:
    return lambda row: setattr(row, name, value)


def set_flag(name: str, value: bool) -> Callable[[np.ndarray], None]:
    return lambda row: row.setflags(**{name: value})


def swap_contents(row: np.ndarray) -> None:
    row.__setstate__((1, (2,), np.dtype(np.int8), False, b"xy"))


def resize(row: np.ndarray) -> None:
    row.resize((7,), refcheck=False)


CHANGES = {
    "shape": set_attribute("shape", (3, 1)),
    "empty axis": set_attribute("shape", (1, 1, 3)),
    "dtype": set_attribute("dtype", np.int64),
    "dtype of another size": set_attribute("dtype", np.float32),
    "byte order": set_attribute("dtype", np.dtype(">f8")),
    "strides": set_attribute("strides", (0,)),
    "read-only": set_flag("write", False),
    "unaligned": set_flag("align", False),
    "resize": resize,
    "contents": swap_contents,
    "sorted in place": lambda row: row[::-1].sort(),
    "bytes swapped": lambda row: row.byteswap(inplace=True),
    "filled": lambda row: row.fill(-9.0),
    "fields": set_attribute("dtype", [("x", "f8")]),
}


@BOTH_ROADS
@pytest.mark.parametrize("then_keep", [False, True], ids=["dropped", "kept"])
@pytest.mark.parametrize("change", CHANGES.values(), ids=CHANGES.keys())
def test_the_next_argument_is_an_ordinary_one(evaluator, change, then_keep, bound):
    kept: list[Any] = []
    instance_rows: list[list[float]] = []

    def act(row: np.ndarray) -> float:
        assert type(row) is np.ndarray
        assert row.dtype == np.float64
        assert row.dtype.isnative
        assert row.shape == (3,)
        assert row.strides == (8,)
        assert row.flags.writeable
        assert row.flags.aligned
        assert row.flags.c_contiguous
        assert row.flags.owndata is not bound
        instance_rows.append(row.tolist())
        try:
            change(row)
        except (ValueError, RuntimeError):
            assert bound, "an array of its own can be changed"
        if then_keep:
            kept.append(row)
        return 0.0

    instance = Function(act)
    registry = RecordingRegistry(factories={"f": instance})
    context = make_context(evaluator, {"a": EXPECTED.copy()}, registry=registry)
    instances = {"root": instance} if bound else None
    result = evaluator.evaluate(
        rotation("f", feature("a")), context, bound_function_instances=instances
    )
    assert instance_rows == EXPECTED.tolist()
    same_bits(result.weights, np.zeros((ROWS, 3)))


@BOTH_ROADS
@pytest.mark.parametrize("change", CHANGES.values(), ids=CHANGES.keys())
def test_a_changed_argument_may_be_the_result(evaluator, change, bound):
    """What the function returns is checked as any result, wherever it comes from."""
    plain = np.zeros((2, 3))[1] if bound else np.zeros(3)
    plain[:] = EXPECTED[0]
    try:
        change(plain)
    except (ValueError, RuntimeError):
        assert bound

    def act(row: np.ndarray) -> np.ndarray:
        try:
            change(row)
        except (ValueError, RuntimeError):
            assert bound
        return row

    accepted = plain.shape == (3,) and plain.dtype == np.float64
    instance = Function(act)
    context = make_context(
        evaluator, {"a": EXPECTED[:1].copy()}, registry=RecordingRegistry(factories={"f": instance})
    )
    run_it = partial(
        evaluator.evaluate,
        rotation("f", feature("a")),
        context,
        bound_function_instances={"root": instance} if bound else None,
    )
    if accepted:
        same_bits(run_it().weights, plain.reshape(1, 3).astype(np.float64))
    else:
        with pytest.raises(EvaluationShapeError):
            run_it()


# --- changing the run's surroundings -------------------------------------------------------------


@BOTH_ROADS
def test_the_universe_is_read_anew_for_every_leaf(evaluator, bound):
    universes = [np.ones((4, 3)), None, np.zeros((4, 3)), np.ones((4, 3))]
    context = make_context(evaluator, {"a": np.ones((4, 3))}, universe=np.ones((4, 3)))
    seen: list[float] = []

    def replace(*rows: np.ndarray, **_: Any) -> float:
        context.universe = universes[len(seen)]
        return 0.0

    def look(_: Any, row: np.ndarray, **__: Any) -> float:
        seen.append(row[0])
        return 0.0

    first, second = RecordingFunction(replace), RecordingFunction(look)
    context.registry = RecordingRegistry(factories={"f": first, "g": second})
    instances = {"root.c0": first, "root": second} if bound else None
    evaluator.evaluate(
        rotation("g", rotation("f"), feature("a")), context, bound_function_instances=instances
    )
    assert [str(value) for value in seen] == ["1.0", "1.0", "nan", "1.0"]


def test_replaced_features_are_not_seen_but_changed_ones_are(evaluator):
    context = make_context(evaluator, {"a": np.ones((4, 3)), "b": np.ones((4, 3))}, as_list=True)

    def change(*rows: np.ndarray) -> float:
        features = context.features
        if context.current_day_index == 0:
            features[1] = np.full((4, 3), 7.0)
        elif context.current_day_index == 1:
            features[0][2:, :] = 5.0
            context.feature_index.clear()
            context.features = (np.zeros((1, 1)),)
        return 0.0

    graph = rotation("f", feature("a"), feature("b"))
    result = evaluator.evaluate(
        graph, context, bound_function_instances={"root": RecordingFunction(change)}
    )
    assert result.node_outputs["root.c0"][:, 0].tolist() == [1.0, 1.0, 5.0, 5.0]
    assert result.node_outputs["root.c1"][:, 0].tolist() == [1.0, 7.0, 7.0, 7.0]


@pytest.mark.parametrize("replacement", [np.ones((1, 3)), "text", None, [[1.0, 2.0, 3.0]] * 4])
def test_a_feature_replaced_by_something_else(evaluator, replacement):
    context = make_context(evaluator, {"a": np.ones((4, 3))}, as_list=True)

    def change(*_: Any) -> float:
        context.features[0] = replacement
        return 0.0

    kind, text = TypeError, ""
    try:
        replacement[1, :]
    except (TypeError, IndexError) as error:
        kind, text = type(error), str(error)
    with pytest.raises(kind) as caught:
        evaluator.evaluate(
            rotation("f", feature("a")),
            context,
            bound_function_instances={"root": RecordingFunction(change)},
        )
    assert str(caught.value) == text
    assert context.current_day_index == 1


def test_the_graph_is_not_read_again_during_the_rows(evaluator):
    leaf, literal = feature("a"), integer(3)
    graph = rotation("f", leaf, literal, rotation("g"))

    def change(*_: Any) -> float:
        for node in (graph, leaf, literal):
            node.type, node.node, node.config = "odd", "zz", {"A": 1}
        graph.children.clear()
        return 1.0

    instance = RecordingFunction()
    context = make_context(evaluator, {"a": counting_matrix(2)})
    evaluator.evaluate(
        graph,
        context,
        bound_function_instances={"root": instance, "root.c2": RecordingFunction(change)},
    )
    assert [[row[0] for row in call.values] for call in instance.calls] == [
        [1.0, 3.0, 1.0],
        [4.0, 3.0, 1.0],
    ]


def test_the_bound_mapping_decides_in_every_row_whether_anything_is_bound(evaluator):
    """Emptied in the run, it has bound nothing: arguments are copies and ints are left out."""
    bound: dict[str, Any] = {}

    def empty(*_: Any) -> float:
        bound.clear()
        return 0.0

    later = RecordingFunction(0.0)
    bound.update({"root.c0": RecordingFunction(empty), "root": later})
    context = make_context(evaluator, {"a": counting_matrix(2)})
    graph = rotation("f", rotation("g"), feature("a"), integer(3), number(0.5))
    evaluator.evaluate(graph, context, bound_function_instances=bound)
    assert [[row[0] for row in call.values] for call in later.calls] == [
        [0.0, 1.0, 0.5],
        [0.0, 4.0, 0.5],
    ]
    assert not any(view for call in later.calls for view in call.views)
    assert all(call.kwargs == {} for call in later.calls)


def test_an_instance_replaced_in_the_bound_mapping_stays_in_the_run(evaluator):
    bound: dict[str, Any] = {}

    def replace(row: np.ndarray) -> np.ndarray:
        bound["root"] = None
        return row

    bound["root"] = RecordingFunction(replace)
    context = make_context(evaluator, {"a": counting_matrix(3)})
    result = evaluator.evaluate(
        rotation("f", feature("a")), context, bound_function_instances=bound
    )
    same_bits(result.weights, counting_matrix(3))


@BOTH_ROADS
def test_registers_replaced_on_the_context_are_published_anew(evaluator, bound):
    context_of_run: list[Any] = []

    def replace(row: np.ndarray) -> np.ndarray:
        context_of_run[0].registers = "mine"
        return row

    instance = Function(replace)
    registry = RecordingRegistry(factories={"f": instance})
    context_of_run.append(make_context(evaluator, {"a": EXPECTED}, registry=registry))
    instances = {"root": instance} if bound else None
    evaluator.evaluate(
        rotation("f", feature("a")), context_of_run[0], bound_function_instances=instances
    )
    same_bits(context_of_run[0].registers, np.stack([EXPECTED[-1], EXPECTED[-1]]))


def test_registers_resized_by_a_function(evaluator):
    """The array that all arguments are views of can't be taken away from under the run."""

    def shrink(row: np.ndarray) -> float:
        for change in (
            lambda base: base.resize((0, 0)),
            lambda base: setattr(base, "shape", (3, 2)),
        ):
            try:
                change(row.base)
            except ValueError:
                continue
            row.base.shape = (2, 3)
        return 2.0

    context = run(evaluator, shrink, bound=True)
    same_bits(context.registers, np.stack([EXPECTED[-1], np.full(3, 2.0)]))


@pytest.mark.parametrize("is_bound", [False, True])
def test_an_argument_lives_no_longer_than_its_call(evaluator, is_bound):
    events: list[str] = []
    kept: list[Any] = []

    class Keeping:
        stateful = False

        def __call__(self, row: np.ndarray, context: Any = None) -> np.ndarray:
            events.append("call")
            kept.append(weakref.ref(row, lambda _: events.append("gone")))
            return row.copy()

    class Next:
        stateful = False

        def __call__(self, row: np.ndarray, context: Any = None) -> np.ndarray:
            events.append("next")
            return row.copy()

    functions = {"keep": Keeping(), "next": Next()}
    bound = {"root": functions["next"], "root.c0": functions["keep"]} if is_bound else None
    registry = RecordingRegistry(factories=functions)
    context = make_context(evaluator, {"a": counting_matrix(3)}, registry=registry)
    graph = rotation("next", rotation("keep", feature("a")))
    evaluator.evaluate(graph, context, bound_function_instances=bound)
    assert events == ["call", "gone", "next"] * 3
