"""The filtration that a reduction's pool of signals passes through."""

from __future__ import annotations

from typing import Any

from quernbrook.functions.filtrations_evaluation import (
    EmptyFiltrationError,
    EmptyPoolError,
    FilterNode,
    Pool,
    describe,
    passing_ids,
    require_valid,
)
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol


class FiltrationInstance:
    """A filter tree ready to be called with a pool of signals.

    `registry` is kept for filters that look functions up; the operators of this library need
    none. Raises InvalidFilterError for a tree that no pool could make valid.
    """

    def __init__(self, filter_tree: FilterNode, registry: RegistryProtocol | None) -> None:
        require_valid(filter_tree)
        self.filter_tree = filter_tree
        self.registry = registry

    def __call__(self, useful_signals: Pool) -> list[str]:
        """Return the ids that pass, sorted.

        Raises EmptyPoolError for a pool without signals and EmptyFiltrationError when none
        passes, both with ``filter_diagnostics``.
        """
        if not useful_signals:
            raise EmptyPoolError("no signals to filter", {"passing_count": 0, "total_pool_size": 0})
        ids = passing_ids(self.filter_tree, useful_signals)
        if not ids:
            raise EmptyFiltrationError(
                f"none of {len(useful_signals)} signals passes {describe(self.filter_tree)}",
                {
                    "passing_count": 0,
                    "total_pool_size": len(useful_signals),
                    "filters": _passing_counts(self.filter_tree, useful_signals),
                },
            )
        return sorted(ids)


def _passing_counts(node: FilterNode, pool: Pool) -> list[dict[str, Any]]:
    """How many signals pass each filter of the tree, outermost first."""
    counts = [{"filter": describe(node), "passing_count": len(passing_ids(node, pool))}]
    for child in node.children:
        counts += _passing_counts(child, pool)
    return counts
