"""What ends a run before it tries any road."""

from __future__ import annotations

import sys
from collections.abc import Iterator

from quernbrook.reference_host import Fault
from quernbrook.reference_host.entries import ENGINE_ONLY
from quernbrook.workbench.explanation.inputs import Inputs, evaluator
from quernbrook.workbench.graphs import FUNCTIONS


def preflight_faults(run: Inputs) -> Iterator[Fault]:
    yield from _depth_faults(run)
    for path, node in run.nodes.items():
        if node.type not in FUNCTIONS:
            continue
        keys = set(node.config or ())
        if engine_only := keys & ENGINE_ONLY:
            joined = ", ".join(sorted(engine_only))
            yield Fault(path, f"config contains engine-only parameter(s): {joined}")
        if run.registry is None or not run.registry.has(node.node):
            continue
        try:
            entry = run.registry.get_entry(node.node)
        except Exception as error:  # noqa: BLE001 - a run fails with it
            text = f"{type(error).__name__}: {error}"
            yield Fault(path, f"the registry's entry of '{node.node}' can't be had: {text}")
            continue
        allowed = evaluator._preflight_param_schema_names(entry)
        is_strict = getattr(entry, "family", "") == "virtualization"
        if is_strict and allowed and (unknown := keys - allowed):
            joined = ", ".join(sorted(map(str, unknown)))
            yield Fault(path, f"config contains unknown parameter(s): {joined}")


def _depth_faults(run: Inputs) -> Iterator[Fault]:
    try:
        evaluator._compute_graph_warmup_rows(run.graph, None)
    except RecursionError:
        limit = f"the interpreter's recursion limit, {sys.getrecursionlimit():,}"
        text = f"the graph nests too deeply: the evaluator goes as deep as {limit}"
        yield Fault("root", f"{text}; raise it with sys.setrecursionlimit")
