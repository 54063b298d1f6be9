"""What a run of a graph would do, before anything runs."""

from quernbrook.workbench.explanation.explaining import explain
from quernbrook.workbench.explanation.explanation import Explanation
from quernbrook.workbench.explanation.inputs import ExplanationError

__all__ = ["Explanation", "ExplanationError", "explain"]
