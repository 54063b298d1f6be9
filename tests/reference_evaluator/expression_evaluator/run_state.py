"""What one run knows: its arguments, tables, registers and buffers."""

from typing import Any

import numpy as np


class Run:
    def __init__(
        self,
        graph: Any,
        context: Any,
        function_states: Any,
        is_cold_start: Any,
        bound_function_instances: Any,
        data_nan_features: Any,
    ) -> None:
        self.graph = graph
        self.context = context
        self.function_states = function_states
        self.is_cold_start = is_cold_start
        self.bound_function_instances = bound_function_instances
        self.data_nan_features = data_nan_features

        self.features: Any = None
        self.T: Any = None
        self.N_alloc: Any = None

    def create_tables(self) -> None:
        self.func_instances: dict[str, Any] = {}
        self.state_keys: dict[str, Any] = {}
        self.node_info: dict[str, dict[str, Any]] = {}
        self.float_values: dict[str, float] = {}
        self.feature_refs: dict[str, Any] = {}
        self.filtration_nodes: dict[str, Any] = {}
        self.reduction_nodes: dict[str, dict[str, Any]] = {}
        self.bound_instances: Any = (
            self.bound_function_instances if self.bound_function_instances is not None else {}
        )
        self.bound_paths: set[str] = set()

        outputs = getattr(self.context, "_precomputed_node_outputs", None)
        self.precomputed_node_outputs: Any = {} if outputs is None else outputs
        nan_source = getattr(self.context, "_precomputed_node_nan_source", None)
        self.precomputed_node_nan_source: Any = {} if nan_source is None else nan_source

        self.can_use_collect_nodes_cache: Any = False
        self.cached_collect_nodes: Any = None

        self.reg_map: dict[str, int] = {}
        self.next_reg = 0
        self.topo_order: list[str] = []
        self.filtration_cache: dict[str, Any] = {}

        self.total_root_warmup_rows: Any = 0
        self.root_warmup_rows: Any = 0
        self.states_dict: dict[Any, Any] = {}

        self.output_weights: np.ndarray
        self.local_registers: np.ndarray
        self.local_extraction_buffer: Any = None
        self.nan_source: dict[str, str] = {}
        self.track_data_nan = False
        self.node_outputs: dict[str, np.ndarray] | None = None
