"""Before anything runs: what a run would do."""

from __future__ import annotations

from collections.abc import Collection, Iterator, Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import Fault, default_registry
from quernbrook.reference_host.checks.places import read_graph
from quernbrook.workbench.explanation.costs import calls_of, find_memory
from quernbrook.workbench.explanation.explanation import Explanation
from quernbrook.workbench.explanation.faults import (
    data_faults,
    feature_faults,
    graph_faults,
    instance_faults,
    without_needless,
)
from quernbrook.workbench.explanation.functions import Function, functions_of
from quernbrook.workbench.explanation.inputs import ExplanationError, Inputs, prepared
from quernbrook.workbench.explanation.preflight import preflight_faults
from quernbrook.workbench.explanation.records import (
    FeatureUse,
    Memory,
    NodeExplanation,
    Road,
    SignalUse,
    Step,
    Warmup,
)
from quernbrook.workbench.explanation.roads import find_roads
from quernbrook.workbench.explanation.shown import shown
from quernbrook.workbench.explanation.signals import signals_of
from quernbrook.workbench.explanation.strips import strip_reasons
from quernbrook.workbench.explanation.warmup import find_warmup, prefill_rows, rows_by_path
from quernbrook.workbench.graphs import LEAVES
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels import Panel

_ON_NO_ROAD = "rows"


def explain(
    graph: Node,
    context_or_panel: Any,
    registry: Any = None,
    *,
    bound: Mapping[str, Any] | None = None,
    states: Mapping[str, Any] | None = None,
    cold: bool = False,
    data_nan_features: Collection[str] | None = None,
    universe: str | None = None,
) -> Explanation:
    """Return what a run with these arguments would do, without running it.

    context_or_panel: an EvaluationContext, or a Panel, of which a context is made.
    registry: goes before that of the context; a panel without one gets `default_registry()`.
    universe: of a panel, the field where 0 and NaN mask all features, or None.
    bound, states, cold, data_nan_features: what `evaluate` takes as ``bound_function_instances``,
        ``function_states``, ``is_cold_start`` and ``data_nan_features``.

    The registry makes instances, two of each function at most, and each is asked once for its
    kernel, as in a run. No function is called with rows. Filters are tried on the pool. Graph,
    context, states and bound instances stay as they are.

    Faults don't raise. Raises ExplanationError for a universe that isn't a field of a panel, and
    what the registry itself raises where it is asked for a name.
    """
    dates = None
    if isinstance(context_or_panel, Panel):
        registry = default_registry() if registry is None else registry
        context, dates = context_or_panel.context(registry), context_or_panel.dates
        if universe is not None:
            context.universe = _field(context_or_panel, universe)
    elif universe is not None:
        raise ExplanationError("universe names a field of a panel; a context has its own universe")
    else:
        context = context_or_panel
        registry = context.registry if registry is None else registry
    faults = graph_faults(graph, context, registry, bound, states, data_nan_features)
    faults += (data := list(data_faults(context)))
    if data or read_graph(graph, "root")[1] or not len(context.features):
        return _unreadable(faults)
    try:
        run = prepared(
            graph,
            context,
            registry,
            bound=bound,
            states=states,
            cold=cold,
            missing=data_nan_features,
            dates=dates,
        )
        run.shape  # noqa: B018 - whatever is read of the context is readable
    except Exception as error:  # noqa: BLE001 - a run fails with it, or with a fault that is told
        return _unreadable(faults or [Fault("context", f"{type(error).__name__}: {error}")])
    return _explain(run, faults)


def _field(panel: Panel, name: str) -> Any:
    if name not in panel.fields:
        raise ExplanationError(f"unknown field '{name}'{suggestion(name, panel.fields)}")
    return panel.fields[name]


def _unreadable(faults: list[Fault]) -> Explanation:
    nothing = Memory(0, 0, 0, 0, 0)
    warmup = Warmup(0, 0, 0, ())
    return Explanation(0, 0, None, (), (), warmup, (), (), nothing, 0, tuple(faults), None)


def _explain(run: Inputs, faults: list[Fault]) -> Explanation:
    ends_at_once = list(preflight_faults(run))
    roads = find_roads(run)
    road = None if ends_at_once else _taken(roads)
    is_fast = road not in (_ON_NO_ROAD, None)
    faults = without_needless(faults, run, road)
    told = {fault.path for fault in faults}
    faults = [*(fault for fault in ends_at_once if fault.path not in told), *faults]
    functions = functions_of(run)
    signals = signals_of(run)
    if not is_fast:
        faults += feature_faults(run)
        faults += instance_faults(functions, faults)
    prefill = {} if is_fast else prefill_rows(run, functions)
    warmup_by_path = rows_by_path(run)
    nodes = tuple(_nodes(run, functions, signals, warmup_by_path, prefill, is_fast))
    calls = sum(1 if node.calls is None else node.calls for node in nodes)
    return Explanation(
        *run.shape,
        road,
        roads,
        nodes,
        find_warmup(run, functions, warmup_by_path, prefill, is_fast),
        tuple(_features(run)),
        tuple(signals.values()),
        find_memory(run, road),
        calls + sum(prefill.values()),
        tuple(faults),
        run,
    )


def _taken(roads: tuple[Road, ...]) -> str | None:
    for road in roads:
        if road.is_open:
            return road.name
        if road.refusal is not None and road.refusal.test == "its test fails":
            return None
    return _ON_NO_ROAD


def _nodes(
    run: Inputs,
    functions: Mapping[str, Function],
    signals: Mapping[str, SignalUse],
    warmup: Mapping[str, int],
    prefill: Mapping[str, int],
    is_fast: bool,
) -> Iterator[NodeExplanation]:
    reasons = {} if is_fast else strip_reasons(run, functions, signals)
    for path, node in run.nodes.items():
        function = functions.get(path)
        reason = reasons.get(path)
        step: Step = "road" if is_fast else "strip" if reason is None else "row"
        yield NodeExplanation(
            path=path,
            kind=node.type,
            label=shown(node.node) if node.type == "string" else str(node.node),
            children=tuple(f"{path}.c{i}" for i, _ in enumerate(node.children or ())),
            settings=() if function is None else tuple(function.configuration.settings.values()),
            state_key=None if function is None else run.state_key(path),
            is_stateful=None if function is None else function.is_stateful,
            step=step,
            reason=reason,
            warmup_rows=warmup[path],
            calls=calls_of(run, function, step, path),
            prefill_rows=prefill.get(path, 0),
            is_precomputed=run.is_precomputed(path),
        )


def _features(run: Inputs) -> Iterator[FeatureUse]:
    counts: dict[str, int] = {}
    for node in run.nodes.values():
        if node.type in LEAVES:
            counts[node.node] = counts.get(node.node, 0) + 1
    for name in sorted(counts):
        place = run.context.feature_index.get(name)
        if place is None:
            continue
        matrix = run.context.features[place]
        yield FeatureUse(
            name,
            place,
            str(matrix.dtype),
            tuple(matrix.shape),
            counts[name],
            name in run.stage_features,
            name in (run.missing or ()),
        )
