"""The check of a graph before it runs."""

from quernbrook.reference_host.checks.check import check_graph
from quernbrook.reference_host.checks.faults import Fault

__all__ = ["Fault", "check_graph"]
