"""A report of a run as one HTML file, which needs no network."""

from quernbrook.workbench.report.page import report_page
from quernbrook.workbench.report.run import Run, run_graph

__all__ = ["Run", "report_page", "run_graph"]
