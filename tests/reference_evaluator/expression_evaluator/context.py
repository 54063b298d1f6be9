"""What a run reads, and the check that its shapes agree."""

from typing import Any

import numpy as np

import reference_evaluator as module


class EvaluationContext:
    """EvaluationContext — stores inputs, validates dimensions, allocates extraction buffer."""

    def __init__(
        self,
        features: Any,
        feature_index: Any,
        useful_signals: Any = None,
        registry: Any = None,
        universe: Any = None,
        metaparameters: Any = None,
        transform_pipeline: Any = None,
        stage_data: Any = None,
        column_labels: Any = None,
        signal_pnl_vectors: Any = None,
        function_states: Any = None,
        universe_mask: Any = None,
        current_day_index: Any = 0,
        pool_id: Any = None,
        universe_tag: Any = None,
        transforms_already_combined: Any = False,
        validate_inputs: Any = True,
    ) -> None:
        self.feature_index = feature_index
        self.useful_signals = useful_signals if useful_signals is not None else {}
        self.registry = registry
        self.universe = universe
        self.metaparameters = metaparameters if metaparameters is not None else {}
        self.transform_pipeline = transform_pipeline if transform_pipeline is not None else []
        if stage_data is None:
            self.stage_data = module.StageData()
        elif isinstance(stage_data, module.StageData):
            self.stage_data = stage_data
        else:
            raise module.SchemaError(
                "EvaluationContext.stage_data must be StageData or None; "
                f"got {type(stage_data).__name__}"
            )
        self.column_labels = column_labels if column_labels is not None else []
        self.signal_pnl_vectors = signal_pnl_vectors
        self.function_states = function_states
        self.universe_mask = universe_mask
        self.current_day_index = current_day_index
        self.pool_id = pool_id
        self.universe_tag = universe_tag
        self.liquidity_feature_hashes: list[Any] = []
        self.liquidity_features: list[Any] = []
        self.factor_epoch = None
        self.epoch = None
        self.factor_model = None
        self.factor_model_version_id = None
        self.transforms_already_combined = transforms_already_combined
        self._skip_evaluation_shape_validation = not validate_inputs
        self._evaluation_lock = module.threading.RLock()
        self.registers: Any = None
        self.extraction_buffer: Any = None
        self.features = features

        if validate_inputs:
            for name, idx in feature_index.items():
                if idx < 0 or idx >= len(features):
                    raise module.EvaluationError(
                        f"feature_index['{name}'] = {idx} is out of bounds "
                        f"for {len(features)} features"
                    )
            module._validate_evaluation_shapes(self.features, self.universe, self.useful_signals)

        if self.useful_signals and len(self.features) > 0:
            A_max = len(self.useful_signals)
            N_alloc = self.features[0].shape[1]
            self.extraction_buffer = np.zeros((A_max, N_alloc), dtype=np.float64)

    def __getstate__(self) -> dict[str, Any]:
        state = self.__dict__.copy()
        state.pop("_evaluation_lock", None)
        return state

    def __setstate__(self, state: Any) -> None:
        self.__dict__.update(state)
        self._evaluation_lock = module.threading.RLock()


def _validate_evaluation_shapes(features: Any, universe: Any, useful_signals: Any) -> None:
    """Validate shape consistency across features, universe, and useful signals."""
    if features is None or len(features) == 0:
        return
    ref_shape = features[0].shape
    for i in range(1, len(features)):
        if features[i].shape != ref_shape:
            raise module.EvaluationError(
                f"Feature dimension mismatch: 'feature_0' shape {ref_shape} "
                f"vs 'feature_{i}' shape {features[i].shape}"
            )
    if universe is not None and universe.shape != ref_shape:
        raise module.EvaluationError(
            f"Feature dimension mismatch: features shape {ref_shape} "
            f"vs universe shape {universe.shape}"
        )
    if useful_signals:
        for sid, sig in useful_signals.items():
            if sig.weights is not None and sig.weights.shape != ref_shape:
                raise module.EvaluationError(
                    f"useful signal '{sid}' weights shape {sig.weights.shape} "
                    f"does not match feature shape {ref_shape}"
                )
            if sig.pnl is not None and sig.pnl.shape[0] != ref_shape[0]:
                raise module.EvaluationError(
                    f"useful signal '{sid}' pnl shape {sig.pnl.shape} "
                    f"does not match feature shape {ref_shape}"
                )
