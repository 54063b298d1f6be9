"""The transform merge: a signal graph and its pipeline become one graph."""

from __future__ import annotations

import copy
from collections.abc import Mapping, Sequence
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
from quernbrook.simulator_engine._types import EvaluationError, TransformStage

_STATE_KEYED_KINDS = frozenset({"rotation", "reduction"})


def combine_signal_and_transforms(
    graph: FunctionGraphNode,
    transform_pipeline: Sequence[TransformStage],
    metaparameters: Mapping[str, Any],
    registry: RegistryProtocol | None,
    context: Any,
) -> FunctionGraphNode:
    """Lay the chosen option of each stage around `graph`, the first stage innermost.

    The signal's own nodes are used as they are, so a state identity stamped on them stays. The
    functions that a stage adds get identities of their own, "{stage}.root...": without one they
    would be keyed by a path that the signal's functions had before they were wrapped.

    Raises EvaluationError for an option that its stage doesn't have, and for two stages of one
    name, whose functions would share their states.
    """
    names = [stage.name for stage in transform_pipeline]
    if len(set(names)) < len(names):
        raise EvaluationError(f"Transform stages must have different names; got {names}")
    for stage in transform_pipeline:
        template = _chosen_template(stage, metaparameters, getattr(context, "pool_id", None))
        if template is not None:
            graph = _wrap(template, graph, f"{stage.name}.root")
    return graph


def _chosen_template(
    stage: TransformStage, metaparameters: Mapping[str, Any], pool_id: str | None
) -> FunctionGraphNode | None:
    option = _chosen_option(stage, metaparameters, pool_id)
    if option is None:
        return None
    if option not in stage.options:
        raise EvaluationError(
            f"Transform stage '{stage.name}' has no option '{option}'; "
            f"options: {', '.join(sorted(stage.options))}"
        )
    return stage.options[option]


def _chosen_option(
    stage: TransformStage, metaparameters: Mapping[str, Any], pool_id: str | None
) -> str | None:
    """A setting for the stage wins over one for the pool, and that over the stage's default."""
    if stage.name in metaparameters:
        return metaparameters[stage.name]
    pool = metaparameters.get(pool_id) if pool_id is not None else None
    if isinstance(pool, Mapping) and stage.name in pool:
        return pool[stage.name]
    return stage.default


def _wrap(template: FunctionGraphNode, signal: FunctionGraphNode, path: str) -> FunctionGraphNode:
    if template.type == "signal":
        return signal
    node = copy.copy(template)
    if node.children:
        node.children = [
            _wrap(child, signal, f"{path}.c{i}") for i, child in enumerate(node.children)
        ]
    if node.type in _STATE_KEYED_KINDS:
        node._state_identity = path
    return node
