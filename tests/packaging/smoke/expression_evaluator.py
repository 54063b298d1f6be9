"""What the module must do on any platform, as it is installed, beside the reference host."""

from __future__ import annotations

import sys
import threading

import numpy as np
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, integer, rotation
from quernbrook.simulator_engine import expression_evaluator
from quernbrook.simulator_engine._types import EvaluationError
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate

assert expression_evaluator.__file__.startswith(sys.prefix), expression_evaluator.__file__


def weights(graph, matrix):
    context = EvaluationContext((matrix,), {"x": 0}, registry=default_registry())
    return evaluate(graph, context).weights


few = np.array([[1.0, 3.0, np.nan], [5.0, 9.0, 1.0]])
demeaned = weights(rotation("latitudinal_demean", feature("x")), few)
np.testing.assert_array_equal(demeaned, [[-1.0, 1.0, np.nan], [0.0, 4.0, -4.0]])
ranked = weights(rotation("latitudinal_rank", feature("x")), few)
np.testing.assert_array_equal(ranked, [[0.0, 1.0, np.nan], [0.5, 1.0, 0.0]])

# So many rows take the road that sums in the C compiler's long double, which must be NumPy's.
many = np.random.default_rng(0).normal(size=(100_000, 3))
window = 20
totals = np.cumsum(many, axis=0, dtype=np.longdouble)
sums = totals[window - 1 :] - np.vstack([np.zeros((1, 3), np.longdouble), totals[:-window]])
means = weights(rotation("longitudinal_mean", feature("x"), integer(window)), many)
np.testing.assert_array_equal(means[window - 1 :], (sums / window).astype(np.float64))

try:
    weights(feature("y"), few)
except EvaluationError as error:
    assert "'y'" in str(error), error
else:
    raise AssertionError("a feature that isn't there was found")


def evaluate_for_ever(started):
    while True:
        weights(rotation("latitudinal_demean", feature("x")), many[:200])
        started.set()


# The interpreter ends while another thread evaluates.
started = threading.Event()
threading.Thread(target=evaluate_for_ever, args=[started], daemon=True).start()
assert started.wait(60)
print("expression_evaluator does its work with NumPy", np.__version__)
