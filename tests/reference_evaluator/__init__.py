"""The evaluator in plain Python, as an oracle for the native module.

This package's namespace plays the part of the module's globals. Each room says
`import reference_evaluator as module` and reads every module-level name from there when it is
used, so that a name patched on the package takes effect; only NumPy is imported by the rooms
themselves. Closures of a run are functions of a room over the `Run` and have no name here.
"""
# ruff: noqa: F401, UP035 - the names are here to be found, not to be used

import importlib
import json
import threading
from copy import deepcopy
from dataclasses import dataclass, field
from typing import Any, Dict, List, Optional, Tuple

import numpy as np
import structlog
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError, StageData
from quernbrook.functions.filtrations import FiltrationInstance
from quernbrook.functions.filtrations_evaluation import (
    EmptyFiltrationError,
    EmptyPoolError,
    FilterNode,
    FiltrationResult,
)
from quernbrook.simulator_engine._combine import combine_signal_and_transforms
from quernbrook.simulator_engine._graph_helpers import extract_feature_leaf_names
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
from quernbrook.simulator_engine._types import (
    EvaluationError,
    EvaluationShapeError,
    FiltrationResolutionError,
    FunctionExecutionError,
    TransformStage,
    UsefulSignal,
)

from .expression_evaluator.context import EvaluationContext, _validate_evaluation_shapes
from .expression_evaluator.evaluate import evaluate
from .expression_evaluator.function_state import (
    FunctionState,
    _function_state_data,
    _function_state_version,
    _registry_function_state_class,
    _state_for_registry_restore,
)
from .expression_evaluator.graph_caches import (
    _graph_cache_get,
    _graph_cache_set,
    generate_node_identities,
    invalidate_graph_evaluation_caches,
)
from .expression_evaluator.graph_node import (
    _graph_children,
    _graph_config_dict,
    _graph_has_field,
    _require_graph_field,
    _require_graph_node_instance,
    _require_graph_node_value,
    _require_graph_type_value,
)
from .expression_evaluator.parameter_schema import (
    _CONFIG_CHILD_TYPES,
    _config_param_names,
    _iter_schema_items,
    _schema_param_name_and_type,
)
from .expression_evaluator.result import EvaluationResult
from .expression_evaluator.run import _evaluate_unlocked
from .expression_evaluator.universe import (
    _apply_universe_mask,
    _can_use_leaf_fast_path,
    _evaluate_leaf_fast,
)
from .fast_paths.eligibility import (
    _LONGITUDINAL_FAST_MIN_ROWS,
    _LONGITUDINAL_FAST_NAMES,
    _can_use_longitudinal_fast_path,
    _can_use_rank_multiply_fast_path,
    _can_use_simple_rank_fast_path,
    _get_int_window_child,
)
from .fast_paths.longitudinal import (
    _evaluate_longitudinal_fast,
    _evaluate_longitudinal_fast_node,
    _feature_matrix_for_fast_path,
    _rolling_longitudinal_fast,
)
from .fast_paths.rank import _evaluate_rank_multiply_fast, _evaluate_simple_rank_fast
from .filtration.filter_tree import (
    FILTRATION_NODE_TYPES,
    _describe_dict_filter,
    _dict_to_filter_node,
)
from .filtration.weight_extraction import extract_filtration_weights
from .graph_prep.config_preflight import _param_schema_names, _preflight_param_schema_names
from .graph_prep.warmup_rows import _compute_graph_warmup_rows, _get_warmup_count_for_instance
from .stages.stage_data import _attach_stage_data_feature_leaves
from .stages.stage_options import _resolve_stage_option
from .stages.transform_merge import _annotate_state_identities

_logger = structlog.wrap_logger(
    structlog.get_logger("quernbrook.simulator_engine.expression_evaluator")
)
