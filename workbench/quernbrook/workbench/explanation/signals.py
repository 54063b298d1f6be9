"""The signals that each reduction gets."""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

from quernbrook.functions.filtrations_evaluation import FilterNode, describe, passing_ids
from quernbrook.workbench.explanation.inputs import Inputs, evaluator
from quernbrook.workbench.explanation.records import FilterStep, SignalUse


def signals_of(run: Inputs) -> dict[str, SignalUse]:
    """By the reduction's path. Filters are tried on the pool; none passes those that fail, which
    the faults tell of."""
    pool = run.context.useful_signals or {}
    found = {}
    for path, node in run.nodes.items():
        if node.type != "reduction":
            continue
        children = enumerate(node.children or ())
        place = next((i for i, child in children if child.type == "filtration"), None)
        if place is None:
            found[path] = SignalUse(path, None, len(pool), tuple(sorted(pool)), ())
            continue
        filter_path = f"{path}.c{place}"
        passing, steps = _passing(run, run.nodes[filter_path], pool)
        found[path] = SignalUse(path, filter_path, len(pool), passing, steps)
    return found


def _passing(run: Inputs, node: Any, pool: Any) -> tuple[tuple[str, ...], tuple[FilterStep, ...]]:
    try:
        tree = evaluator._dict_to_filter_node(node)
        steps = tuple(_steps(tree, pool))
        passing = evaluator.FiltrationInstance(tree, run.registry)(pool)
    except Exception:  # noqa: BLE001 - a fault of its own
        return (), ()
    return tuple(passing), steps


def _steps(tree: FilterNode, pool: Any) -> Iterator[FilterStep]:
    yield FilterStep(describe(tree), len(passing_ids(tree, pool)))
    for child in tree.children:
        yield from _steps(child, pool)
