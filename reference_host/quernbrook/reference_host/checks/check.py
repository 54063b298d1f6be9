"""All faults of a graph at once, before it runs."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host.binding import is_merge_pending, merge_transforms
from quernbrook.reference_host.checks.arguments import (
    check_bound,
    check_missing_features,
    check_states,
    check_windows,
)
from quernbrook.reference_host.checks.faults import Fault
from quernbrook.reference_host.checks.filters import check_filter, check_pool
from quernbrook.reference_host.checks.functions import check_function
from quernbrook.reference_host.checks.kinds import check_feature, check_kind, check_literal
from quernbrook.reference_host.checks.places import Place, read_graph
from quernbrook.reference_host.checks.stages import (
    check_signal,
    check_stages,
    check_template,
    templates,
)
from quernbrook.reference_host.registry import FunctionRegistry
from quernbrook.simulator_engine._types import EvaluationError


def check_graph(
    graph: FunctionGraphNode,
    registry: FunctionRegistry,
    context: Any,
    function_states: Mapping[str, Any] | None = None,
    *,
    bound_function_instances: Mapping[str, Any] | None = None,
    data_nan_features: Iterable[str] | None = None,
) -> list[Fault]:
    """Return every fault that a run with these arguments would fail on or pass over in silence.

    The graph's own come first, what can't be read and then node by node from the root; then those
    of the pipeline's templates and options and of the other arguments. A sound graph has none.

    An instance of every function is made to see whether that works, and the filters are tried
    on the context's signals. Windows are compared with the rows of the context, unless states or
    bound instances tell that other rows went before. Nothing is changed, and no fault raises.
    """
    root, unreadable = read_graph(graph, "root")
    faults = list(_in_order(root, unreadable, registry, context, in_template=False))
    stages = list(context.transform_pipeline) if is_merge_pending(context) else []
    faults += [] if root is None else check_signal(root, stages)
    for template, found in templates(stages):
        unreadable += found
        faults += _in_order(template, found, registry, context, in_template=True)
        faults += [] if template is None else check_template(template)
    faults += check_stages(stages, context)
    if not len(context.features):
        faults.append(Fault("features", "the context has no features"))
    # What can't be read can't be merged, and no other argument be compared with it.
    merged = None if unreadable else _merged(graph, registry, context)
    if merged is None:
        return faults
    if bound_function_instances is not None:
        faults += check_bound(merged, bound_function_instances)
    if function_states is not None:
        faults += check_states(merged, registry, function_states)
    if data_nan_features is not None:
        faults += check_missing_features(merged, data_nan_features)
    if function_states is None and bound_function_instances is None and len(context.features):
        faults += check_windows(merged, registry, len(context.features[0]))
    return faults


def _in_order(
    root: Place | None,
    unreadable: list[Fault],
    registry: FunctionRegistry,
    context: Any,
    in_template: bool,
) -> Iterator[Fault]:
    yield from unreadable
    for place in () if root is None else root.all():
        yield from check_kind(place, in_template)
        yield from check_literal(place)
        yield from check_feature(place, context)
        yield from check_function(place, registry, context)
        yield from check_filter(place, context)
        yield from check_pool(place, context)


def _merged(
    graph: FunctionGraphNode, registry: FunctionRegistry, context: Any
) -> FunctionGraphNode | None:
    try:
        return merge_transforms(graph, registry, context)
    except (EvaluationError, TypeError):
        return None  # The faults of the stages tell why.
