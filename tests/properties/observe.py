"""Runs a case with an evaluator and observes everything that a host could."""

from __future__ import annotations

import warnings
from collections.abc import Iterator
from contextlib import contextmanager
from functools import partial
from types import ModuleType
from typing import Any

import numpy as np
from properties.cases import CallCase, RunCase, StageCase
from properties.deeds import do
from properties.describe import bits, described, described_graph, described_record
from properties.faults import describe_error
from properties.host import Host
from properties.services import LoggingFilter
from quernbrook.simulator_engine._types import EvaluationError
from structlog.testing import capture_logs

Observation = dict[str, Any]


def observe(evaluator: ModuleType, case: RunCase) -> Observation:
    """What the runs of a case give and raise, ask of the host, and leave behind."""
    host = Host(case, evaluator)
    observed: Observation = {}
    try:
        host.context = host.new_context()
    except EvaluationError as error:
        return {"construction": describe_error(error)}
    last_states: Any = None
    record: Any = None
    with surroundings(host):
        for number, call in enumerate(case.calls):
            for deed in call.before:
                do(host, deed)
            outcome, last_states = run_once(host, call, last_states)
            observed[f"run {number}"] = outcome
            observed[f"afterwards {number}"] = {
                **observe_context(host),
                "graph": described_graph(host.graph),
                "record": described_record(host.graph),
                "record is kept": record is getattr(host.graph, "_collect_nodes_cache", None),
            }
            record = getattr(host.graph, "_collect_nodes_cache", None)
    observed["features"] = [bits(matrix) for _, matrix in host.features]
    observed["calls"] = host.log
    return observed


@contextmanager
def surroundings(host: Host) -> Iterator[None]:
    """Sets the module up as the case says."""
    case, module = host.case, host.evaluator
    changes: dict[str, Any] = {}
    if case.least_rows is not None:
        changes["_LONGITUDINAL_FAST_MIN_ROWS"] = case.least_rows
    if case.passing is not None:
        changes["FiltrationInstance"] = partial(LoggingFilter, host)
    usual = {name: getattr(module, name) for name in changes}
    vars(module).update(changes)
    try:
        with np.errstate(all=case.arithmetic):
            yield
    finally:
        vars(module).update(usual)


def observe_context(host: Host) -> Observation:
    context = host.context
    return {
        "current_day_index": context.current_day_index,
        "registers": bits(context.registers),
        "extraction_buffer": bits(context.extraction_buffer),
        "universe_mask": bits(context.universe_mask),
        "feature_index": described(context.feature_index),
        "features": described(context.features),
        "transform_pipeline": bool(context.transform_pipeline),
        "attributes": sorted(vars(context)),
        "options": [option_of(host, stage) for stage in host.case.stages],
    }


def option_of(host: Host, stage: StageCase) -> Any:
    """What the module offers to the stage code of a host."""
    try:
        return host.evaluator._resolve_stage_option(host.context, stage)
    except TypeError as error:
        return describe_error(error)


def run_once(host: Host, call: CallCase, last_states: Any) -> tuple[Observation, Any]:
    """What one call of `evaluate` ends with, and its states."""
    states: Any = last_states if call.states == "last" else call.states
    if isinstance(states, tuple):
        states = dict(states)
    host.bound = host.bind(call)
    with warnings.catch_warnings(record=True) as caught, capture_logs() as events:
        warnings.simplefilter("error" if host.case.strict else "always")
        try:
            result = host.evaluator.evaluate(
                host.graph,
                host.context,
                states,
                call.cold,
                bound_function_instances=host.bound,
                data_nan_features=call.nan_features,
            )
        except BaseException as error:  # noqa: BLE001 - interrupts are compared too
            outcome: Observation = {"error": describe_error(error)}
        else:
            last_states = result.states
            outcome = {
                "weights": bits(result.weights),
                "memory": memory_of(result, host.context),
                "states": described(result.states),
                "nan_source": described(result.nan_source),
                "node_outputs": described(result.node_outputs),
            }
    outcome["events"] = [
        {key: value for key, value in event.items() if key != "instance_id"} for event in events
    ]
    outcome["warnings"] = [(w.category.__name__, str(w.message)) for w in caught]
    return outcome, last_states


def memory_of(result: Any, context: Any) -> Any:
    """How the results lie in memory, and which matrices they share it with."""
    weights = result.weights
    others = [context.registers, *context.features, *result.node_outputs.values()]
    return (
        str(weights.flags),
        [isinstance(other, np.ndarray) and np.may_share_memory(weights, other) for other in others],
        [str(matrix.flags) for matrix in result.node_outputs.values()],
    )
