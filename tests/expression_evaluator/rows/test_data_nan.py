"""Missing data is marked at its leaves, and the marks climb to the functions above them."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationShapeError, FunctionExecutionError
from support.functions import RecordingFunction, raising
from support.graphs import (
    aggregation,
    boolean,
    feature,
    filtration,
    integer,
    node,
    number,
    reduction,
    rotation,
    string,
)
from support.pools import make_pool, replace_filters
from support.reductions import run_reductions, stateful
from support.runs import bind_all, counting_matrix, fails, lets_through, make_context, same_bits

NAN = np.nan
MARK = "data_nan"


def run(
    evaluator: ModuleType,
    graph: Any,
    names: Any = ("a",),
    *,
    features: Any = None,
    bound: Any = None,
    attributes: Any = None,
    **options: Any,
) -> Any:
    if features is None:
        features = {"a": counting_matrix(2), "b": counting_matrix(2, start=50)}
    context = make_context(evaluator, features, **options)
    for name, value in (attributes or {}).items():
        setattr(context, name, value)
    instances = bind_all(graph, lambda: RecordingFunction(7.0)) if bound is None else bound
    return evaluator.evaluate(
        graph, context, bound_function_instances=instances, data_nan_features=names
    )


def column(*cells: float) -> np.ndarray:
    """A matrix of one column."""
    return np.array(cells, dtype=np.float64)[:, np.newaxis]


# --- the names -----------------------------------------------------------------------------------


@pytest.mark.parametrize("names", [None, [], (), set(), {}, "", 0, False])
def test_without_names_nothing_is_marked(evaluator: ModuleType, names: Any) -> None:
    empty = np.full((2, 3), NAN)
    result = run(evaluator, rotation("f", feature("a")), names, features={"a": empty})
    assert result.nan_source == {}
    same_bits(result.weights, np.full((2, 3), 7.0))


@pytest.mark.parametrize("names", [["z"], "z", {"f": "a"}, [None], [7]])
def test_names_that_no_leaf_has_mark_nothing(evaluator: ModuleType, names: Any) -> None:
    """Neither a function nor a literal of that name counts, and no other NaN is looked at."""
    graph = rotation("f", feature("a"), number(7))
    result = run(evaluator, graph, names, features={"a": np.full((2, 3), NAN)})
    assert result.nan_source == {}
    same_bits(result.weights, np.full((2, 3), 7.0))


@pytest.mark.parametrize(
    "names", [["a"], ("a", "a"), "ab", {"a": 0}, frozenset("a"), np.array(["a"])], ids=repr
)
def test_any_iterable_of_names(evaluator: ModuleType, names: Any) -> None:
    result = run(evaluator, rotation("f", feature("a")), names)
    assert result.nan_source == {"root.c0": MARK, "root": MARK}


def test_names_are_read_once(evaluator: ModuleType) -> None:
    names = iter(["z", "a"])
    assert run(evaluator, rotation("f", feature("a")), names).nan_source
    assert list(names) == []


def test_truthy_names_without_a_name(evaluator: ModuleType) -> None:
    """They close the fast roads all the same."""
    result = run(evaluator, feature("a"), iter(()), attributes={"_collect_node_outputs": True})
    assert result.nan_source == {}
    assert list(result.node_outputs) == ["root"]


@pytest.mark.parametrize("names", [5, [["a"]]])
def test_names_that_make_no_set(evaluator: ModuleType, names: Any) -> None:
    instance = RecordingFunction()
    with pytest.raises(TypeError):
        run(evaluator, rotation("f", feature("a")), names, bound={"root": instance})
    assert instance.calls == []


def test_names_that_fail(evaluator: ModuleType) -> None:
    fault = LookupError("names")
    names = type("Names", (), {"__iter__": raising(fault)})()
    with lets_through(fault):
        run(evaluator, feature("a"), names)


# --- leaves --------------------------------------------------------------------------------------


@pytest.mark.parametrize("make", [feature, aggregation])
@pytest.mark.parametrize("universe", [None, np.array([[1.0, 0.0, NAN], [2.0, -1.0, np.inf]])])
def test_a_marked_root(evaluator: ModuleType, make: Any, universe: Any) -> None:
    data = counting_matrix(2)
    result = run(evaluator, make("a"), features={"a": data}, universe=universe)
    same_bits(result.weights, np.full((2, 3), NAN))
    assert result.nan_source == {"root": MARK}
    same_bits(data, counting_matrix(2))


def test_the_universe_is_applied_to_a_marked_leaf_too(evaluator: ModuleType) -> None:
    with pytest.raises(ValueError, match="broadcast"):
        run(evaluator, feature("a"), universe=np.ones((2, 2)), validate_inputs=False)


def test_every_occurrence_is_marked_in_the_order_of_collection(evaluator: ModuleType) -> None:
    graph = rotation("f", rotation("g", aggregation("a"), feature("b")), feature("a"))
    result = run(evaluator, graph, features={"a": counting_matrix(0), "b": counting_matrix(0)})
    assert list(result.nan_source.items()) == [("root.c0.c0", MARK), ("root.c1", MARK)]


@pytest.mark.parametrize("dtype", [np.int64, bool, object, "U3", np.float32])
def test_what_a_marked_matrix_holds_is_never_converted(evaluator: ModuleType, dtype: Any) -> None:
    data = np.full((2, 3), "abc") if dtype == "U3" else np.ones((2, 3), dtype=dtype)
    result = run(evaluator, feature("a"), features={"a": data})
    same_bits(result.weights, np.full((2, 3), NAN))


def test_functions_are_given_the_nan_row(evaluator: ModuleType) -> None:
    instance = RecordingFunction()
    run(evaluator, rotation("f", feature("a"), feature("b")), bound={"root": instance})
    same_bits([call.values[0] for call in instance.calls], np.full((2, 3), NAN))
    same_bits([call.values[1] for call in instance.calls], counting_matrix(2, start=50))


# --- climbing ------------------------------------------------------------------------------------


@pytest.mark.parametrize("names", ["a", "b", "ab", "ba"])
@pytest.mark.parametrize(
    ("left", "right", "replaced"),
    [(NAN, NAN, True), (1.0, NAN, False), (NAN, 1.0, False), (1.0, 1.0, False)],
)
def test_all_inputs_nan_and_one_of_them_marked(
    evaluator: ModuleType, names: str, left: float, right: float, replaced: bool
) -> None:
    left, right = NAN if "a" in names else left, NAN if "b" in names else right
    replaced = bool(np.isnan([left, right]).all())
    features = {"a": column(left), "b": column(right)}
    graph = rotation("f", feature("a"), feature("b"))
    instance = RecordingFunction(np.array([7.0]))
    result = run(evaluator, graph, names, features=features, bound={"root": instance})
    same_bits(result.weights, [[NAN if replaced else 7.0]])
    assert ("root" in result.nan_source) is replaced
    assert len(instance.calls) == 1


def test_one_number_among_the_columns_stops_the_mark(evaluator: ModuleType) -> None:
    features = {"a": counting_matrix(1), "b": np.array([[NAN, NAN, 0.0]])}
    result = run(evaluator, rotation("f", feature("b"), feature("a")), features=features)
    same_bits(result.weights, np.full((1, 3), 7.0))
    assert result.nan_source == {"root.c1": MARK}


def test_a_nan_that_is_not_missing_data_starts_no_mark(evaluator: ModuleType) -> None:
    graph = rotation("top", rotation("f", feature("b")), rotation("g", feature("a"), number(1.0)))
    features = {"a": counting_matrix(1), "b": np.full((1, 3), NAN)}
    bound = bind_all(graph, lambda: RecordingFunction(NAN))
    result = run(evaluator, graph, features=features, bound=bound)
    assert result.nan_source == {"root.c1.c0": MARK}
    same_bits(result.weights, np.full((1, 3), NAN))


def test_marks_climb_in_the_order_of_execution(evaluator: ModuleType) -> None:
    graph = rotation("f", rotation("g", rotation("h", feature("a"))), rotation("g", feature("a")))
    result = run(evaluator, graph)
    leaves = ["root.c0.c0.c0", "root.c1.c0"]
    assert list(result.nan_source) == [*leaves, "root.c0.c0", "root.c0", "root.c1", "root"]
    for path in result.nan_source:
        same_bits(result.node_outputs[path], np.full((2, 3), NAN))


LITERALS = {
    "int": (integer(3), False),
    "float": (number(0.5), False),
    "float that is NaN": (number("nan"), True),
    "string": (string("s"), False),
    "bool": (boolean(True), False),
    "unknown kind": (node("odd", None), False),
    "literal with a NaN output": (integer(3, canonical_id="nan"), True),
    "filtration": (filtration("top", canonical_id="zero"), True),
}


@pytest.mark.parametrize(("literal", "climbs"), LITERALS.values(), ids=LITERALS.keys())
@pytest.mark.parametrize("first", [True, False])
def test_literals_count_by_what_their_registers_hold(
    evaluator: ModuleType, literal: Any, climbs: bool, first: bool
) -> None:
    """Configuration or not; only filtrations are passed over."""
    children = [literal, feature("a")] if first else [feature("a"), literal]
    outputs = {"nan": [NAN] * 3, "zero": [0.0] * 3}
    attributes = {"_precomputed_node_outputs": outputs}
    result = run(evaluator, rotation("f", *children), attributes=attributes)
    assert ("root" in result.nan_source) is climbs
    same_bits(result.weights, np.full((2, 3), NAN if climbs else 7.0))


def test_a_marked_filtration_is_no_marked_child(evaluator: ModuleType) -> None:
    graph = rotation("f", filtration("top", canonical_id="id"), feature("b"))
    attributes = {
        "_precomputed_node_outputs": {"id": [NAN] * 3},
        "_precomputed_node_nan_source": {"id": MARK},
    }
    features = {"b": np.full((2, 3), NAN)}
    result = run(evaluator, graph, None, features=features, attributes=attributes)
    assert result.nan_source == {"root.c0": MARK}
    same_bits(result.weights, np.full((2, 3), 7.0))


@pytest.mark.parametrize("make", [rotation, reduction])
@pytest.mark.parametrize("children", [[], [filtration("top", canonical_id="id")]], ids=len)
def test_without_inputs_nothing_is_replaced(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, make: Any, children: list[Any]
) -> None:
    replace_filters(monkeypatch, evaluator, top=["a", "c"])
    graph = rotation("top", make("f", *children), feature("a"))
    result = run(
        evaluator,
        graph,
        bound={"root": RecordingFunction(8.0), "root.c0": stateful(NAN, state={})},
        attributes={"_precomputed_node_nan_source": {"id": MARK}},
        useful_signals=make_pool(rows=2),
    )
    assert "root.c0" not in result.nan_source
    # The parent is replaced for its other child's sake.
    assert "root" in result.nan_source


@pytest.mark.parametrize("is_stateful", [True, False])
def test_reductions_are_marked_like_rotations(evaluator: ModuleType, is_stateful: bool) -> None:
    instance = RecordingFunction(5.0, stateful=is_stateful, state={"count": 4}, window=1)
    graph = rotation("top", reduction("mean", feature("a")))
    functions = {"mean": instance, "top": RecordingFunction(8.0)}
    context, _ = run_reductions(evaluator, graph, functions, rows=2)
    context._collect_node_outputs = True
    instance.calls.clear()
    result = evaluator.evaluate(graph, context, data_nan_features="a")
    assert list(result.nan_source) == ["root.c0.c0", "root.c0", "root"]
    same_bits(result.node_outputs["root.c0"], np.full((2, 3), NAN))
    assert len(instance.calls) == (2 if is_stateful else 0)


# --- rows ----------------------------------------------------------------------------------------


def test_a_mark_made_in_one_row_stays(evaluator: ModuleType) -> None:
    """Later rows that fail the test keep the function's own output, but not without the mark."""
    features = {"a": counting_matrix(5, 1), "b": column(1.0, 2.0, NAN, 4.0, 5.0)}
    graph = rotation("f", rotation("g", feature("a"), feature("b")))
    outputs = iter([1.0, 2.0, 3.0, NAN, 5.0])
    below = RecordingFunction(lambda *_: next(outputs))
    bound = {"root.c0": below, "root": RecordingFunction(7.0)}
    result = run(evaluator, graph, features=features, bound=bound)
    same_bits(result.node_outputs["root.c0"], column(1.0, 2.0, NAN, NAN, 5.0))
    # In row 3 the child is NaN by its own doing, yet it carries the mark of row 2.
    same_bits(result.weights, column(7.0, 7.0, NAN, NAN, 7.0))
    assert list(result.nan_source) == ["root.c0.c0", "root.c0", "root"]


def test_a_replaced_row_is_in_the_state_all_the_same(evaluator: ModuleType) -> None:
    instance = RecordingFunction(1.0, stateful=True, state=lambda: {"count": len(instance.calls)})
    result = run(evaluator, rotation("f", feature("a")), bound={"root": instance})
    assert result.states == {"root": {"count": 2}}


@pytest.mark.parametrize(
    "wrong",
    [np.zeros(2), np.zeros((3, 1)), np.zeros(3, np.float32), "text", None, object(), [1.0, [2.0]]],
    ids=lambda wrong: type(wrong).__name__,
)
def test_a_replaced_result_is_not_checked(evaluator: ModuleType, wrong: Any) -> None:
    features = {"a": counting_matrix(2), "b": np.array([[NAN] * 3, [NAN, NAN, 1.0]])}
    good = np.ones(3)
    results = iter([wrong, good])
    bound = {"root": RecordingFunction(lambda *_: next(results))}
    graph = rotation("f", feature("a"), feature("b"))
    result = run(evaluator, graph, features=features, bound=bound)
    same_bits(result.weights, [[NAN] * 3, good])


def test_the_first_row_that_is_not_replaced_is_checked(evaluator: ModuleType) -> None:
    features = {"a": counting_matrix(2), "b": np.array([[NAN] * 3, [NAN, NAN, 1.0]])}
    with fails(EvaluationShapeError, "Function 'f' returned shape (2,), expected (3,) at row 1"):
        run(
            evaluator,
            rotation("f", feature("a"), feature("b")),
            features=features,
            bound={"root": RecordingFunction(np.zeros(2))},
        )


def test_a_failing_function_still_fails(evaluator: ModuleType) -> None:
    fault = ValueError("broken")
    with fails(FunctionExecutionError, "Function 'f' failed at row 0: broken", cause=fault):
        run(
            evaluator,
            rotation("f", feature("a")),
            bound={"root": RecordingFunction(raising(fault))},
        )


@pytest.mark.parametrize(("written", "replaced"), [(5.0, False), (NAN, True)])
def test_registers_count_as_the_function_left_them(
    evaluator: ModuleType, written: float, replaced: bool
) -> None:
    """A bound function is handed live views; what it writes there is what is looked at."""

    def overwrite(marked: np.ndarray, other: np.ndarray) -> float:
        (other if replaced else marked)[:] = written
        return 7.0

    features = {"a": counting_matrix(1), "b": np.full((1, 3), 2.0 if replaced else NAN)}
    graph = rotation("f", feature("a"), feature("b"))
    bound = {"root": RecordingFunction(overwrite)}
    result = run(evaluator, graph, features=features, bound=bound)
    same_bits(result.weights, np.full((1, 3), NAN if replaced else 7.0))


def test_without_rows_only_the_seeds_are_marked(evaluator: ModuleType) -> None:
    result = run(evaluator, rotation("f", feature("a")), features={"a": np.zeros((0, 3))})
    assert result.nan_source == {"root.c0": MARK}


def test_without_columns_every_row_counts_as_nan(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"), integer(3))
    result = run(evaluator, graph, features={"a": np.zeros((1, 0))})
    assert result.nan_source == {"root.c0": MARK, "root": MARK}
    assert result.weights.shape == (1, 0)


# --- marks that belong to precomputed outputs ----------------------------------------------------

KINDS = {
    "feature": lambda: feature("a", canonical_id="id"),
    "aggregation": lambda: aggregation("a", canonical_id="id"),
    "float": lambda: number(1.0, canonical_id="id"),
    "int": lambda: integer(1, canonical_id="id"),
    "string": lambda: string("s", canonical_id="id"),
    "bool": lambda: boolean(True, canonical_id="id"),
    "rotation": lambda: rotation("g", canonical_id="id"),
    "reduction": lambda: reduction("g", canonical_id="id"),
    "unknown": lambda: node("odd", None, canonical_id="id"),
}


@pytest.mark.parametrize("make", KINDS.values(), ids=KINDS.keys())
@pytest.mark.parametrize("stored", [NAN, 4.0])
def test_any_kind_can_carry_a_mark(evaluator: ModuleType, make: Any, stored: float) -> None:
    attributes = {
        "_precomputed_node_outputs": {"id": [stored] * 3},
        "_precomputed_node_nan_source": {"id": MARK},
    }
    result = run(evaluator, rotation("f", make()), None, attributes=attributes)
    assert result.nan_source["root.c0"] == MARK
    # The output that was handed in stands, not the row of NaN.
    same_bits(result.node_outputs["root.c0"], np.full((2, 3), stored))
    assert ("root" in result.nan_source) is bool(np.isnan(stored))


def test_a_mark_without_an_output(evaluator: ModuleType) -> None:
    """A leaf gives rows of NaN, whereas a function keeps its own output and passes the mark on."""
    graph = rotation("f", feature("b", canonical_id="leaf"), rotation("g", canonical_id="function"))
    attributes = {"_precomputed_node_nan_source": {"leaf": MARK, "function": MARK}}
    bound = {"root": RecordingFunction(7.0), "root.c1": RecordingFunction(NAN)}
    result = run(evaluator, graph, None, bound=bound, attributes=attributes)
    same_bits(result.node_outputs["root.c0"], np.full((2, 3), NAN))
    same_bits(result.weights, np.full((2, 3), NAN))
    assert result.nan_source == {"root.c0": MARK, "root.c1": MARK, "root": MARK}


class Alike(str):
    """A text of its own class."""


@pytest.mark.parametrize(
    ("tag", "marks"),
    [(Alike(MARK), True), ("DATA_NAN", False), (None, False), (True, False), ([MARK], False)],
)
def test_only_the_one_tag_counts(evaluator: ModuleType, tag: Any, marks: bool) -> None:
    attributes = {"_precomputed_node_nan_source": {"id": tag}}
    result = run(evaluator, feature("b", canonical_id="id"), ["z"], attributes=attributes)
    assert result.nan_source == ({"root": MARK} if marks else {})
    assert all(type(found) is str for found in result.nan_source.values())


def test_marks_are_asked_for_by_identity_of_node(evaluator: ModuleType) -> None:
    asked: list[Any] = []

    class Marks:
        def get(self, canonical_id: Any) -> Any:
            asked.append(canonical_id)
            return MARK if canonical_id in ("leaf", 5) else None

    graph = rotation(
        "f", feature("b", canonical_id="leaf"), feature("b"), number(1.0, canonical_id=None)
    )
    graph.canonical_id = 5
    attributes = {"_precomputed_node_nan_source": Marks()}
    result = run(evaluator, graph, None, attributes=attributes)
    assert asked == ["leaf", 5]
    assert list(result.nan_source) == ["root.c0", "root"]


def test_named_features_are_marked_before_precomputed_nodes(evaluator: ModuleType) -> None:
    graph = rotation("f", number(1.0, canonical_id="id"), feature("a", canonical_id="id"))
    attributes = {"_precomputed_node_nan_source": {"id": MARK}}
    assert list(run(evaluator, graph, attributes=attributes).nan_source) == ["root.c1", "root.c0"]


@pytest.mark.parametrize("marks", [None, {}])
def test_no_marks_are_handed_in(evaluator: ModuleType, marks: Any) -> None:
    attributes = {"_precomputed_node_nan_source": marks}
    graph = feature("a", canonical_id="id")
    assert run(evaluator, graph, ["z"], attributes=attributes).nan_source == {}


def test_the_fast_roads_do_not_look_at_the_marks(evaluator: ModuleType) -> None:
    graph = feature("a", canonical_id="id")
    result = run(evaluator, graph, None, attributes={"_precomputed_node_nan_source": {"id": MARK}})
    same_bits(result.weights, counting_matrix(2))
    assert result.nan_source == {}


def test_each_run_has_marks_of_its_own(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("a"))
    first, second = run(evaluator, graph), run(evaluator, graph, "z")
    assert first.nan_source == {"root.c0": MARK, "root": MARK}
    assert second.nan_source == {}
    assert type(first.nan_source) is dict
