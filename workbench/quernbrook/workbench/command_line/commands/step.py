"""`quernbrook step`: going through a run node by node."""

from __future__ import annotations

import sys

from quernbrook.workbench.command_line.graph_argument import GraphArgument
from quernbrook.workbench.command_line.inputs import DataOption, UniverseOption, load

EXAMPLE = 'quernbrook step "rank(delta(close, 5))" --data prices'


def command(graph: GraphArgument, data: DataOption = None, universe: UniverseOption = None) -> None:
    """Go through a run of GRAPH, row by row and node by node.

    Reads commands from the terminal or the standard input; 'help' lists them, and 'quit' ends.
    """
    node, panel = load(graph, data, *(() if universe is None else (universe,)))

    from quernbrook.workbench.tracing import Stepper
    from quernbrook.workbench.tracing.step_shell import StepShell

    StepShell(Stepper(node, panel, universe=universe), sys.stdin, sys.stdout).cmdloop()
