"""The arguments of a run, prepared as a run prepares them, on copies."""

from __future__ import annotations

import copy
from collections.abc import Collection, Mapping
from dataclasses import dataclass
from functools import cached_property
from typing import TYPE_CHECKING, Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.binding import merge_transforms
from quernbrook.simulator_engine import expression_evaluator

if TYPE_CHECKING:
    import pandas as pd

# Its own tests and readers, which its stub leaves out: with them an explanation can't disagree
# with a run.
evaluator: Any = expression_evaluator


class ExplanationError(ValueError):
    """A row that can't be shown; the message says why."""


@dataclass(frozen=True)
class Inputs:
    """What reaches the fast roads, and from there the row loop.

    graph: with the transforms laid around it.
    context: a copy; the features of stage data are on it.
    stage_features: the names of those.
    dates: those of the rows, where a panel was explained.
    """

    graph: Node
    context: Any
    bound: Mapping[str, Any] | None
    states: Mapping[str, Any] | None
    cold: bool
    missing: Collection[str] | None
    dates: pd.DatetimeIndex | None
    stage_features: frozenset[str]

    @property
    def registry(self) -> Any:
        return self.context.registry

    @cached_property
    def nodes(self) -> dict[str, Node]:
        """By path, in the order in which they run: children first."""
        found: dict[str, Node] = {}
        pending = [("root", self.graph)]
        while pending:
            path, node = pending.pop()
            found[path] = node
            pending += [(f"{path}.c{i}", child) for i, child in enumerate(node.children or ())]
        return dict(reversed(found.items()))

    @cached_property
    def shape(self) -> tuple[int, int]:
        rows, columns = self.context.features[0].shape
        return int(rows), int(columns)

    def state_key(self, path: str) -> str:
        return state_key(self.nodes[path], path)

    def is_precomputed(self, path: str) -> bool:
        identity = getattr(self.nodes[path], "canonical_id", None)
        outputs = getattr(self.context, "_precomputed_node_outputs", None)
        return identity is not None and outputs is not None and identity in outputs

    def may_be_precomputed(self, path: str) -> bool:
        """Whether only code of the host's could tell."""
        identity = getattr(self.nodes[path], "canonical_id", None)
        if identity is None:
            return False
        outputs = getattr(self.context, "_precomputed_node_outputs", None)
        return type(identity) is not str or type({} if outputs is None else outputs) is not dict


def state_key(node: Node, path: str) -> str:
    key: str = getattr(node, "_state_identity", path)
    return key


def prepared(graph: Node, context: Any, registry: Any, **others: Any) -> Inputs:
    """Lay transforms and stage data on copies.

    Raises what the merge of transforms raises.
    """
    copied = copy.copy(context)
    copied.registry = registry
    merged = merge_transforms(graph, registry, copied)
    if merged is not graph:
        copied.transform_pipeline = []
    copied.feature_index = copy.copy(context.feature_index)
    evaluator._attach_stage_data_feature_leaves(merged, copied)
    attached = frozenset(set(copied.feature_index) - set(context.feature_index))
    return Inputs(merged, copied, stage_features=attached, **others)
