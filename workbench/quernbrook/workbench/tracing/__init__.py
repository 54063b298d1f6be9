"""Tools for looking into a run: why a cell has its value, where two runs part, where the time goes,
and going through a run step by step."""

from quernbrook.workbench.tracing.causes import Cause, Mark, Why, Window, why
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.runs import Run, joined, record

__all__ = [
    "Cause",
    "Mark",
    "Run",
    "TraceError",
    "Why",
    "Window",
    "joined",
    "record",
    "why",
]
