"""An explanation for a terminal."""

from __future__ import annotations

from collections.abc import Iterator

from quernbrook.workbench.explanation.records import (
    ExplainedRun,
    NodeExplanation,
    Setting,
    SignalUse,
    Warmup,
)
from quernbrook.workbench.explanation.shown import shown
from quernbrook.workbench.graphs import LITERALS
from rich.console import Group, RenderableType
from rich.table import Table
from rich.text import Text

_ORIGINS = {"own": "", "default": "default"}
_MOST_NAMES = 5


def table_of(explanation: ExplainedRun) -> Group:
    return Group(*_parts(explanation))


def _parts(explanation: ExplainedRun) -> Iterator[RenderableType]:
    yield _facts(explanation)
    if explanation.roads:
        yield _roads(explanation)
    if explanation.nodes:
        yield _nodes(explanation)
    if explanation.features:
        yield _features(explanation)
    if explanation.signals:
        yield _signals(explanation)
    if explanation.faults:
        yield _faults(explanation)


def _facts(explanation: ExplainedRun) -> Table:
    facts = Table.grid(padding=(0, 2))
    facts.add_column(style="bold")
    facts.add_column(overflow="fold")

    def add(name: str, text: str) -> None:
        facts.add_row(name, Text(text))

    if explanation.rows or explanation.columns:
        add("matrix", f"{explanation.rows:,} rows by {explanation.columns:,} columns")
    add("road", _road(explanation))
    if explanation.road == "rows":
        strips = sum(node.step == "strip" for node in explanation.nodes)
        add("strips", f"{strips:,} of {len(explanation.nodes):,} nodes")
    if explanation.nodes:
        add("warm-up", _warmup(explanation.warmup))
        add("calls", f"{explanation.calls:,} into Python")
        add("memory", _bytes(explanation.memory.total))
    add("faults", str(len(explanation.faults)) if explanation.faults else "none")
    return facts


def _bytes(count: int) -> str:
    return f"{count / 2**20:,.1f} MiB" if count >= 2**20 else f"{count / 2**10:,.1f} KiB"


def _road(explanation: ExplainedRun) -> str:
    if explanation.road is None:
        return "none: the run would fail before it takes any"
    if explanation.road == "rows":
        return "row by row, or in strips"
    road = next(road for road in explanation.roads if road.name == explanation.road)
    gives_way = "" if road.condition is None else f"; not where {road.condition}"
    return f"{road.name}, whole matrices at once{gives_way}"


def _warmup(warmup: Warmup) -> str:
    text = f"{warmup.rows:,} rows"
    if warmup.rows_seen:
        text += f": {warmup.total:,} less {warmup.rows_seen:,} seen"
    if not warmup.sources:
        return text
    parts = (f"{one.rows:,} of {one.function} at {one.path}" for one in warmup.sources)
    return f"{text}: {' + '.join(parts)}"


def _roads(explanation: ExplainedRun) -> Table:
    table = _table("Fast roads", "road", "first test that declines it", "with")
    for road in explanation.roads:
        test = "open" if road.refusal is None else road.refusal.test
        value = "" if road.refusal is None else road.refusal.value
        table.add_row(road.name, Text(test), Text(value))
    return table


def _nodes(explanation: ExplainedRun) -> Table:
    table = _table("Nodes", "node", "path", "settings", "state", "warm-up", "runs", "because")
    by_path = {node.path: node for node in explanation.nodes}
    pending = [("root", 0)]
    while pending:
        path, depth = pending.pop()
        node = by_path[path]
        table.add_row(
            Text("  " * depth + node.label),
            path,
            Text(", ".join(map(_setting, node.settings))),
            Text((node.state_key or "") if node.is_stateful else ""),
            f"{node.warmup_rows:,}" if node.warmup_rows else "",
            "" if node.kind in LITERALS else _step(node),
            Text("" if node.kind in LITERALS else node.reason or ""),
        )
        pending += [(child, depth + 1) for child in reversed(node.children)]
    return table


def _step(node: NodeExplanation) -> str:
    return {"road": "fast road", "strip": "strips", "row": "row by row"}[node.step]


def _setting(setting: Setting) -> str:
    origin = _ORIGINS.get(setting.origin, f"{setting.origin} {setting.path}")
    return f"{setting.name}={shown(setting.value)}" + (f" ({origin})" if origin else "")


def _features(explanation: ExplainedRun) -> Table:
    table = _table("Features", "feature", "place", "dtype", "nodes", "")
    for use in explanation.features:
        notes = ["stage data"] * use.is_stage_data + ["counts as missing data"] * use.is_marked
        name = Text(use.name)
        table.add_row(name, str(use.place), use.dtype, f"{use.node_count:,}", ", ".join(notes))
    return table


def _signals(explanation: ExplainedRun) -> Table:
    table = _table("Signals", "reduction", "filter", "passing", "signals")
    for use in explanation.signals:
        table.add_row(use.path, "", f"{len(use.passing):,} of {use.pool_size:,}", Text(_ids(use)))
        for step in use.steps:
            table.add_row("", Text(step.description), f"{step.passing_count:,}", "")
    return table


def _ids(use: SignalUse) -> str:
    more = len(use.passing) - _MOST_NAMES
    return ", ".join(use.passing[:_MOST_NAMES]) + (f" and {more:,} more" if more > 0 else "")


def _faults(explanation: ExplainedRun) -> Table:
    table = _table("Faults", "at", "fault", "nearest")
    for fault in explanation.faults:
        table.add_row(Text(fault.path), Text(fault.text), Text(fault.suggestion or ""))
    return table


def _table(title: str, *columns: str) -> Table:
    table = Table(title=title, title_justify="left", title_style="bold", box=None, pad_edge=False)
    for column in columns:
        table.add_column(column, overflow="fold", header_style="dim")
    return table
