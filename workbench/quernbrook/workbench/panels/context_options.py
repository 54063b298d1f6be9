"""What a context takes beside what a panel gives it."""

from __future__ import annotations

from typing import Any, TypedDict

from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import StageData
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal


class ContextOptions(TypedDict, total=False):
    """Keyword arguments of `EvaluationContext`, handed on as they are."""

    useful_signals: dict[str, UsefulSignal] | None
    metaparameters: dict[str, Any] | None
    transform_pipeline: list[TransformStage] | None
    stage_data: StageData | None
    column_labels: list[str] | None
    signal_pnl_vectors: dict[str, dict[str, float]] | None
    function_states: dict[str, Any] | None
    universe_mask: NDArray[Any] | None
    current_day_index: int
    pool_id: str | None
    universe_tag: str | None
    transforms_already_combined: bool
    validate_inputs: bool
