"""Expression evaluator implementation (MVP)."""

from collections.abc import Callable, Iterable, Mapping, Sequence
from contextlib import AbstractContextManager
from dataclasses import dataclass, field
from typing import Any, Protocol, overload

import numpy as np
import numpy.typing as npt
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from typing_extensions import Self

_Matrix = npt.NDArray[np.float64]

FILTRATION_NODE_TYPES: frozenset[str]

class _Context(Protocol):
    """What a run reads of a context; EvaluationContext has it all."""

    features: Sequence[Any]
    feature_index: Any
    useful_signals: Any
    registry: Any
    universe: Any
    universe_mask: Any
    metaparameters: Any
    transform_pipeline: Any
    stage_data: Any
    column_labels: Any
    signal_pnl_vectors: Any
    current_day_index: int
    registers: Any
    extraction_buffer: Any

class _Open:
    """A host may add attributes of its own, for its functions to read."""

    def __getattr__(self, name: str) -> Any: ...
    def __setattr__(self, name: str, value: Any) -> None: ...

class EvaluationContext(_Open):
    feature_index: dict[str, int]
    useful_signals: dict[str, UsefulSignal]
    registry: RegistryProtocol | None
    universe: npt.NDArray[Any] | None
    metaparameters: dict[str, Any]
    transform_pipeline: list[TransformStage]
    stage_data: StageData
    column_labels: list[str]
    signal_pnl_vectors: dict[str, dict[str, float]] | None
    function_states: dict[str, Any] | None
    universe_mask: npt.NDArray[Any] | None
    current_day_index: int
    pool_id: str | None
    universe_tag: str | None
    liquidity_feature_hashes: list[Any]
    liquidity_features: list[Any]
    factor_epoch: Any
    epoch: Any
    factor_model: Any
    factor_model_version_id: Any
    transforms_already_combined: bool
    registers: _Matrix | None
    extraction_buffer: _Matrix | None
    features: Sequence[npt.NDArray[Any]]
    _skip_evaluation_shape_validation: bool
    # Not there unless the host sets it: nothing changes the run's inputs while it goes on.
    _reads_rows_ahead: bool
    _evaluation_lock: AbstractContextManager[Any]
    # Not there until a host sets them; what a run does without them stands behind each.
    _collect_node_outputs: bool  # True for runs with bound instances or precomputed outputs
    _collect_states: bool  # True
    _precomputed_node_outputs: Mapping[str, npt.ArrayLike] | None  # None
    _precomputed_node_nan_source: Mapping[str, str] | None  # None

    def __init__(
        self,
        features: Sequence[npt.NDArray[Any]],
        feature_index: dict[str, int],
        useful_signals: dict[str, UsefulSignal] | None = None,
        registry: RegistryProtocol | None = None,
        universe: npt.NDArray[Any] | None = None,
        metaparameters: dict[str, Any] | None = None,
        transform_pipeline: list[TransformStage] | None = None,
        stage_data: StageData | None = None,
        column_labels: list[str] | None = None,
        signal_pnl_vectors: dict[str, dict[str, float]] | None = None,
        function_states: dict[str, Any] | None = None,
        universe_mask: npt.NDArray[Any] | None = None,
        current_day_index: int = 0,
        pool_id: str | None = None,
        universe_tag: str | None = None,
        transforms_already_combined: bool = False,
        validate_inputs: bool = True,
    ) -> None: ...
    def __getstate__(self) -> dict[str, Any]: ...
    def __setstate__(self, state: Mapping[str, Any]) -> None: ...

class _Pair(tuple[_Matrix, dict[str, Any]]):
    """No tuple when the program runs, but only for one do type checkers know what it unpacks to."""

    def __new__(
        cls,
        weights: _Matrix,
        states: dict[str, Any],
        nan_source: dict[str, str] | None = None,
        node_outputs: dict[str, _Matrix] | None = None,
    ) -> Self: ...

class EvaluationResult(_Pair):
    weights: _Matrix
    states: dict[str, Any]
    nan_source: dict[str, str]
    node_outputs: dict[str, _Matrix]

    def __init__(
        self,
        weights: _Matrix,
        states: dict[str, Any],
        nan_source: dict[str, str] | None = None,
        node_outputs: dict[str, _Matrix] | None = None,
    ) -> None: ...
    @overload
    def __array__(self, dtype: None = None) -> _Matrix: ...
    @overload
    def __array__(self, dtype: npt.DTypeLike) -> npt.NDArray[Any]: ...
    def __getattr__(self, name: str) -> Any: ...

@dataclass
class FunctionState:
    name: str
    state_data: dict[str, Any] = field(default_factory=dict)

    def to_bytes(self) -> bytes: ...
    @classmethod
    def from_bytes(cls, data: bytes) -> Self: ...

def evaluate(
    graph: FunctionGraphNode,
    context: EvaluationContext | _Context,
    function_states: Mapping[str, Any] | None = None,
    is_cold_start: bool = False,
    *,
    bound_function_instances: Mapping[str, Callable[..., Any]] | None = None,
    data_nan_features: Iterable[str] | None = None,
) -> EvaluationResult: ...
def generate_node_identities(graph: FunctionGraphNode) -> dict[str, Any]: ...
def invalidate_graph_evaluation_caches(graph: object) -> None: ...
def extract_filtration_weights(
    useful_signals: Mapping[str, UsefulSignal] | None,
    passing_ids: Sequence[str] | None,
    t: int,
) -> _Matrix: ...
