"""Tools for looking into a run: why a cell has its value, where two runs part, where the time goes,
and going through a run step by step."""

from quernbrook.workbench.tracing.causes import Why, why
from quernbrook.workbench.tracing.cell_causes import Cause, Mark, Window
from quernbrook.workbench.tracing.differences import Comparison, Difference, diff
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.measured_run import NodeTime
from quernbrook.workbench.tracing.profiles import Profile, profile
from quernbrook.workbench.tracing.run_files import load_run, load_weights, save_run
from quernbrook.workbench.tracing.runs import Run, joined, record
from quernbrook.workbench.tracing.stepping import Breakpoint, Stepper, Stop

__all__ = [
    "Breakpoint",
    "Cause",
    "Comparison",
    "Difference",
    "Mark",
    "NodeTime",
    "Profile",
    "Run",
    "Stepper",
    "Stop",
    "TraceError",
    "Why",
    "Window",
    "diff",
    "joined",
    "load_run",
    "load_weights",
    "profile",
    "record",
    "save_run",
    "why",
]
