"""Runs a case with an evaluator and observes everything that a host could."""

from __future__ import annotations

import warnings
from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
from properties.actions import Memory, act
from properties.cases import FunctionCase, MatrixCase, NodeCase, RunCase, SignalCase
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.simulator_engine._types import EvaluationError, UsefulSignal
from structlog.testing import capture_logs

PNL_COLUMNS = ("gross_returns", "net")
Log = list[tuple[Any, ...]]


def bits(value: Any) -> Any:
    """A value in a form that compares by its bits and can be read in a report."""
    if isinstance(value, np.ndarray):
        if value.dtype == np.float64 and value.dtype.isnative:
            words = np.ascontiguousarray(value).view(np.uint64)
            shown = value.tolist() if not np.isnan(value).any() else [f"{w:x}" for w in words.flat]
            return (str(value.dtype), value.shape, shown, str(np.signbit(value).tolist()))
        return (str(value.dtype), value.shape, repr(value.tolist()))
    if isinstance(value, dict):
        return {key: bits(item) for key, item in value.items()}
    return (type(value).__name__, repr(value))


class LoggingFunction:
    def __init__(self, name: str, case: FunctionCase, log: Log, context: Any) -> None:
        self.name, self.case, self.log, self.context = name, case, log, context
        self.memory = Memory()
        if case.arity:
            self.arity = 1

    @property
    def stateful(self) -> bool:
        self.log.append(("stateful", self.name))
        return self.case.stateful

    @property
    def window(self) -> int:
        self.log.append(("window", self.name))
        return 3

    def get_state(self) -> dict[str, int]:
        self.log.append(("get_state", self.name))
        return {"count": self.memory.calls}

    def __call__(self, *rows: Any, **keywords: Any) -> Any:
        context = self.context()
        kept = [bits(row) for row in self.memory.kept]
        self.log.append(
            (
                "call",
                self.name,
                [(bits(row), row.flags.owndata, row.flags.writeable) for row in rows],
                {
                    key: bits(value) if isinstance(value, np.ndarray) else value is context
                    for key, value in keywords.items()
                },
                context.current_day_index,
                bits(context.registers),
                kept,
            )
        )
        if rows and rows[0].ndim == 2:  # the block of a reduction, a signal in each row
            rows = tuple(rows[0])
        try:
            return act(self.case.action, self.case.faulty_row, rows, self.memory)
        finally:
            self.memory.calls += 1


class LoggingRegistry:
    def __init__(self, functions: dict[str, FunctionCase], log: Log, context: Any) -> None:
        self.functions, self.log, self.context = functions, log, context

    def has(self, name: str) -> bool:
        self.log.append(("has", name))
        return name in self.functions and self.functions[name].known

    def has_factory(self, name: str) -> bool:
        self.log.append(("has_factory", name))
        return True

    def get_entry(self, name: str) -> Any:
        self.log.append(("get_entry", name))
        case = self.functions[name]
        attributes: dict[str, Any] = {"stateful": case.stateful}
        if case.family is not None:
            attributes["family"] = case.family
        if case.parameters is not None:
            attributes["param_schema"] = [
                {"name": parameter, "type": kind} for parameter, kind in case.parameters
            ]
        return SimpleNamespace(**attributes)

    def create_instance(self, name: str, **config: Any) -> Any:
        self.log.append(("create_instance", name, list(config.items())))
        return LoggingFunction(name, self.functions[name], self.log, self.context)

    def create_instance_from_state(self, name: str, restore_state: Any, **config: Any) -> Any:
        self.log.append(("restore", name, restore_state, list(config.items())))
        return LoggingFunction(name, self.functions[name], self.log, self.context)


def build_graph(case: NodeCase) -> FunctionGraphNode:
    children: Any = [build_graph(child) for child in case.children]
    if case.children_as == "tuple":
        children = tuple(children)
    elif case.children_as == "None if empty" and not children:
        children = None
    config = None if case.config is None else dict(case.config)
    node = FunctionGraphNode(type=case.kind, node=case.value, children=children, config=config)
    if case.canonical_id is not None:
        node.canonical_id = case.canonical_id
    if case.state_identity is not None:
        node._state_identity = case.state_identity
    return node


def build_matrix(case: MatrixCase, columns: int) -> np.ndarray:
    width = len(case.rows[0]) if case.rows else columns
    matrix = np.array(case.rows, dtype=np.float64).reshape(len(case.rows), width)
    with np.errstate(all="ignore"):
        matrix = matrix.astype(case.dtype)
    if case.layout == "F":
        return np.asfortranarray(matrix)
    if case.layout == "reversed":
        return matrix[::-1, ::-1].copy()[::-1, ::-1]
    if case.layout == "strided":
        return np.repeat(np.repeat(matrix, 2, axis=0), 3, axis=1)[::2, ::3]
    if case.layout == "read-only":
        matrix.flags.writeable = False
    return matrix


def build_signal(case: SignalCase, columns: int) -> UsefulSignal:
    pnl = None if case.pnl is None else build_matrix(case.pnl, len(PNL_COLUMNS))
    return UsefulSignal(build_matrix(case.weights, columns), pnl, {"sharpe": case.sharpe})


def build_bound(case: RunCase, log: Log, context: Any) -> dict[str, Any] | None:
    if case.bound == "no":
        return None
    functions = dict(case.functions)
    instances: dict[str, Any] = {
        path: LoggingFunction(path, functions[node.value], log, context)
        for path, node in case.graph.paths_of(("rotation", "reduction"))
    }
    if case.bound == "none":
        return {}
    fault, _, path = case.bound.rpartition(" ")
    if fault == "without":
        del instances[path]
    elif fault == "None at":
        instances[path] = None
    return instances


def describe_error(error: BaseException | None) -> Any:
    if error is None:
        return None
    return (
        f"{type(error).__module__}.{type(error).__qualname__}",
        str(error),
        getattr(error, "filter_diagnostics", None),
        describe_error(error.__cause__),
        describe_error(error.__context__),
        error.__suppress_context__,
    )


def describe_cache(graph: FunctionGraphNode) -> Any:
    record = getattr(graph, "_collect_nodes_cache", None)
    if record is None:
        return None
    info = {
        path: {
            key: sorted(value) if isinstance(value, set) else repr(value)
            for key, value in entry.items()
            if key != "children"
        }
        for path, entry in record["node_info"].items()
    }
    others = {
        key: list(table.items()) if key != "filtration_nodes" else list(table)
        for key, table in record.items()
        if key != "node_info"
    }
    return (info, list(info), sorted(others), repr(sorted(others.items())))


def observe(evaluator: ModuleType, case: RunCase) -> dict[str, Any]:
    """What the runs of a case give and raise, ask of the host, and leave behind."""
    log: Log = []
    holder: list[Any] = []
    features = [(name, build_matrix(matrix, case.shape[1])) for name, matrix in case.features]
    observed: dict[str, Any] = {}

    def the_context() -> Any:
        return holder[0]

    registry = LoggingRegistry(dict(case.functions), log, the_context) if case.registry else None
    try:
        context = evaluator.EvaluationContext(
            tuple(matrix for _, matrix in features),
            {name: position for position, (name, _) in enumerate(features)},
            registry=registry,
            universe=(
                None if case.universe is None else build_matrix(case.universe, case.shape[1])
            ),
            useful_signals={
                name: build_signal(signal, case.shape[1]) for name, signal in case.pool
            },
            column_labels=list(PNL_COLUMNS),
            signal_pnl_vectors=(
                None
                if case.pnl_vectors is None
                else {name: dict(values) for name, values in case.pnl_vectors}
            ),
            validate_inputs=case.validate,
        )
    except EvaluationError as error:
        return {"construction": describe_error(error)}
    holder.append(context)
    context._precomputed_node_outputs = None if case.precomputed is None else dict(case.precomputed)
    if case.collect is not None:
        context._collect_node_outputs = case.collect
    if case.collect_states is not None:
        context._collect_states = case.collect_states
    graph = build_graph(case.graph)
    bound = build_bound(case, log, the_context)
    for run in range(case.runs):
        observed[f"run {run}"] = _run_once(evaluator, case, graph, context, bound)
        observed[f"context after run {run}"] = {
            "current_day_index": context.current_day_index,
            "registers": bits(context.registers),
            "extraction_buffer": bits(context.extraction_buffer),
            "universe_mask": bits(context.universe_mask),
            "feature_index": context.feature_index,
            "attributes": sorted(vars(context)),
            "cache": describe_cache(graph),
        }
    observed["features"] = [bits(matrix) for _, matrix in features]
    observed["calls"] = log
    return observed


def _run_once(
    evaluator: ModuleType, case: RunCase, graph: FunctionGraphNode, context: Any, bound: Any
) -> Any:
    states = None if case.states is None else dict(case.states)
    with warnings.catch_warnings(record=True) as caught, capture_logs() as events:
        warnings.simplefilter("always")
        try:
            result = evaluator.evaluate(
                graph,
                context,
                states,
                case.cold,
                bound_function_instances=bound,
                data_nan_features=case.nan_features,
            )
        except BaseException as error:  # noqa: BLE001 - interrupts are compared too
            outcome: Any = {"error": describe_error(error)}
        else:
            outcome = {
                "weights": bits(result.weights),
                "states": list(result.states.items()),
                "nan_source": list(result.nan_source.items()),
                "node_outputs": [(path, bits(rows)) for path, rows in result.node_outputs.items()],
            }
    outcome["events"] = [
        {key: value for key, value in event.items() if key != "instance_id"} for event in events
    ]
    outcome["warnings"] = [(w.category.__name__, str(w.message)) for w in caught]
    return outcome


def differences(left: Any, right: Any, where: str = "") -> list[str]:
    """Where two observations differ, the first few places."""
    if type(left) is type(right) and isinstance(left, dict) and left.keys() == right.keys():
        return [
            found for key in left for found in differences(left[key], right[key], f"{where}/{key}")
        ]
    if type(left) is type(right) and isinstance(left, (list, tuple)):
        found = [
            difference
            for index, (one, other) in enumerate(zip(left, right, strict=False))
            for difference in differences(one, other, f"{where}[{index}]")
        ]
        if len(left) != len(right):
            found.append(f"{where}: {len(left)} items against {len(right)}")
        return found
    if left == right and type(left) is type(right):
        return []
    return [f"{where}: {left!r}  is not  {right!r}"]


def require_agreement(reference: ModuleType, evaluator: ModuleType, case: RunCase) -> None:
    found = differences(observe(reference, case), observe(evaluator, case))
    shown = "\n  ".join(found[:5])
    assert not found, f"reference and {evaluator.__name__} disagree on\n{case!r}\nat\n  {shown}"
