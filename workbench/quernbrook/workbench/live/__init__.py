"""Runs that go on: window after window, and row after row as rows come."""

from quernbrook.workbench.live.errors import LiveError
from quernbrook.workbench.live.output import OutputFolder, Progress, read_weights
from quernbrook.workbench.live.run import LiveRun
from quernbrook.workbench.live.windows import Window, walk_forward

__all__ = [
    "LiveError",
    "LiveRun",
    "OutputFolder",
    "Progress",
    "Window",
    "read_weights",
    "walk_forward",
]
