"""A pending transform pipeline, merged into a copy of the graph with state keys kept."""

from typing import Any

import reference_evaluator as module

from ..expression_evaluator.run_state import Run


def merge_transforms(run: Run) -> None:
    context = run.context
    if not context.transform_pipeline or getattr(context, "transforms_already_combined", False):
        return
    graph = module.deepcopy(run.graph)
    module.invalidate_graph_evaluation_caches(graph)
    # Ahead of the merge, so that the keys describe the signal as it stands without transforms.
    module._annotate_state_identities(graph)
    graph = module.combine_signal_and_transforms(
        graph,
        context.transform_pipeline,
        context.metaparameters,
        context.registry,
        context,
    )
    module.invalidate_graph_evaluation_caches(graph)
    context.transform_pipeline = []
    run.graph = graph


def _annotate_state_identities(node: Any, path: str = "root") -> None:
    """Preserve clear-graph state keys after transforms wrap the graph."""
    if module._require_graph_type_value(node, path) in ("rotation", "reduction"):
        module._graph_cache_set(node, "_state_identity", path)
    for idx, child in enumerate(module._graph_children(node)):
        module._annotate_state_identities(child, f"{path}.c{idx}")
