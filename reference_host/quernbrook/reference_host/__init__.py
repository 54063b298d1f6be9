"""A small host for the expression evaluator: a registry, a function library, checkpoints."""

from quernbrook.reference_host.checkpoints import CheckpointError
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.registry import FunctionRegistry, default_registry
from quernbrook.reference_host.row_kernel import row_kernel
from quernbrook.reference_host.states import SavedState

__all__ = [
    "CheckpointError",
    "FunctionEntry",
    "FunctionRegistry",
    "Parameter",
    "SavedState",
    "default_registry",
    "row_kernel",
]
