"""What a run of a graph would do, before anything runs."""

from quernbrook.workbench.explanation.explaining import explain
from quernbrook.workbench.explanation.inputs import ExplanationError
from quernbrook.workbench.explanation.records import Explanation

__all__ = ["Explanation", "ExplanationError", "explain"]
