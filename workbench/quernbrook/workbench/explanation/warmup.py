"""The rows that a run blanks at its beginning, and the functions that they come from."""

from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host.warmup import adds_warmup, warmup_rows_by_path, window_of
from quernbrook.workbench.explanation.functions import Function
from quernbrook.workbench.explanation.inputs import Inputs, evaluator
from quernbrook.workbench.explanation.records import Warmup, WarmupSource

_PASSED_OVER = frozenset({"int", "float", "string"})


def rows_by_path(run: Inputs) -> Mapping[str, int]:
    """Each node's warm-up rows, as if it were the root."""
    if run.registry is None:
        return dict.fromkeys(run.nodes, 0)
    try:
        return warmup_rows_by_path(run.graph, run.registry)
    except Exception:  # noqa: BLE001 - a fault of its own: a registry that fails
        return dict.fromkeys(run.nodes, 0)


def find_warmup(
    run: Inputs,
    functions: Mapping[str, Function],
    by_path: Mapping[str, int],
    prefill: Mapping[str, int],
    is_fast: bool,
) -> Warmup:
    if is_fast or run.bound:
        return Warmup(0, 0, 0, ())
    try:
        total = int(evaluator._compute_graph_warmup_rows(run.graph, run.registry))
    except Exception:  # noqa: BLE001 - a fault of its own: too deep, or a registry that fails
        return Warmup(0, 0, 0, ())
    counts = (
        _count(function.state) + prefill.get(path, 0)
        for path, function in functions.items()
        if function.is_stateful
    )
    rows_seen = max(counts, default=0)
    sources = tuple(_sources(run, by_path)) if total else ()
    return Warmup(max(total - rows_seen, 0), total, rows_seen, sources)


def prefill_rows(run: Inputs, functions: Mapping[str, Function]) -> dict[str, int]:
    """The rows that each reduction is shown before the first one, on a cold start."""
    if not run.cold or run.states is None:
        return {}
    found = {}
    for path, function in functions.items():
        if function.kind != "reduction" or not function.is_stateful or not function.state:
            continue
        window = function.state.get("window", getattr(function.instance, "window", 0))
        lacking = int(window) - _count(function.state)
        if lacking > 0:
            found[path] = min(lacking, run.shape[0])
    return found


def _sources(run: Inputs, by_path: Mapping[str, int]) -> Iterator[WarmupSource]:
    path = "root"
    while by_path[path] > 0:
        node = run.nodes[path]
        own = max(window_of(node, run.registry) - 1, 0)
        if own:
            yield WarmupSource(path, node.node, own)
        below = [child for child in _children(path, node) if not own or adds_warmup(node, child[1])]
        if not below:
            return
        path = max(below, key=lambda child: by_path[child[0]])[0]


def _children(path: str, node: Node) -> Iterator[tuple[str, Node]]:
    for i, child in enumerate(node.children or ()):
        if child.type not in _PASSED_OVER:
            yield f"{path}.c{i}", child


def _count(state: Any) -> int:
    try:
        return int(state.get("count", 0)) if state else 0
    except (TypeError, ValueError):
        return 0
