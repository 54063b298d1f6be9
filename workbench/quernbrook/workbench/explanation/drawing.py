"""The graph of an explanation as a drawing in SVG, from the root on the left to the leaves.

A graph is a tree here, each node in its place, so that places follow from depth and order: no
program of the system's is needed to lay it out, and a thousand nodes take no time.
"""

from __future__ import annotations

import math
import statistics
from collections.abc import Mapping
from dataclasses import dataclass
from xml.etree import ElementTree

from quernbrook.workbench.explanation.records import ExplainedRun, NodeExplanation, RowValue
from quernbrook.workbench.explanation.shown import shown
from quernbrook.workbench.graphs import LITERALS

_CHARACTER, _LINE, _PADDING = 6.7, 15.0, 8.0  # of 11 px in a font of one width
_HEIGHT, _GAP, _LEVEL_GAP, _MARGIN = 38.0, 10.0, 40.0, 16.0
_COLOURS = {"strip": "#cfe3f1", "row": "#f6dfb8", "road": "#d3ead0"}
_LITERAL, _FAULTY, _INK, _FAINT = "#f2f2f2", "#b3261e", "#1f2328", "#6e7781"
_MOST_VALUES = 4


@dataclass
class _Box:
    node: NodeExplanation
    depth: int
    lines: tuple[str, str]
    output: str
    x: float = 0.0
    y: float = 0.0
    width: float = 0.0

    @property
    def middle(self) -> float:
        return self.y + _HEIGHT / 2


def draw(explanation: ExplainedRun, row: Mapping[str, RowValue]) -> str:
    boxes = _boxes(explanation, row)
    _place(boxes)
    right = max((box.x + box.width for box in boxes.values()), default=0.0)
    bottom = max((box.y + _HEIGHT for box in boxes.values()), default=0.0)
    svg = ElementTree.Element(
        "svg",
        {
            "xmlns": "http://www.w3.org/2000/svg",
            "width": f"{right + _MARGIN:.0f}",
            "height": f"{bottom + _MARGIN + _LINE:.0f}",
            "font-family": "ui-monospace, Menlo, Consolas, monospace",
            "font-size": "11",
            "fill": _INK,
        },
    )
    ElementTree.SubElement(svg, "rect", {"width": "100%", "height": "100%", "fill": "white"})
    faults: dict[str, list[str]] = {}
    for fault in explanation.faults:
        faults.setdefault(fault.path, []).append(str(fault))
    for box in boxes.values():
        _draw_edge(svg, box, boxes.get(box.node.path.rpartition(".")[0]))
        _draw_box(svg, box, faults.get(box.node.path, []))
    legend = "blue: strips of rows   yellow: row by row   green: fast road   red frame: fault"
    _text(svg, _MARGIN, bottom + _LINE, legend, _FAINT)
    return ElementTree.tostring(svg, encoding="unicode")


def _boxes(explanation: ExplainedRun, row: Mapping[str, RowValue]) -> dict[str, _Box]:
    """In the order of the nodes, children first."""
    passing = {
        use.filter_path: f"{len(use.passing):,} of {use.pool_size:,} pass"
        for use in explanation.signals
    }
    return {
        node.path: _Box(
            node,
            node.path.count("."),
            (node.label, passing.get(node.path) or _settings(node) or node.kind),
            # What stands in a literal's box is its value.
            _output(row[node.path]) if node.path in row and node.kind not in LITERALS else "",
        )
        for node in explanation.nodes
    }


def _place(boxes: Mapping[str, _Box]) -> None:
    """A column for each depth; leaves one below the other, parents amid their children."""
    widths: dict[int, float] = {}
    gaps: dict[int, float] = {}
    for box in boxes.values():
        box.width = max(map(len, box.lines)) * _CHARACTER + 2 * _PADDING
        widths[box.depth] = max(widths.get(box.depth, 0.0), box.width)
        gap = len(box.output) * _CHARACTER + _LEVEL_GAP
        gaps[box.depth] = max(gaps.get(box.depth, 0.0), gap)
    left, x = {}, _MARGIN
    for depth in sorted(widths):
        # The root's output has no edge but its own.
        x += gaps[depth] if depth or gaps[depth] > _LEVEL_GAP else 0.0
        left[depth] = x
        x += widths[depth]
    y = _MARGIN
    for box in boxes.values():
        box.x = left[box.depth]
        below = [boxes[path] for path in box.node.children]
        if below:
            box.y = (below[0].y + below[-1].y) / 2
        else:
            box.y = y
            y += _HEIGHT + _GAP


def _settings(node: NodeExplanation) -> str:
    given = (one for one in node.settings if one.origin != "default")
    return ", ".join(f"{one.name}={shown(one.value)}" for one in given)


def _output(value: RowValue) -> str:
    parts = [_values(value), f"{value.nan_share:.0%} NaN"]
    if value.seconds is not None:
        parts.append(f"{value.seconds * 1e6:,.1f} µs")
    return " | ".join(parts)


def _values(value: RowValue) -> str:
    """All of a few, or the least, the median and the largest of many."""
    if len(value.values) <= _MOST_VALUES:
        return " ".join(f"{one:.4g}" for one in value.values)
    numbers = [one for one in value.values if not math.isnan(one)]
    if not numbers:
        return "nan"
    picked = min(numbers), statistics.median(numbers), max(numbers)
    return "{:.4g} … {:.4g} … {:.4g}".format(*picked)


def _draw_edge(svg: ElementTree.Element, box: _Box, parent: _Box | None) -> None:
    if parent is not None:
        start, turn = parent.x + parent.width, box.x - len(box.output) * _CHARACTER - _PADDING
        path = f"M{start:.1f} {parent.middle:.1f} C{(start + turn) / 2:.1f} {parent.middle:.1f} "
        path += (
            f"{(start + turn) / 2:.1f} {box.middle:.1f} {turn:.1f} {box.middle:.1f} H{box.x:.1f}"
        )
    elif box.output:
        path = f"M{_MARGIN:.1f} {box.middle:.1f} H{box.x:.1f}"
    else:
        return
    ElementTree.SubElement(svg, "path", {"d": path, "fill": "none", "stroke": _FAINT})
    if box.output:
        place = box.x - _PADDING / 2, box.middle - 4.0
        _text(svg, *place, box.output, _FAINT).set("text-anchor", "end")


def _draw_box(svg: ElementTree.Element, box: _Box, faults: list[str]) -> None:
    group = ElementTree.SubElement(svg, "g")
    ElementTree.SubElement(group, "title").text = _clean("\n".join(_notes(box.node, faults)))
    frame = {
        "x": f"{box.x:.1f}",
        "y": f"{box.y:.1f}",
        "width": f"{box.width:.1f}",
        "height": f"{_HEIGHT:.1f}",
        "rx": "4",
        "fill": _LITERAL if box.node.kind in LITERALS else _COLOURS[box.node.step],
        "stroke": _FAULTY if faults else _FAINT,
        "stroke-width": "2.5" if faults else "1",
    }
    ElementTree.SubElement(group, "rect", frame)
    _text(group, box.x + _PADDING, box.y + _LINE, box.lines[0], _INK)
    _text(group, box.x + _PADDING, box.y + 2 * _LINE, box.lines[1], _FAINT)


def _notes(node: NodeExplanation, faults: list[str]) -> list[str]:
    notes = [f"{node.path}: {node.kind}", *faults]
    notes += [f"row by row: {node.reason}"] if node.reason else []
    notes += [f"{one.name}={shown(one.value)} ({one.origin})" for one in node.settings]
    notes += [f"state: {node.state_key}"] if node.is_stateful else []
    notes += [f"warm-up: {node.warmup_rows:,} rows"] if node.warmup_rows else []
    return notes


def _text(
    parent: ElementTree.Element, x: float, y: float, text: str, colour: str
) -> ElementTree.Element:
    element = ElementTree.SubElement(
        parent, "text", {"x": f"{x:.1f}", "y": f"{y:.1f}", "fill": colour, "xml:space": "preserve"}
    )
    element.text = _clean(text)
    return element


def _clean(text: str) -> str:
    """XML has no control characters, escaped or not."""
    return "".join(one if one.isprintable() or one == "\n" else "�" for one in text)
