"""A small host for the expression evaluator: registry, functions, checkpoints, checks."""

from quernbrook.reference_host.checkpoints import CheckpointError
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.registry import FunctionRegistry, default_registry
from quernbrook.reference_host.states import SavedState
from quernbrook.reference_host.trees import draw_tree, functions_by_path, nodes_by_path

__all__ = [
    "CheckpointError",
    "FunctionEntry",
    "FunctionRegistry",
    "Parameter",
    "SavedState",
    "default_registry",
    "draw_tree",
    "functions_by_path",
    "nodes_by_path",
]
