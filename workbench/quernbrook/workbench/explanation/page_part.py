"""An explanation as a notebook shows it: the drawing and, below it, the table."""

from __future__ import annotations

import io

from quernbrook.workbench.explanation.drawing import draw
from quernbrook.workbench.explanation.records import ExplainedRun
from quernbrook.workbench.explanation.table import table_of
from quernbrook.workbench.html_tables import SCROLLED, encodable
from rich.console import Console

_WIDTH = 160
_PRE = '<pre style="line-height: 1.3; white-space: pre">{code}</pre>'


def html(explanation: ExplainedRun) -> str:
    # In a notebook, rich would show what it prints there and then.
    console = Console(file=io.StringIO(), record=True, width=_WIDTH, force_jupyter=False)
    console.print(table_of(explanation))
    parts = [console.export_html(inline_styles=True, code_format=_PRE)]
    if explanation.nodes:
        parts.insert(0, draw(explanation, {}))
    return "".join(f'<div style="{SCROLLED}">{encodable(part)}</div>' for part in parts)
