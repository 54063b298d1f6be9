"""Outputs handed in by canonical id stand for the execution of their nodes."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import EvaluationError, EvaluationShapeError
from support.functions import RecordingFunction
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
from support.registries import RecordingRegistry, entry
from support.runs import bind_all, counting_matrix, fails, lets_through, make_context, same_bits

STORED = [10.0, -0.0, np.nan]
KINDS = {
    "feature": lambda: feature("a", canonical_id="id"),
    "aggregation": lambda: aggregation("a", canonical_id="id"),
    "float": lambda: number(1.0, canonical_id="id"),
    "int": lambda: integer(1, canonical_id="id"),
    "int that is no number": lambda: integer("x", canonical_id="id"),
    "string": lambda: string("s", canonical_id="id"),
    "bool": lambda: boolean(True, canonical_id="id"),
    "rotation": lambda: rotation("f", feature("a"), canonical_id="id"),
    "reduction": lambda: reduction("f", canonical_id="id"),
    "filtration": lambda: filtration("top", canonical_id="id"),
    "unknown": lambda: node("odd", None, canonical_id="id"),
}


def run(evaluator, graph, precomputed: Any, *, rows: int = 2, bound: Any = None, **options: Any):
    context = make_context(evaluator, {"a": counting_matrix(rows)}, **options)
    context._precomputed_node_outputs = precomputed
    instances = bind_all(graph) if bound is None else bound
    return evaluator.evaluate(
        graph, context, bound_function_instances=instances, data_nan_features=["unused"]
    )


@pytest.mark.parametrize("universe", [None, np.zeros((2, 3))])
@pytest.mark.parametrize("make", KINDS.values(), ids=KINDS.keys())
def test_an_output_wins_over_every_kind(evaluator, make, universe):
    instance = RecordingFunction(stateful=True, state="kept")
    graph = make()
    bound = bind_all(graph, lambda: instance)
    result = run(evaluator, graph, {"id": STORED}, bound=bound, universe=universe)
    same_bits(result.weights, np.array([STORED, STORED]))
    same_bits(result.node_outputs["root"], np.array([STORED, STORED]))
    assert instance.calls == []
    assert result.states == ({"root": "kept"} if bound else {})


@pytest.mark.parametrize("stateful", [True, False])
def test_the_instance_is_made_but_not_called(evaluator, stateful):
    instance = RecordingFunction(stateful=stateful, state={"count": 0})
    registry = RecordingRegistry(entries={"f": entry()}, factories={"f": instance})
    context = make_context(evaluator, {"a": counting_matrix(2)}, registry=registry)
    context._precomputed_node_outputs = {"id": STORED}
    graph = rotation("f", feature("a"), canonical_id="id")
    result = evaluator.evaluate(graph, context)
    assert registry.names("create_instance") == ["f"]
    assert instance.calls == []
    assert result.states == ({"root": {"count": 0}} if stateful else {})


def test_children_run_all_the_same_and_parents_read_the_output(evaluator):
    below, above = RecordingFunction(), RecordingFunction()
    graph = rotation("f", rotation("g", rotation("h", feature("a")), canonical_id="id"))
    bound = {"root.c0.c0": below, "root.c0": RecordingFunction(), "root": above}
    result = run(evaluator, graph, {"id": STORED}, bound=bound)
    assert len(below.calls) == 2
    assert bound["root.c0"].calls == []
    same_bits(above.calls[1].values[0], np.array(STORED))
    same_bits(result.weights, np.array([STORED, STORED]))


def test_nodes_of_one_id_share_the_output(evaluator):
    graph = rotation("f", number(1.0, canonical_id="id"), integer(2, canonical_id="id"))
    result = run(evaluator, graph, {"id": STORED})
    for path in ("root.c0", "root.c1", "root"):
        same_bits(result.node_outputs[path], np.array([STORED, STORED]))


@pytest.mark.parametrize("identity", [None, "other", "ID", ""])
def test_other_ids_change_nothing(evaluator, identity):
    result = run(evaluator, number(4.0, canonical_id=identity), {None: STORED, "id": STORED})
    same_bits(result.weights, np.full((2, 3), 4.0))


def test_any_hashable_id_serves(evaluator):
    result = run(evaluator, number(4.0, canonical_id=("t", 1)), {("t", 1): STORED})
    same_bits(result.weights, np.array([STORED, STORED]))


@pytest.mark.parametrize(
    "stored",
    [
        (10, 20, 30),
        np.array([[10.0, 20.0, 30.0]]),
        np.array([[10.0], [20.0], [30.0]]),
        np.array([10.0, 20.0, 30.0]).reshape(1, 3, 1),
        np.array([10, 20, 30], np.int8),
        np.array([10, 20, 30], ">f4"),
        np.array(["10", "20", "30"]),
        np.array([10, "20", 30.0], dtype=object),
        np.arange(70.0, 0.0, -10.0)[::2][::-1][0:3],
        np.array([[10.0, 20.0, 30.0]]).view(np.matrix),
        range(10, 40, 10),
    ],
)
def test_any_row_of_numbers_is_flattened(evaluator, stored):
    expected = np.asarray(stored, dtype=np.float64).reshape(-1)
    result = run(evaluator, number(0.0, canonical_id="id"), {"id": stored})
    same_bits(result.weights, np.tile(expected, (2, 1)))


@pytest.mark.parametrize(
    ("stored", "shape"),
    [
        (5.0, "(1,)"),
        ([], "(0,)"),
        ([1.0, 2.0], "(2,)"),
        (np.zeros((2, 3)), "(6,)"),
        (np.zeros((3, 0)), "(0,)"),
        (np.zeros((2, 2), np.float32), "(4,)"),
    ],
)
def test_an_output_of_another_length(evaluator, stored, shape):
    graph = rotation("f", number(0.0, canonical_id="näme {}"))
    text = f"Precomputed node 'näme {{}}' returned shape {shape}, expected (3,) at row 0"
    with fails(EvaluationShapeError, text):
        run(evaluator, graph, {"näme {}": stored})


def test_a_scalar_fits_one_column(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2, 1)})
    context._precomputed_node_outputs = {"id": 5}
    result = evaluator.evaluate(number(0.0, canonical_id="id"), context)
    same_bits(result.weights, np.full((2, 1), 5.0))


@pytest.mark.parametrize("stored", ["abc", object(), {}, [[1.0], [2.0, 3.0]], 1j])
def test_an_output_that_is_no_array_of_numbers(evaluator, stored):
    with pytest.raises((TypeError, ValueError)) as expected:
        np.asarray(stored, dtype=np.float64)
    with pytest.raises(expected.type) as caught:
        run(evaluator, number(0.0, canonical_id="id"), {"id": stored})
    assert str(caught.value) == str(expected.value)


@pytest.mark.parametrize("precomputed", [{"other": STORED}, {}, None])
def test_an_unhashable_id(evaluator, precomputed):
    with pytest.raises(TypeError, match="unhashable type: 'list'"):
        run(evaluator, number(0.0, canonical_id=[]), precomputed)


def test_the_output_does_not_excuse_a_missing_feature(evaluator):
    with fails(EvaluationError, "Feature 'zz' not in context"):
        run(evaluator, rotation("f", feature("zz", canonical_id="id")), {"id": STORED})


def test_the_leaf_road_has_no_precomputed_outputs(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    context._precomputed_node_outputs = {"id": STORED}
    same_bits(
        evaluator.evaluate(feature("a", canonical_id="id"), context).weights, counting_matrix(2)
    )


# --- the mapping is the caller's -----------------------------------------------------------------


def changing_run(evaluator, precomputed: Any, change: Any) -> list[float]:
    """The first column of a node "id" whose sibling changes something from row 1 on."""
    calls: list[int] = []

    def act(*_: Any) -> float:
        if calls:
            change(precomputed)
        calls.append(0)
        return 0.0

    graph = rotation("top", rotation("f", feature("a")), number(1.0, canonical_id="id"))
    bound = {"root.c0": RecordingFunction(act), "root": RecordingFunction()}
    result = run(evaluator, graph, precomputed, bound=bound, rows=3)
    return result.node_outputs["root.c1"][:, 0].tolist()


def test_a_vector_changed_in_the_run(evaluator):
    stored = np.array([10.0, 20.0, 30.0])
    assert changing_run(evaluator, {"id": stored}, lambda m: m["id"].fill(-1.0)) == [10, -1, -1]


def test_an_entry_replaced_in_the_run(evaluator):
    def replace(mapping: dict[str, Any]) -> None:
        mapping["id"] = [7.0, 8.0, 9.0]

    assert changing_run(evaluator, {"id": STORED}, replace) == [10, 7, 7]


def test_an_entry_removed_in_the_run(evaluator):
    assert changing_run(evaluator, {"id": STORED}, dict.clear) == [10, 1, 1]


def test_an_entry_added_in_the_run(evaluator):
    assert changing_run(evaluator, {}, lambda m: m.update(id=STORED)) == [1, 10, 10]


def test_an_attribute_replaced_in_the_run_is_not_seen(evaluator):
    context = make_context(evaluator, {"a": counting_matrix(2)})
    context._precomputed_node_outputs = {}

    def replace(*_: Any) -> float:
        context._precomputed_node_outputs = {"id": STORED}
        return 0.0

    graph = rotation("top", rotation("f"), number(1.0, canonical_id="id"))
    bound = {"root.c0": RecordingFunction(replace), "root": RecordingFunction()}
    result = evaluator.evaluate(graph, context, bound_function_instances=bound)
    same_bits(result.node_outputs["root.c1"], np.ones((2, 3)))


class Asked(dict):
    """A mapping whose own methods answer, and are recorded."""

    def __init__(self) -> None:
        super().__init__()
        self.asked: list[tuple[str, Any]] = []

    def __contains__(self, key: object) -> bool:
        self.asked.append(("contains", key))
        return key == "id"

    def __getitem__(self, key: Any) -> Any:
        self.asked.append(("item", key))
        return STORED

    def __bool__(self) -> bool:
        return True


def test_the_mapping_is_asked_through_its_own_methods_for_every_node_and_row(evaluator):
    mapping = Asked()
    graph = rotation("f", number(1.0, canonical_id="id"), number(2.0), canonical_id="f#1")
    result = run(evaluator, graph, mapping)
    assert mapping.asked == [("contains", "id"), ("item", "id"), ("contains", "f#1")] * 2
    same_bits(result.weights, np.array([STORED, STORED]))


@pytest.mark.parametrize("method", ["__contains__", "__getitem__"])
@pytest.mark.parametrize("kind", [KeyError, RuntimeError, KeyboardInterrupt])
def test_a_mapping_that_fails(evaluator, method, kind):
    fault = kind("mapping")

    def fail(*_: Any) -> Any:
        raise fault

    mapping = type("Failing", (Asked,), {method: fail})()
    with lets_through(fault):
        run(evaluator, number(1.0, canonical_id="id"), mapping)


def test_an_id_that_fails_to_compare(evaluator):
    fault = ValueError("incomparable")

    class Identity:
        def __hash__(self) -> int:
            return hash("id")

        def __eq__(self, other: object) -> bool:
            raise fault

    with lets_through(fault):
        run(evaluator, number(1.0, canonical_id=Identity()), {"id": STORED})
