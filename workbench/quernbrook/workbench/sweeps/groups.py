"""Which runs go to one worker in one call: those whose graphs share parts."""

from __future__ import annotations

import json
import re
from collections import Counter
from collections.abc import Iterable, Iterator
from itertools import groupby
from typing import Any

from quernbrook.workbench.sweeps import hashes
from quernbrook.workbench.sweeps.work import Group, Slice, Task

# What the matrices of a call may take, so that workers stay small.
_BYTES_AT_ONCE = 96 * 2**20
_MOST_AT_ONCE = 100
# So many calls a worker at least, that none waits long for the last one.
_CALLS_A_WORKER = 8
_BRACKETS = re.compile(r"[\w.]*\(|\)")


def grouped(
    tasks: Iterable[tuple[Task, Slice]], column_count: int, worker_count: int
) -> list[Group]:
    """Put runs with the largest part in common next to each other, and cut that into calls."""
    work = list(tasks)
    parts = [_parts(task) for task, _ in work]
    shared = Counter(part for found in parts for part in found)
    keys = []
    for (task, cut), found in zip(work, parts, strict=True):
        common = max((part for part in found if shared[part] > 1), key=_size, default="")
        keys.append((_order(cut), hashes.of_document(task.options), common))
    order = sorted(range(len(work)), key=lambda place: keys[place])
    fair = -(-len(work) // (worker_count * _CALLS_A_WORKER))
    groups = []
    for _, places in groupby(order, key=lambda place: keys[place][:2]):
        same = [work[place] for place in places]
        cut = same[0][1]
        fitting = _BYTES_AT_ONCE // (8 * cut.cells(column_count))
        count = max(1, min(fitting, fair, _MOST_AT_ONCE))
        groups += [
            Group(tuple(task for task, _ in same[start : start + count]), cut)
            for start in range(0, len(same), count)
        ]
    return groups


def _order(cut: Slice) -> tuple[Any, ...]:
    return cut.rows, cut.columns or (), cut.universe or ""


def _size(part: str) -> tuple[int, str]:
    return len(part), part


def _parts(task: Task) -> set[str]:
    """The calls in a formula, or the nodes with children in a graph."""
    if task.is_formula:
        return set(_calls("".join(task.text.split())))
    try:
        return set(_subgraphs(json.loads(task.text)["graph"]))
    except (AttributeError, KeyError, TypeError):
        # It is no graph, which its worker will tell.
        return set()


def _calls(formula: str) -> Iterator[str]:
    starts: list[int] = []
    for found in _BRACKETS.finditer(formula):
        if found[0] != ")":
            starts.append(found.start())
        elif starts:
            yield formula[starts.pop() : found.end()]


def _subgraphs(graph: dict[str, Any]) -> Iterator[str]:
    pending = [graph]
    while pending:
        node = pending.pop()
        if node.get("children"):
            yield json.dumps(node, sort_keys=True)
            pending += node["children"]
