"""The flame view of a profile: one SVG file that needs no other."""

from __future__ import annotations

from xml.sax.saxutils import escape

from quernbrook.reference_host.trees import nodes_by_path
from quernbrook.workbench.tracing.measured_run import MeasuredRun, NodeTime

_WIDTH, _LINE = 1200.0, 22.0
_LETTER = 7.0
_COLOURS = {"kernel": "#9ecae1", "blocks": "#fdd0a2", "calls": "#fdae6b", "none": "#d9d9d9"}
_EVALUATOR = "#e0e0e0"


def svg(profile: MeasuredRun) -> str:
    """Below each node its inputs; a node is as wide as its own time and theirs.

    What is left free below a node is its own time, and beside the root that of the evaluator.
    """
    own = {node.path: node for node in profile.nodes}
    children = {
        path: [f"{path}.c{number}" for number in range(len(node.children or ()))]
        for path, node in nodes_by_path(profile.graph).items()
    }
    whole: dict[str, float] = {}
    for path in reversed(children):
        below = sum(whole[child] for child in children[path])
        whole[path] = below + (own[path].seconds if path in own else 0.0)
    total = max(profile.seconds, sum(node.seconds for node in profile.nodes))
    scale = _WIDTH / total
    boxes = [_box(0.0, 0, _WIDTH, _EVALUATOR, "run", f"run: {_ms(total)}")]
    pending = [("root", 0.0, 1)]
    depth = 1
    while pending:
        path, left, level = pending.pop()
        width = whole[path] * scale
        if path not in own or width < 0.1:
            continue
        depth = max(depth, level + 1)
        boxes.append(_node_box(own[path], left, level, width, whole[path], total))
        for child in children[path]:
            pending.append((child, left, level + 1))
            left += whole[child] * scale
    rest = profile.evaluator_seconds
    if rest * scale >= 0.1:
        place = _WIDTH - rest * scale
        title = f"the evaluator itself: {_ms(rest)}, {rest / total:.1%}"
        boxes.append(_box(place, 1, rest * scale, _EVALUATOR, "the evaluator itself", title))
    height = (depth + 1) * _LINE
    return (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {_WIDTH:.0f} {height:.0f}" '
        'font-family="monospace" font-size="12">\n' + "\n".join(boxes) + "\n</svg>\n"
    )


def _node_box(
    node: NodeTime, left: float, level: int, width: float, whole: float, total: float
) -> str:
    title = (
        f"{node.path} {node.name} ({node.way}): {_ms(node.seconds)} of its own, "
        f"{node.seconds / total:.1%}; with its inputs {_ms(whole)}"
    )
    return _box(left, level, width, _COLOURS[node.way], node.name, title)


def _box(left: float, level: int, width: float, colour: str, label: str, title: str) -> str:
    letters = int((width - 6.0) / _LETTER)
    top = level * _LINE
    text = ""
    if letters >= 3:
        shown = escape(label[:letters])
        text = f'<text x="{left + 3.0:.2f}" y="{top + 15.0:.0f}">{shown}</text>'
    return (
        f'<g><title>{escape(title)}</title><rect x="{left:.2f}" y="{top:.0f}" '
        f'width="{width:.2f}" height="{_LINE - 1.0:.0f}" fill="{colour}" stroke="white" '
        f'stroke-width="0.5"/>{text}</g>'
    )


def _ms(seconds: float) -> str:
    return f"{seconds * 1e3:.3f} ms"
