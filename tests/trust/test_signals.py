"""An interrupt ends a long run between two rows, at once."""

from __future__ import annotations

import pytest
from support.children import run_child

CHILD = """
import importlib, signal, sys, threading, time
import numpy as np
from support.graphs import feature, number, reduction, rotation
from support.leak_roads import functions_registry
from support.runs import make_context
from quernbrook.simulator_engine._types import UsefulSignal

evaluator = importlib.import_module(sys.argv[1])
ROWS, DELAY = 2_000_000, 0.02
features = {"a": np.ones((ROWS, 2))}
pool = {"x": UsefulSignal(np.ones((ROWS, 2)), np.ones((ROWS, 1)))}
roads = {
    # No function of Python's own, whose interpreter would notice the signal by itself.
    "literal": (number(1.0), {}),
    "reduction": (reduction("mean"), {"useful_signals": pool, "registry": functions_registry()}),
    "function": (rotation("f", feature("a")), {"registry": functions_registry()}),
}
graph, options = roads[sys.argv[2]]
context = make_context(evaluator, features, validate_inputs=False, **options)
# The signal comes from the system: another thread would have to wait for the interpreter. All is
# measured in the processor's time, as a busy machine may take this process from it at any moment.
signal.signal(signal.SIGPROF, signal.default_int_handler)


class Context(type(context)):
    @property
    def _collect_node_outputs(self):
        # Asked for shortly before the first row.
        global sent
        signal.setitimer(signal.ITIMER_PROF, DELAY)
        sent = time.process_time() + DELAY
        return False


context.__class__ = Context
try:
    evaluator.evaluate(graph, context, data_nan_features=["unused"])
except KeyboardInterrupt as error:
    took = time.process_time() - sent
    day = context.current_day_index
    # In the plain evaluator it may come amidst an iteration that just ends.
    alone = error.__context__ is None or sys.argv[1] == "reference_evaluator"
    ended = (error.__cause__, alone, 0 < day < ROWS - 1)
taken = []
thread = threading.Thread(target=lambda: taken.append(context._evaluation_lock.acquire(False)))
thread.start()
thread.join()
assert ended == (None, True, True), ended
assert taken == [True]
print(took)
"""


@pytest.mark.parametrize("road", ["literal", "reduction", "function"])
def test_an_interrupt_ends_a_run(
    evaluator: object, request: pytest.FixtureRequest, road: str
) -> None:
    finished = run_child(request, CHILD, road)
    assert finished.returncode == 0, finished.stderr
    assert float(finished.stdout) < 0.1
