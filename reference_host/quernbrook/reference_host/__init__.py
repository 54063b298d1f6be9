"""A small host for the expression evaluator: registry, functions, checkpoints, checks."""

from quernbrook.reference_host.binding import BoundGraph, bind_instances
from quernbrook.reference_host.checkpoints import CheckpointError
from quernbrook.reference_host.checks import Fault, check_graph
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.registry import FunctionRegistry, default_registry
from quernbrook.reference_host.row_kernel import row_kernel
from quernbrook.reference_host.states import SavedState
from quernbrook.reference_host.trees import draw_tree, functions_by_path, nodes_by_path
from quernbrook.reference_host.warmup import warmup_rows

__all__ = [
    "BoundGraph",
    "CheckpointError",
    "Fault",
    "FunctionEntry",
    "FunctionRegistry",
    "Parameter",
    "SavedState",
    "bind_instances",
    "check_graph",
    "default_registry",
    "draw_tree",
    "functions_by_path",
    "nodes_by_path",
    "row_kernel",
    "warmup_rows",
]
