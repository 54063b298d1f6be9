"""What a host with strict types writes: mypy reads this file, and the tests run it."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.functions._typed_shapes import StageData
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import (
    FILTRATION_NODE_TYPES,
    EvaluationContext,
    EvaluationResult,
    FunctionState,
    evaluate,
    extract_filtration_weights,
    generate_node_identities,
    invalidate_graph_evaluation_caches,
)
from typing_extensions import assert_type

Matrix = npt.NDArray[np.float64]


class LiveContext(EvaluationContext):
    venue: str


def context_of(price: Matrix) -> EvaluationContext:
    signals = {"s": UsefulSignal(np.ones(price.shape), fields={"sharpe": 1.0})}
    context = EvaluationContext(
        (price,),
        {"price": 0},
        signals,
        registry=default_registry(),
        universe=np.ones(price.shape, dtype=np.uint8),
        metaparameters={"stage": None},
        transform_pipeline=[TransformStage("stage", options={"none": None})],
        stage_data=StageData({"beta": np.ones(price.shape)}),
        # Merging them would stamp state identities anew.
        transforms_already_combined=True,
    )
    context._collect_node_outputs = True
    context._collect_states = True
    context._precomputed_node_outputs = {"a-canonical-id": [1.0] * price.shape[1]}
    context._precomputed_node_nan_source = {"a-canonical-id": "data_nan"}
    # Whatever the host's functions want to read.
    context.trading_day = "2021-12-30"
    assert context.trading_day.endswith("30")
    return context


def graph_of() -> Node:
    change = Node("rotation", "longitudinal_delta", [Node("feature", "price"), Node("int", 1)])
    change.canonical_id = "another-canonical-id"
    change._state_identity = "change"
    return Node("rotation", "latitudinal_demean", [change])


def as_a_pair(result: EvaluationResult) -> None:
    weights, states = result
    assert_type(weights, Matrix)
    assert_type(states, dict[str, Any])
    assert_type(result[0], Matrix)
    assert_type(result[1], dict[str, Any])
    assert_type(result[-1], dict[str, Any])
    assert_type(result[:1], tuple[Matrix])
    assert_type(result[:], tuple[Matrix, dict[str, Any]])
    assert result[0] is weights and result[1] is states
    assert result[:1] == (weights,)
    assert len(result) == 2


def as_the_weights(result: EvaluationResult) -> None:
    matrix: Matrix = np.asarray(result)
    assert np.array_equal(matrix, result.weights, equal_nan=True)
    assert_type(result.weights, Matrix)
    assert_type(result.states, dict[str, Any])
    assert_type(result.nan_source, dict[str, str])
    assert_type(result.node_outputs, dict[str, Matrix])
    rows, columns = result.shape
    assert (rows, columns) == result.weights.shape
    assert np.isnan(result).any() and float(np.nanmax(result)) == 2.0


def main() -> None:
    price = np.array([[1.0, 2.0], [3.0, 1.0], [2.0, 4.0]])
    graph, context = graph_of(), context_of(price)
    result = evaluate(graph, context, data_nan_features=["volume"])
    assert_type(result, EvaluationResult)
    as_a_pair(result)
    as_the_weights(result)
    assert set(result.states) == {"change"}

    state = FunctionState("longitudinal_delta", result.states["change"].state_data)
    assert_type(FunctionState.from_bytes(state.to_bytes()), FunctionState)
    assert_type(evaluate(graph, context, {"change": state}, is_cold_start=True)[0], Matrix)

    assert_type(generate_node_identities(graph)["root"], Any)
    invalidate_graph_evaluation_caches(graph)
    assert_type(extract_filtration_weights(context.useful_signals, ["s"], 0), Matrix)
    assert "gt" in FILTRATION_NODE_TYPES
    made = EvaluationResult(price, {}, nan_source={}, node_outputs={"root": price})
    assert_type(made[0], Matrix)
    live = LiveContext((price,), {"price": 0})
    live.venue = "a venue"
    assert live.venue.startswith("a")


if __name__ == "__main__":
    main()
