"""An interrupt ends whatever takes long, soon."""

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


LONG_WORK = """
import importlib, itertools, signal, sys, time
import numpy as np
from support.graphs import feature, filtration, integer, rotation
from support.leak_roads import STUBS
from support.pools import make_pool
from support.runs import make_context

evaluator = importlib.import_module(sys.argv[1])
DELAY = 0.1


class Items(dict):
    def items(self):
        return itertools.repeat(("a", 0))


def shared(depth):
    # Twice as many paths at every level, though only one more node.
    node = feature("a")
    for _ in range(depth):
        node = rotation("f", node, node)
    return node


endless = rotation("f")
endless.children = itertools.repeat(feature("a"))
SHARED = shared(24)
MATRIX = np.ones((2, 2))
context = make_context(evaluator, {"a": MATRIX})
# One column in the place of all takes no memory.
TALL = np.broadcast_to(np.random.default_rng(0).random((1_500_000, 1)), (1_500_000, 40))
WIDE = np.broadcast_to(np.random.default_rng(0).permutation(20_000.0 * np.arange(20_000)), (1_500, 20_000))
wide = make_context(evaluator, {"a": WIDE})
masked = make_context(evaluator, {"a": WIDE}, universe=np.broadcast_to(1.0, WIDE.shape), universe_mask=0)
works = {
    "endless children, run": lambda: evaluator.evaluate(endless, context),
    "endless children, identities": lambda: evaluator.generate_node_identities(endless),
    "endless children, caches": lambda: evaluator.invalidate_graph_evaluation_caches(endless),
    "endless feature index": lambda: evaluator.EvaluationContext((MATRIX,), Items(a=0)),
    "many paths, caches": lambda: evaluator.invalidate_graph_evaluation_caches(SHARED),
    "many paths, identities": lambda: evaluator.generate_node_identities(SHARED),
    "many paths, run": lambda: evaluator.evaluate(SHARED, context),
    "many paths, warm-up": lambda: evaluator._compute_graph_warmup_rows(SHARED, None),
    "many paths, state keys": lambda: evaluator._annotate_state_identities(SHARED),
    "many paths, filters": lambda: evaluator._describe_dict_filter(shared_filter),
    "rolling": lambda: evaluator._rolling_longitudinal_fast(TALL, 9, "longitudinal_zscore"),
    "rank": lambda: evaluator._evaluate_simple_rank_fast(rotation("latitudinal_rank", feature("a")), wide),
    "masked rank": lambda: evaluator._evaluate_simple_rank_fast(rotation("latitudinal_rank", feature("a")), masked),
}
shared_filter = filtration("and_")
for _ in range(24):
    shared_filter = filtration("and_", shared_filter, shared_filter)
work = works[sys.argv[2]]
signal.signal(signal.SIGALRM, signal.default_int_handler)
signal.setitimer(signal.ITIMER_REAL, DELAY)
due = time.perf_counter() + DELAY
try:
    work()
except KeyboardInterrupt:
    print(time.perf_counter() - due)
"""


@pytest.mark.parametrize(
    "work",
    [
        "endless children, run",
        "endless children, identities",
        "endless children, caches",
        "endless feature index",
        "many paths, caches",
        "many paths, identities",
        "many paths, run",
        "many paths, warm-up",
        "many paths, state keys",
        "many paths, filters",
        "rolling",
        "rank",
        "masked rank",
    ],
)
def test_an_interrupt_ends_long_work(
    evaluator: object, request: pytest.FixtureRequest, work: str
) -> None:
    if request.node.callspec.params["evaluator"] == "reference":
        pytest.skip("Python itself looks at signals")
    finished = run_child(request, LONG_WORK, work)
    assert finished.returncode == 0, finished.stderr
    assert float(finished.stdout) < 0.5
