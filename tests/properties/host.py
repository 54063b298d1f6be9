"""The host of a random run: it logs what it is asked, and fails where the case says so."""

from __future__ import annotations

from collections import Counter
from types import ModuleType
from typing import Any

import numpy as np
from properties.actions import Memory
from properties.answers import Convertible
from properties.build import (
    PNL_COLUMNS,
    build_graph,
    build_matrix,
    build_signal,
    build_stages,
    build_value,
)
from properties.cases import CallCase, FunctionCase, RunCase
from properties.faults import ERRORS
from properties.functions import FUNCTION_KINDS, LoggingFunction
from properties.meddling import DEEDS
from properties.passing import PassedMatrix, PassedOutputs, PassedSignal
from properties.services import REGISTRIES, LoggingStageData
from quernbrook.simulator_engine._types import UsefulSignal
from support.guise_runs import make_instance


class Host:
    def __init__(self, case: RunCase, evaluator: ModuleType) -> None:
        self.case = case
        self.evaluator = evaluator
        self.functions = dict(case.functions)
        self.log: list[tuple[Any, ...]] = []
        self.questions: Counter[str] = Counter()
        self.are_stateful = True
        """Whether functions own up to being stateful."""
        self.has_meddled = False
        self.instances: list[Any] = []
        self.context: Any = None
        self.bound: dict[str, Any] | None = None
        columns = case.shape[1]
        self.features = [(name, build_matrix(matrix, columns)) for name, matrix in case.features]
        self.stage_values = {name: build_value(value, columns) for name, value in case.stage_data}
        self.graph: Any = build_graph(case.graph, {} if case.shared else None)

    def asked(self, question: str, *details: Any) -> None:
        self.log.append((question, *details))
        self.questions[question] += 1
        self.passes(question)
        fault = self.case.fault
        if fault is not None and (question, self.questions[question]) == (
            fault.question,
            fault.time,
        ):
            ERRORS[fault.error]()

    def passes(self, spot: str) -> None:
        """Changes the run where the case says so, once."""
        meddling, context = self.case.meddling, self.context
        if meddling is None or self.has_meddled or context is None or spot != meddling.spot:
            return
        if context.current_day_index == meddling.row:
            self.has_meddled = True
            DEEDS[meddling.deed](self, Memory(self, 2 * meddling.row))

    def new_context(self, *, backwards: bool = False) -> Any:
        case, columns = self.case, self.case.shape[1]
        features = self.features[::-1] if backwards else self.features
        matrices = [self.feature(matrix) for _, matrix in features]
        context = self.evaluator.EvaluationContext(
            matrices if case.feature_list else tuple(matrices),
            {name: position for position, (name, _) in enumerate(features)},
            registry=REGISTRIES[case.registry](self),
            universe=None if case.universe is None else build_matrix(case.universe, columns),
            useful_signals={
                name: self.signal(build_signal(signal, columns)) for name, signal in case.pool
            },
            metaparameters={
                name: dict(value) if isinstance(value, tuple) else value
                for name, value in case.metaparameters
            },
            transform_pipeline=build_stages(case.stages),
            stage_data=LoggingStageData(self) if case.stage_data else None,
            column_labels=list(PNL_COLUMNS),
            signal_pnl_vectors=(
                None
                if case.pnl_vectors is None
                else {name: dict(values) for name, values in case.pnl_vectors}
            ),
            pool_id=case.pool_id,
            transforms_already_combined=case.combined,
            validate_inputs=case.validate,
        )
        context._precomputed_node_outputs = (
            None
            if case.precomputed is None
            else self.outputs({key: build_value(value, columns) for key, value in case.precomputed})
        )
        if case.precomputed_nan is not None:
            context._precomputed_node_nan_source = dict(case.precomputed_nan)
        if case.collect is not None:
            context._collect_node_outputs = case.collect
        if case.collect_states is not None:
            context._collect_states = case.collect_states
        if case.reads_ahead:
            context._reads_rows_ahead = True
        return context

    def feature(self, matrix: np.ndarray) -> np.ndarray:
        if not self.has_spot("feature"):
            return matrix
        passed = matrix.view(PassedMatrix)
        passed.host = self
        return passed

    def signal(self, signal: UsefulSignal) -> Any:
        return PassedSignal(self, signal) if self.has_spot("weights", "pnl") else signal

    def outputs(self, stored: dict[Any, Any]) -> Any:
        if self.has_spot("stored"):
            return {key: Convertible(row, self, "stored") for key, row in stored.items()}
        return PassedOutputs(self, stored) if self.has_spot("membership") else stored

    def has_spot(self, *spots: str) -> bool:
        return self.case.meddling is not None and self.case.meddling.spot in spots

    def bind(self, call: CallCase) -> dict[str, Any] | None:
        """The mapping that the call binds; instances serve from call to call."""
        if call.bound == "no":
            return None
        if call.bound == "none":
            return {}
        if self.bound is None:
            self.bound = {
                path: self.new_instance(path, self.functions[node.value])
                for path, node in self.case.graph.paths_of(FUNCTION_KINDS)
            }
        fault, _, path = call.bound.rpartition(" ")
        if fault == "without":
            self.bound.pop(path, None)
        elif fault == "None at":
            self.bound[path] = None
        return self.bound

    def new_instance(self, name: str, case: FunctionCase, calls: int = 0) -> Any:
        instance: Any
        if case.guise is None:
            instance = LoggingFunction(self, name, case, calls)
        else:
            memory = {"count": calls} if calls else None
            instance = make_instance(case.action, case.guise, memory, arity=case.arity)
        self.instances.append(instance)
        return instance
