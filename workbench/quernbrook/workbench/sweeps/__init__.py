"""Many runs over one panel: in threads, processes or a cluster, kept as they end."""

from __future__ import annotations

from importlib import import_module
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from quernbrook.workbench.sweeps.call import SweepReport, sweep
    from quernbrook.workbench.sweeps.errors import SweepError
    from quernbrook.workbench.sweeps.reading import read_manifest, read_weights
    from quernbrook.workbench.sweeps.runs import Run, runs_from_grid, runs_from_table

__all__ = [
    "Run",
    "SweepError",
    "SweepReport",
    "read_manifest",
    "read_weights",
    "runs_from_grid",
    "runs_from_table",
    "sweep",
]

# Imported when they are asked for: workers begin sooner without pandas, and take less memory.
_MODULES = {
    "Run": "runs",
    "SweepError": "errors",
    "SweepReport": "call",
    "read_manifest": "reading",
    "read_weights": "reading",
    "runs_from_grid": "runs",
    "runs_from_table": "runs",
    "sweep": "call",
}


def __getattr__(name: str) -> Any:
    if name not in _MODULES:
        raise AttributeError(f"module '{__name__}' has no attribute '{name}'")
    return getattr(import_module(f"{__name__}.{_MODULES[name]}"), name)


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
