"""The records that cross the boundary, the graph helper and the transform merge."""

from __future__ import annotations

import copy
import pickle
from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.simulator_engine._combine import combine_signal_and_transforms
from quernbrook.simulator_engine._graph_helpers import extract_feature_leaf_names
from quernbrook.simulator_engine._types import EvaluationError, TransformStage, UsefulSignal
from support.graphs import aggregation, boolean, feature, integer, node, rotation, string

PLACE = node("signal", "signal")


def combine(graph: FunctionGraphNode, *stages: TransformStage, **settings: Any) -> Any:
    context = SimpleNamespace(pool_id=settings.pop("pool_id", None))
    return combine_signal_and_transforms(graph, stages, settings, None, context)


def shape(graph: FunctionGraphNode) -> str:
    return f"{graph.node}({', '.join(map(shape, graph.children or ()))})"


def test_node_has_an_identity_only_when_given_one() -> None:
    assert not hasattr(FunctionGraphNode("feature", "x"), "canonical_id")
    assert FunctionGraphNode("feature", "x", canonical_id="c").canonical_id == "c"


def test_node_defaults() -> None:
    leaf = FunctionGraphNode(type="feature", node="x")
    assert leaf.children is None
    assert leaf.config is None


def test_nodes_are_equal_by_identity() -> None:
    leaf = feature("x")
    assert leaf == leaf  # noqa: PLR0124
    assert leaf != feature("x")
    assert len({leaf, feature("x")}) == 2


def test_copies_carry_further_attributes() -> None:
    graph = rotation("f", feature("x", canonical_id="c"), config={"a": [1]})
    graph._node_identities = {"root": "f"}
    for copied in (copy.deepcopy(graph), pickle.loads(pickle.dumps(graph))):
        assert copied._node_identities == {"root": "f"}
        assert copied.children[0].canonical_id == "c"
        assert copied.children[0] is not graph.children[0]
        assert copied.config == {"a": [1]}
        assert copied.config["a"] is not graph.config["a"]


def test_stage_data() -> None:
    assert StageData().is_empty()
    array = np.zeros((2, 2))
    data = StageData({"liquidity": array})
    assert not data.is_empty()
    assert data.value("liquidity", None) is array
    assert data.value("other", None) is None
    assert data.value("other", 7) == 7


def test_signals_do_not_share_their_fields() -> None:
    first, second = UsefulSignal(None), UsefulSignal(None)
    assert first.pnl is None
    assert first.fields == {}
    assert first.fields is not second.fields


def test_feature_leaf_names() -> None:
    graph = rotation(
        "f",
        feature("x"),
        rotation("g", aggregation("sector_mean"), integer(3), feature("x")),
        string("not_a_feature"),
        boolean(True),
        feature("y"),
    )
    assert extract_feature_leaf_names(graph) == {"x", "y", "sector_mean"}


def test_feature_leaf_names_of_a_deep_graph() -> None:
    graph = feature("x")
    for _ in range(20_000):
        graph = rotation("f", graph)
    names = extract_feature_leaf_names(graph)
    # Taken apart from the top, for nested destruction counts against the C stack.
    while graph.children:
        graph = graph.children.pop()
    assert names == {"x"}


RANK = TransformStage("rank", "on", {"on": rotation("latitudinal_rank", PLACE), "off": None})
SMOOTH = TransformStage("smooth", None, {"slow": rotation("longitudinal_mean", PLACE, integer(20))})


def test_stages_wrap_in_order_the_first_innermost() -> None:
    combined = combine(feature("x"), RANK, SMOOTH, smooth="slow")
    assert shape(combined) == "longitudinal_mean(latitudinal_rank(x()), 20())"


@pytest.mark.parametrize(
    ("settings", "wrapped"),
    [
        ({}, True),
        ({"rank": "off"}, False),
        ({"rank": None}, False),
        ({"p": {"rank": "off"}, "pool_id": "p"}, False),
        ({"p": {"rank": "off"}, "pool_id": "q"}, True),
        ({"p": {"rank": "off"}}, True),
        ({"p": {"smooth": "slow"}, "pool_id": "p"}, True),
        ({"rank": "on", "p": {"rank": "off"}, "pool_id": "p"}, True),
        ({"p": "off", "pool_id": "p"}, True),
    ],
)
def test_precedence_of_options(settings: dict[str, Any], wrapped: bool) -> None:
    expected = "latitudinal_rank(x())" if wrapped else "x()"
    assert shape(combine(feature("x"), RANK, **settings)) == expected


def test_signal_keeps_its_nodes_and_stages_get_state_keys_of_their_own() -> None:
    signal = rotation("longitudinal_mean", feature("x"), integer(5), _state_identity="root")
    combined = combine(signal, RANK, SMOOTH, smooth="slow")
    inner = combined.children[0]
    assert inner.children[0] is signal
    assert signal._state_identity == "root"
    assert combined._state_identity == "smooth.root"
    assert inner._state_identity == "rank.root"
    assert not hasattr(combined.children[1], "_state_identity")


def test_stage_that_uses_the_signal_twice() -> None:
    spread = TransformStage(
        "spread",
        "on",
        {"on": rotation("numerical_subtract", PLACE, rotation("longitudinal_mean", PLACE))},
    )
    combined = combine(feature("x"), spread)
    assert shape(combined) == "numerical_subtract(x(), longitudinal_mean(x()))"
    assert combined.children[1]._state_identity == "spread.root.c1"


def test_pipeline_is_left_as_it_was() -> None:
    template = RANK.options["on"]
    combine(feature("x"), RANK)
    assert template.children == [PLACE]
    assert not hasattr(template, "_state_identity")


def test_unknown_option() -> None:
    with pytest.raises(EvaluationError) as caught:
        combine(feature("x"), RANK, rank="sideways")
    assert str(caught.value) == "Transform stage 'rank' has no option 'sideways'; options: off, on"


def test_stages_of_one_name() -> None:
    with pytest.raises(EvaluationError, match="must have different names"):
        combine(feature("x"), RANK, RANK)
