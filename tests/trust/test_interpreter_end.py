"""Daemon threads that evaluate while the interpreter ends: the process ends in peace."""

from __future__ import annotations

import pytest
from support.children import run_child

CHILD = """
import gc, importlib, itertools, sys, threading, time
import numpy as np
from support.graphs import feature, integer, node, number, reduction, rotation
from support.leak_roads import FAILING_ROADS, GOOD_ROADS, STUBS, Function, functions_registry
from support.pools import make_pool
from support.runs import make_context

evaluator = importlib.import_module(sys.argv[1])
# NumPy lets the interpreter go for more than some hundred cells.
SHAPE = (4, 400)
MATRIX = np.random.default_rng(0).random(SHAPE)


class Number:
    def __index__(self):
        return 2

    def __float__(self):
        return 2.0


class Name(str):
    def __lt__(self, other):
        return str.__lt__(self, other)

    def __eq__(self, other):
        return str.__eq__(self, other)

    __hash__ = str.__hash__


class Row(np.ndarray):
    @property
    def shape(self):
        return (Number(), SHAPE[1])


class Dying(Function):
    def __del__(self):
        sum(range(50))


class Context(evaluator.EvaluationContext):
    registry = property(lambda self: self._registry, lambda self, value: setattr(self, "_registry", value))

    def __del__(self):
        sum(range(50))


def live_tick():
    context = make_context(evaluator, {"a": MATRIX}, universe=np.ones(SHAPE))
    graph = rotation("f", feature("a"), integer(2))
    evaluator.evaluate(graph, context, bound_function_instances={"root": Function()})


def literal():
    graph = rotation("f", integer(Number()), number(Number()))
    evaluator.evaluate(graph, make_context(evaluator, {"a": MATRIX}, registry=functions_registry()))


def property_registry():
    context = Context((MATRIX,), {"a": 0}, registry=functions_registry(), validate_inputs=False)
    evaluator.evaluate(rotation("f", feature("a")), context)


def sorted_ids():
    pool = {Name(name): signal for name, signal in make_pool("dcba", *SHAPE).items()}
    context = make_context(
        evaluator, {"a": MATRIX}, registry=functions_registry(), useful_signals=pool
    )
    evaluator.evaluate(reduction("sum"), context)


def destructors():
    graph = rotation("f", rotation("f", feature("a")))
    bound = {"root": Dying(), "root.c0": Dying()}
    context = Context((MATRIX.view(Row),), {"a": 0}, validate_inputs=False)
    context._collect_node_outputs = True
    evaluator.evaluate(graph, context, bound_function_instances=bound)


def odd_shapes():
    context = make_context(evaluator, {"a": MATRIX.view(Row)}, validate_inputs=False)
    evaluator.evaluate(feature("a"), context, data_nan_features=["a"])


def rank():
    context = make_context(evaluator, {"a": MATRIX}, universe=np.ones(SHAPE))
    evaluator.evaluate(rotation("latitudinal_rank", feature("a")), context)


def rolling(window):
    evaluator._LONGITUDINAL_FAST_MIN_ROWS = 0
    context = make_context(evaluator, {"a": MATRIX}, registry=STUBS)
    evaluator.evaluate(rotation("longitudinal_zscore", feature("a"), window), context)


def replaced_globals():
    for name in ("_apply_universe_mask", "_validate_evaluation_shapes", "_graph_cache_get"):
        function = getattr(evaluator, name)
        if not hasattr(function, "__wrapped__"):
            def wrapper(*arguments, function=function):
                return function(*arguments)
            wrapper.__wrapped__ = function
            setattr(evaluator, name, wrapper)
    live_tick()


def every_road():
    for road in prepared:
        try:
            road()
        except BaseException:
            pass


WORKS = {
    "live tick": live_tick,
    "literal": literal,
    "property registry": property_registry,
    "sorted ids": sorted_ids,
    "destructors": destructors,
    "odd shapes": odd_shapes,
    "rank": rank,
    "rolling": lambda: rolling(integer(2)),
    "rolling by formula": lambda: rolling(integer(Number())),
    "replaced globals": replaced_globals,
    "every road": every_road,
}
work = WORKS[sys.argv[2]]
if work is every_road:
    import logging, structlog
    structlog.configure(wrapper_class=structlog.make_filtering_bound_logger(logging.CRITICAL))
    prepared = [road(evaluator) for road in (GOOD_ROADS | FAILING_ROADS).values()]


def collected(phase, info):
    sum(range(20))


def repeat(started):
    while True:
        try:
            work()
        except BaseException:
            pass
        started.set()


# CPython 3.10 and 3.11 crash, with any thread, where one that waits for the interpreter's lock is
# not scheduled again before the interpreter's memory is freed: all get the time to leave.
class LastMoment:
    def __del__(self, sleep=time.sleep):
        sleep(0.1)


sys.last_moment = LastMoment()  # what sys holds goes last


# Every container that is made may set off the collector, and with it code of the host's.
gc.callbacks.append(collected)
gc.set_threshold(3, 1, 10**6)  # the old generation aside
sys.setswitchinterval(1e-6)
starts = [threading.Event() for _ in range(16)]
for started in starts:
    threading.Thread(target=repeat, args=(started,), daemon=True).start()
for started in starts:
    started.wait(20)
time.sleep(float(sys.argv[3]))
"""

WORKS = [
    "live tick",
    "literal",
    "property registry",
    "sorted ids",
    "destructors",
    "odd shapes",
    "rank",
    "rolling",
    "rolling by formula",
    "replaced globals",
    "every road",
]


@pytest.mark.parametrize("work", WORKS)
def test_the_interpreter_ends_beside_threads_that_evaluate(
    evaluator: object, request: pytest.FixtureRequest, work: str
) -> None:
    """Where in a run the end meets a thread is chance, hence some exits at different moments."""
    if request.node.callspec.params["evaluator"] == "reference":
        pytest.skip("the plain evaluator is Python itself")
    for exit_number in range(3):
        finished = run_child(request, CHILD, work, str(0.003 * exit_number))
        assert (finished.returncode, finished.stderr) == (0, "")


LATE_LOGGER = """
import importlib, sys, threading, time
import numpy as np
from support.graphs import feature, rotation
from support.leak_roads import Function
from support.runs import make_context

evaluator = importlib.import_module(sys.argv[1])
is_logging = threading.Event()


class Logger:
    def error(self, *_, **__):
        is_logging.set()
        time.sleep(0.05)


class Failing(Function):
    def get_state(self):
        raise ValueError


def work():
    context = make_context(evaluator, {"a": np.ones((3, 4))})
    graph = rotation("f", feature("a"))
    evaluator.evaluate(graph, context, bound_function_instances={"root": Failing(stateful=True)})


class LastMoment:
    def __del__(self, sleep=time.sleep):
        sleep(0.3)


evaluator._logger = Logger()
sys.last_moment = LastMoment()
threading.Thread(target=work, daemon=True).start()
assert is_logging.wait(20)
"""


def test_the_interpreter_ends_while_an_error_is_handled(
    evaluator: object, request: pytest.FixtureRequest
) -> None:
    finished = run_child(request, LATE_LOGGER)
    assert (finished.returncode, finished.stderr) == (0, "")
