"""On a cold start the tail of the signals tops up short windows of stateful reductions."""

from __future__ import annotations

from fractions import Fraction
from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FiltrationResolutionError,
    FunctionExecutionError,
    UsefulSignal,
)
from support.functions import RecordingFunction, raising
from support.graphs import feature, filtration, integer, reduction, rotation, string
from support.pools import LABELS, array_failure, block, make_pool, replace_filters
from support.reductions import Scripted, reduction_context, stateful
from support.runs import fails, lets_through, same_bits

ROWS = 6
SHORT = {"count": 3, "window": 5}
BOTH_KINDS = pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])


def windowed(result: Any = 0.0, window: Any = 9, **options: Any) -> RecordingFunction:
    return stateful(result, window=window, **options)


def start(
    evaluator,
    instance: Any,
    state: Any = SHORT,
    *,
    graph: Any = None,
    cold: Any = True,
    states: Any = None,
    functions: Any = None,
    bound: Any = None,
    **options: Any,
) -> Any:
    """The context of a run of "f" that is restored from `state`."""
    rows = options.setdefault("rows", ROWS)
    options.setdefault("pool", make_pool(rows=rows))
    context = reduction_context(evaluator, {"f": instance, **(functions or {})}, **options)
    graph = reduction("f") if graph is None else graph
    states = {"root": state} if states is None else states
    evaluator.evaluate(graph, context, states, cold, bound_function_instances=bound)
    return context


def filled(instance: Any, rows: int = ROWS) -> list[Any]:
    """The calls that came before those of the row loop."""
    return instance.calls[: len(instance.calls) - rows]


def rows_seen(instance: Any) -> list[int]:
    """The rows that every call was made for, as the weights of the first signal tell."""
    return [int(call.values[0][0, 0] - 100) // 10 for call in instance.calls]


# --- which instances, how many rows --------------------------------------------------------------


def test_the_tail_comes_first_and_again_in_its_turn(evaluator):
    instance = windowed()
    start(evaluator, instance, rows=100)
    assert rows_seen(instance) == [98, 99, *range(100)]


@pytest.mark.parametrize(
    ("data", "rows"),
    [
        ({"count": 3, "window": 5}, [4, 5]),
        ({"count": 4, "window": 5}, [5]),
        ({"count": 5, "window": 5}, []),
        ({"count": 7, "window": 5}, []),
        ({"count": 0, "window": 2}, [4, 5]),
        ({"count": 0, "window": 0}, []),
        ({"count": 0, "window": -3}, []),
        ({"count": -1, "window": 1}, [4, 5]),
        ({"window": 2}, [4, 5]),
        ({"count": 7}, [4, 5]),
        ({"count": 9}, []),
        ({"other": 1}, [0, 1, 2, 3, 4, 5]),
        ({"count": 0, "window": 6}, [0, 1, 2, 3, 4, 5]),
        ({"count": 0, "window": 1000}, [0, 1, 2, 3, 4, 5]),
        ({"count": 0, "window": 2**70}, [0, 1, 2, 3, 4, 5]),
        ({"count": np.int64(3), "window": np.int32(5)}, [4, 5]),
        ({"count": True, "window": 2}, [5]),
        ({"count": 5.0, "window": 5}, []),
        ({"count": 0.0, "window": float("inf")}, [0, 1, 2, 3, 4, 5]),
        ({"count": 0, "window": 7.5}, [0, 1, 2, 3, 4, 5]),
        ({}, []),
        (None, []),
    ],
)
def test_rows_that_are_missing(evaluator, data, rows):
    for state in (data, SimpleNamespace(state_data=data), evaluator.FunctionState("f", data)):
        instance = windowed()
        start(evaluator, instance, state)
        assert rows_seen(instance) == [*rows, *range(ROWS)]


@pytest.mark.parametrize(
    ("data", "text"),
    [
        ({"count": 3.0, "window": 5}, "'float' object cannot be interpreted as an integer"),
        ({"count": 0, "window": 6.0}, "'float' object cannot be interpreted as an integer"),
        (
            {"count": 3, "window": Fraction(5)},
            "'Fraction' object cannot be interpreted as an integer",
        ),
        ({"count": 3, "window": "5"}, "'>=' not supported between instances of 'int' and 'str'"),
        (
            {"count": None, "window": 5},
            "'>=' not supported between instances of 'NoneType' and 'int'",
        ),
        ({"count": {1}, "window": {1, 2}}, "unsupported operand type(s) for -: 'int' and 'set'"),
        ({"count": "3", "window": "5"}, "unsupported operand type(s) for -: 'str' and 'str'"),
    ],
)
def test_counts_and_windows_that_are_no_integers(evaluator, data, text):
    instance = windowed()
    with fails(TypeError, text):
        start(evaluator, instance, data)
    assert instance.calls == []


@pytest.mark.parametrize("rows", [0, 1, 2, 3])
def test_a_history_that_is_too_short(evaluator, rows):
    instance = windowed()
    start(evaluator, instance, {"count": 0, "window": 2}, rows=rows)
    assert rows_seen(instance) == [*range(max(rows - 2, 0), rows), *range(rows)]


@pytest.mark.parametrize("cold", [False, 0, None, "", []])
def test_not_on_another_start(evaluator, cold):
    instance = windowed()
    start(evaluator, instance, cold=cold)
    assert rows_seen(instance) == list(range(ROWS))


@pytest.mark.parametrize("cold", [1, "no", [0]])
def test_what_counts_as_a_cold_start(evaluator, cold):
    instance = windowed()
    start(evaluator, instance, cold=cold)
    assert len(filled(instance)) == 2


def test_not_without_states(evaluator):
    class Unclear:
        __bool__ = raising(AssertionError("asked"))

    instance = stateful(0.0)
    context = reduction_context(evaluator, {"f": instance}, rows=4)
    for cold in (True, Unclear()):
        evaluator.evaluate(reduction("f"), context, None, cold)
    assert len(instance.calls) == 2 * 4


def test_rotations_are_left_alone(evaluator):
    instance = stateful(0.0)
    start(evaluator, instance, graph=rotation("f", feature("a")))
    assert len(instance.calls) == ROWS


def test_stateless_reductions_are_left_alone(evaluator):
    instance = RecordingFunction(raising(AssertionError("called")))
    start(evaluator, instance)
    assert instance.calls == []


def test_states_go_by_their_keys(evaluator):
    graph = reduction("f", reduction("g", _state_identity="inner"), _state_identity="outer")
    outer, inner = windowed(), windowed()
    states = {"inner": SHORT, "outer": {"count": 4, "window": 5}}
    start(evaluator, outer, graph=graph, states=states, functions={"g": inner})
    assert (len(filled(outer)), len(filled(inner))) == (1, 2)


def test_an_instance_without_a_state(evaluator):
    """One that turns stateful after the check of the states has none to top up."""
    instance = Scripted(False, True, False)
    start(evaluator, instance, states={}, rows=1)
    assert instance.calls == []
    assert instance.reads == [False]


@pytest.mark.parametrize("reads", [(True, False, False), (True, True, False)])
def test_stateful_is_read_once_for_the_prefill(evaluator, reads):
    instance = Scripted(*reads)
    instance.window = 5
    start(evaluator, instance, {"count": 4, "window": 5})
    assert len(instance.calls) == int(reads[1])
    assert instance.reads == [False]


def test_bound_instances(evaluator):
    instance = windowed()
    start(evaluator, None, bound={"root": instance})
    assert rows_seen(instance) == [4, 5, *range(ROWS)]


def test_a_precomputed_reduction_is_filled_all_the_same(evaluator):
    instance = windowed()
    context = reduction_context(evaluator, {"f": instance})
    context._precomputed_node_outputs = {"id": [0.0] * 3}
    evaluator.evaluate(reduction("f", canonical_id="id"), context, {"root": SHORT}, True)
    assert rows_seen(instance) == [2, 3]


def test_one_instance_after_the_other(evaluator):
    order: list[str] = []

    def recorder(name: str) -> Any:
        return windowed(lambda *_, **__: order.append(name) or 0.0)

    graph = rotation("h", reduction("f"), reduction("g"))
    functions = {"g": recorder("g"), "h": RecordingFunction(0.0)}
    states = {"root.c0": SHORT, "root.c1": SHORT}
    start(evaluator, recorder("f"), graph=graph, states=states, functions=functions, rows=3)
    assert order == [*"ffgg", *"fgfgfg"]


# --- the calls -----------------------------------------------------------------------------------


@pytest.mark.parametrize("passing", [None, "ca", "bb", ""])
def test_what_a_call_is_given(evaluator, monkeypatch, passing):
    filters = replace_filters(monkeypatch, evaluator, first=list(passing or ""))
    graph = reduction("f") if passing is None else reduction("f", filtration("first"))
    ids = "abc" if passing is None else passing
    pool = make_pool("cab", rows=ROWS)
    instance = windowed()
    context = start(evaluator, instance, graph=graph, pool=pool, column_labels=LABELS)
    calls = filled(instance)
    assert len(calls) == 2
    for t, call in zip((4, 5), calls, strict=True):
        (extraction,) = call.args
        assert list(call.kwargs) == ["signal_pnl"]
        vector = call.kwargs["signal_pnl"]
        same_bits(extraction, block(pool, ids, t).reshape(len(ids), 3))
        same_bits(vector, [pool[sid].pnl[t, 0] for sid in ids])
        for array in (extraction, vector):
            assert type(array) is np.ndarray
            assert array.flags.owndata
            assert array.flags.writeable
            assert array.flags.c_contiguous
        assert not np.shares_memory(extraction, context.extraction_buffer)
    arrays = [call.args[0] for call in calls] + [call.kwargs["signal_pnl"] for call in calls]
    assert len({id(array) for array in arrays}) == 4
    assert len(filters.calls) == (passing is not None)


def test_the_context_does_not_show_the_prefill(evaluator):
    seen: list[tuple[Any, Any, Any]] = []
    context = reduction_context(evaluator, {}, current_day_index=77, rows=3)
    before = context.extraction_buffer

    def look(*_: Any, **__: Any) -> float:
        seen.append((context.current_day_index, context.extraction_buffer, context.registers.sum()))
        return 0.0

    instance = windowed(look)
    evaluator.evaluate(
        reduction("f"), context, {"root": SHORT}, True, bound_function_instances={"root": instance}
    )
    assert [day for day, _, _ in seen] == [77, 77, 0, 1, 2]
    assert seen[1][1] is before
    assert seen[1][2] == 0.0


@pytest.mark.parametrize("result", [None, "x", np.zeros(9), np.zeros(3, np.float32)])
def test_results_are_dropped(evaluator, result):
    results = [result, result]
    instance = windowed(lambda *_, **__: results.pop() if results else 0.0)
    start(evaluator, instance)
    assert len(filled(instance)) == 2


def test_what_a_call_writes_into_its_arguments(evaluator):
    def spoil(signals: np.ndarray, signal_pnl: np.ndarray) -> float:
        signals[:] = signal_pnl[:] = -1.0
        return 0.0

    instance, pool = windowed(spoil), make_pool(rows=ROWS)
    start(evaluator, instance, pool=pool, column_labels=LABELS)
    assert rows_seen(instance) == [4, 5, *range(ROWS)]
    same_bits(pool["a"].pnl, make_pool(rows=ROWS)["a"].pnl)


def test_a_filter_that_counts_for_the_first_of_two(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, first=["b"], second=["a", "c"])
    graph = reduction("f", filtration("first"), filtration("second"))
    instance = windowed()
    start(evaluator, instance, graph=graph)
    assert [call.values[0][:, 0].tolist() for call in filled(instance)] == [[240.0], [250.0]]
    assert [args[0].function_name for args, _ in filters.builds] == ["first", "second"]


def test_no_signals(evaluator):
    """The pre-fill of an empty pool passes empty blocks; only the loop needs a buffer."""
    instance = windowed()
    with fails(TypeError, "'NoneType' object is not subscriptable"):
        start(evaluator, instance, pool={})
    assert [call.values[0].shape for call in instance.calls] == [(0, 3)] * 2


# --- PnL -----------------------------------------------------------------------------------------


def pnl(evaluator, graph: Any = None, **options: Any) -> list[list[float]]:
    """The `signal_pnl` of the two rows that are filled in."""
    instance = windowed()
    graph = reduction("f") if graph is None else graph
    try:
        start(evaluator, instance, graph=graph, **options)
    except EvaluationError:
        return [call.kwargs["signal_pnl"].tolist() for call in instance.calls]
    return [call.kwargs["signal_pnl"].tolist() for call in filled(instance)]


def rows_of(column: int) -> list[list[float]]:
    pool = make_pool(rows=ROWS)
    return [[pool[sid].pnl[t, column] for sid in "abc"] for t in (4, 5)]


@pytest.mark.parametrize(
    ("graph", "column", "backwards"),
    [
        (reduction("f"), 0, 1),
        (reduction("f", string("net_returns")), 1, 0),
        (reduction("f", config={"pnl_column": "net_returns"}), 1, 0),
        (reduction("f", string("nowhere")), 0, 0),
        (reduction("f", string("")), 0, 0),
        (reduction("f", config={"pnl_column": None}), 0, 0),
    ],
)
def test_columns(evaluator, graph, column, backwards):
    assert pnl(evaluator, graph, column_labels=LABELS) == rows_of(column)
    assert pnl(evaluator, graph, column_labels=LABELS[::-1]) == rows_of(backwards)


@pytest.mark.parametrize("labels", [None, [], ["nowhere to be found"], ("x",)])
def test_the_first_column_without_a_word(evaluator, labels):
    """An unknown column selects the first, though the row loop fails for the same thing."""
    assert pnl(evaluator, column_labels=labels) == rows_of(0)
    if labels:
        with pytest.raises(EvaluationError, match="PnL column 'gross_returns' not found"):
            start(evaluator, windowed(), column_labels=labels)


def test_labels_are_looked_up_once_for_an_instance(evaluator):
    looks: list[str] = []

    class Labels(list):
        def index(self, name: str) -> int:
            looks.append(name)
            return -1

    assert pnl(evaluator, column_labels=Labels("x")) == rows_of(1)
    assert len(looks) == 1 + ROWS


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_labels_that_fail(evaluator, kind):
    fault = kind("labels")
    labels = type("Labels", (list,), {"index": raising(fault)})(LABELS)
    instance = windowed()
    with lets_through(fault):
        start(evaluator, instance, column_labels=labels)
    assert instance.calls == []


def test_labels_in_an_array(evaluator):
    instance = windowed()
    with pytest.raises(ValueError, match="truth value of an array"):
        start(evaluator, instance, column_labels=np.array(LABELS))
    assert instance.calls == []


def test_labels_without_an_index(evaluator):
    with fails(AttributeError, "'set' object has no attribute 'index'"):
        start(evaluator, windowed(), column_labels={"gross_returns"})


def test_a_signal_without_pnl(evaluator):
    pool = make_pool(rows=ROWS)
    pool["b"].pnl = None
    expected = [[first, 0.0, last] for first, _, last in rows_of(0)]
    assert pnl(evaluator, pool=pool, column_labels=LABELS) == expected
    assert pnl(evaluator, pool=pool) == expected


def test_vectors_of_the_context_are_not_asked(evaluator):
    vectors = {"a": {"gross_returns": 5.0}}
    assert pnl(evaluator, signal_pnl_vectors=vectors, column_labels=LABELS) == rows_of(0)


# --- failures ------------------------------------------------------------------------------------


class Failing(RecordingFunction):
    """Fails at its second call."""

    def __init__(self, fault: BaseException) -> None:
        super().__init__(self.fail, stateful=True, window=5)
        self.fault = fault

    def fail(self, *_: Any, **__: Any) -> float:
        if len(self.calls) == 2:
            raise self.fault
        return 0.0


@pytest.mark.parametrize("kind", [ValueError, FunctionExecutionError, KeyboardInterrupt])
def test_failures_of_a_call_are_not_wrapped(evaluator, kind):
    fault = kind("call")
    before, instance = windowed(), Failing(fault)
    graph = rotation("h", reduction("g"), reduction("f"))
    context = reduction_context(
        evaluator, {"f": instance, "g": before, "h": RecordingFunction(0.0)}, current_day_index=7
    )
    with lets_through(fault):
        evaluator.evaluate(graph, context, {"root.c0": SHORT, "root.c1": SHORT}, True)
    assert (len(before.calls), len(instance.calls)) == (2, 2)
    assert context.current_day_index == 7


def test_a_missing_signal_is_missed_for_its_weights(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["a", "x"])
    instance = windowed()
    with fails(KeyError, "'x'"):
        start(evaluator, instance, graph=reduction("f", filtration("first")))
    assert instance.calls == []


def test_pnl_is_read_before_weights(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=["x", "a"])
    fault = RuntimeError("pnl")
    signal = type("Signal", (), {"weights": None, "pnl": property(raising(fault))})()
    graph = reduction("f", filtration("first"))
    with lets_through(fault):
        start(evaluator, windowed(), graph=graph, pool={"a": signal}, validate_inputs=False)


@pytest.mark.parametrize(
    "weights", [None, np.ones(3), np.ones((2, 3)), np.ones((ROWS, 2)), np.full((ROWS, 3), "x")]
)
def test_weights_that_do_not_fit(evaluator, weights):
    def copy() -> None:
        np.zeros((1, 3))[0, :] = weights[4, :]

    with fails(*array_failure(copy)):
        start(evaluator, windowed(), pool={"a": UsefulSignal(weights)}, validate_inputs=False)


@pytest.mark.parametrize("matrix", [np.ones(ROWS), np.ones((2, 2)), np.ones((ROWS, 0)), 5])
def test_pnl_that_does_not_fit(evaluator, matrix):
    kind, text = array_failure(lambda: matrix[4, 0])
    pool = {"a": UsefulSignal(np.ones((ROWS, 3)), matrix)}
    with fails(kind, text):
        start(evaluator, windowed(), pool=pool, validate_inputs=False)


def test_kinds_of_weights_and_pnl(evaluator):
    weights = np.asfortranarray(np.arange(18.0).reshape(6, 3), dtype=np.float32)
    matrix = np.arange(12, dtype=">i2").reshape(6, 2)
    instance = windowed()
    start(evaluator, instance, pool={"a": UsefulSignal(weights, matrix)}, column_labels=LABELS)
    for t, call in zip((4, 5), filled(instance), strict=True):
        same_bits(call.values[0], weights[t : t + 1].astype(np.float64))
        assert call.kwargs["signal_pnl"].tolist() == [float(matrix[t, 0])]


def test_a_filter_that_fails(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, first=raising(ValueError("filter")))
    instance = windowed()
    graph = reduction("f", filtration("first"))
    context = reduction_context(evaluator, {"f": instance}, current_day_index=7)
    with pytest.raises(FiltrationResolutionError):
        evaluator.evaluate(graph, context, {"root": SHORT}, True)
    assert instance.calls == []
    assert context.current_day_index == 7


def test_a_full_window_asks_no_filter(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, first=["a"])
    graph = reduction("f", filtration("first"))
    start(evaluator, windowed(), {"count": 5, "window": 5}, graph=graph, rows=0)
    assert filters.builds == []
    start(evaluator, windowed(), SHORT, graph=graph, rows=0)
    assert len(filters.builds) == 1


def test_signals_that_change_meanwhile(evaluator):
    """The ids are listed once; the signals are looked up for every row."""
    pool = make_pool(rows=ROWS)

    def act(signals: np.ndarray, **_: Any) -> float:
        if "d" not in pool:
            pool.update(make_pool("d", rows=ROWS))
            pool["b"] = UsefulSignal(np.zeros((ROWS, 3)))
        return 0.0

    instance = windowed(act)
    start(evaluator, instance, pool=pool, column_labels=LABELS)
    assert [call.values[0][:, 0].tolist() for call in filled(instance)] == [
        [140.0, 240.0, 340.0],
        [150.0, 0.0, 350.0],
    ]
    assert [call.kwargs["signal_pnl"][1] for call in filled(instance)] == [-240.0, 0.0]
    pool = make_pool(rows=ROWS)
    with fails(KeyError, "'b'"):
        start(evaluator, windowed(lambda *_, **__: pool.pop("b", None)), pool=pool)


# --- reads of the state and of the window --------------------------------------------------------


@pytest.mark.parametrize("data", [SHORT, {"window": 5}, {"count": 3}])
def test_an_instance_without_a_window(evaluator, data):
    """Its attribute is read although the state has the key."""
    with fails(AttributeError, "'RecordingFunction' object has no attribute 'window'"):
        start(evaluator, stateful(0.0), data)
    start(evaluator, stateful(0.0), data, cold=False)
    start(evaluator, stateful(0.0), {})


class Data(dict):
    """State data that log how they are read."""

    log: list[Any]

    def get(self, *args: Any) -> Any:
        self.log.append(args)
        return super().get(*args)


def test_how_the_state_is_read(evaluator):
    data = Data(SHORT)
    data.log = []

    class Instance(RecordingFunction):
        @property
        def window(self) -> int:
            data.log.append("window")
            return 9

    start(evaluator, Instance(0.0, stateful=True), data)
    assert data.log == [("count", 0), "window", ("window", 9)]
    assert data == SHORT


@BOTH_KINDS
def test_state_data_that_fail(evaluator, kind):
    fault = kind("get")
    data = type("Data", (dict,), {"get": raising(fault)})(SHORT)
    with lets_through(fault):
        start(evaluator, stateful(0.0), data)


def test_state_data_without_get(evaluator):
    with fails(AttributeError, "'list' object has no attribute 'get'"):
        start(evaluator, windowed(), [3, 5])


@BOTH_KINDS
def test_a_window_that_fails(evaluator, kind):
    fault = kind("window")
    instance = type("Instance", (RecordingFunction,), {"window": property(raising(fault))})(
        0.0, stateful=True
    )
    with lets_through(fault):
        start(evaluator, instance)


@BOTH_KINDS
def test_a_stateful_that_fails(evaluator, kind):
    fault = kind("stateful")
    with lets_through(fault):
        start(evaluator, Scripted(True, fault))


@BOTH_KINDS
def test_a_comparison_that_fails(evaluator, kind):
    fault = kind("compare")
    count = type("Count", (), {"__ge__": raising(fault)})()
    with lets_through(fault):
        start(evaluator, windowed(), {"count": count, "window": 5})


@pytest.mark.parametrize("full", [True, 1, "yes"])
def test_a_comparison_s_truth_counts(evaluator, full):
    count = type("Count", (), {"__ge__": lambda self, window: full})()
    instance = windowed()
    start(evaluator, instance, {"count": count, "window": 5})
    assert filled(instance) == []


def test_the_window_of_the_graph_plays_no_part(evaluator):
    instance = windowed(window=5)
    start(evaluator, instance, {"count": 4}, graph=reduction("f", integer(50)))
    assert len(filled(instance)) == 1
