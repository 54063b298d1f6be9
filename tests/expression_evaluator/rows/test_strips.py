"""Functions that opted in give, raise and leave what plain ones do, whichever way they are run."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from support.graphs import boolean, feature, integer, number, rotation, string
from support.guise_runs import GuiseRun, all_in, features_of, make_instance, plain_answer
from support.opted_in import TRAP

pytestmark = pytest.mark.parametrize("evaluator", ["native"], indirect=True)
A, B = feature("a"), feature("b")
GRAPHS = {
    "one function": rotation("total", A, B),
    "chain": rotation("total", rotation("total", rotation("total", A, B), B), A),
    "tree": rotation(
        "total.top",
        rotation("total.left", rotation("total", A, B), rotation("total", B, B)),
        rotation("total.right", rotation("total", A, A), rotation("total", B, A)),
    ),
    "states": rotation("running", rotation("running.below", A, B), rotation("total", B)),
    "literals": rotation(
        "total", A, number(2.5), integer(3), string("s"), boolean(True), number(-0.0)
    ),
    "literals alone": rotation("running", number(2.5), number(float("nan"))),
    "configuration": rotation("total.config", number(2.5), A, number(0.25)),
    "no arguments": rotation("total.top", rotation("total"), A),
    "one leaf twice": rotation("total", A, A),
    "many arguments": rotation("total", *[A, B] * 8),
    "climbing marks": rotation("total", rotation("gaps", A, B), rotation("gaps.other", A)),
    "ids": rotation("total", feature("a", canonical_id="x"), rotation("total", B)),
}
GUISES = [("kernel",), ("block",), ("kernel", "block"), ("plain", "kernel"), ("block", "plain")]
SHAPES = [(6, 3), (1, 3), (0, 3), (5, 0), (5, 1)]


def turned(matrix: np.ndarray) -> np.ndarray:
    return np.asfortranarray(matrix)


def spaced(matrix: np.ndarray) -> np.ndarray:
    return np.repeat(np.repeat(matrix, 2, axis=0), 3, axis=1)[::2, ::3]


def backwards(matrix: np.ndarray) -> np.ndarray:
    return matrix[::-1, ::-1].copy()[::-1, ::-1]


def misaligned(matrix: np.ndarray) -> np.ndarray:
    off = np.empty(matrix.nbytes + 1, dtype=np.uint8)[1:].view(np.float64).reshape(matrix.shape)
    off[:] = matrix
    return off


class Subclass(np.ndarray):
    pass


FORMS: dict[str, Any] = {
    "by columns": turned,
    "with gaps": spaced,
    "backwards": backwards,
    "misaligned": misaligned,
    "one row for all": lambda matrix: np.broadcast_to(matrix[:1], matrix.shape),
    "single": lambda matrix: matrix.astype(np.float32),
    "big-endian": lambda matrix: matrix.astype(">f8"),
    "integers": lambda matrix: np.nan_to_num(matrix, posinf=3).astype(np.int64),
    "large integers": lambda matrix: (np.isnan(matrix) + np.uint64(2**64 - 1025)).astype(np.uint64),
    "half": lambda matrix: turned(matrix.astype(np.float16)),
    "truths": lambda matrix: backwards(matrix > 2.0),
    "long": lambda matrix: matrix.astype(np.longdouble),
    "objects": lambda matrix: matrix.astype(object),
    "subclass": lambda matrix: matrix.view(Subclass),
    "rows only": lambda matrix: spaced(matrix)[:, :],
}
UNIVERSE = np.array([[1.0, 0.0, np.nan]] * 3 + [[2.0, 1.0, 0.0]] * 3)

SETTINGS: dict[str, dict[str, Any]] = {
    "registry": {},
    "bound": {"bound": True},
    "bound without arity": {"bound": True, "arity": False},
    "bound, not collected": {"bound": True, "attributes": {"_collect_node_outputs": False}},
    "collected": {"attributes": {"_collect_node_outputs": True}},
    "without states": {"attributes": {"_collect_states": False}},
    "universe": {"universe": UNIVERSE},
    "universe, bound": {"universe": UNIVERSE, "bound": True},
    "universe by columns": {"universe": np.asfortranarray(UNIVERSE)},
    "universe of integers": {"universe": np.nan_to_num(UNIVERSE).astype(np.int64)},
    "marks": {"nan_features": ["a"]},
    "marks on all": {"nan_features": ["a", "b"], "bound": True},
    "marks on all, universe": {"nan_features": ["a", "b"], "universe": UNIVERSE},
    "marks on nothing": {"nan_features": ["zz"]},
    "precomputed": {
        "attributes": {"_precomputed_node_outputs": {"x": [1.5, np.nan, -1.0]}},
    },
    "precomputed elsewhere": {"attributes": {"_precomputed_node_outputs": {"y": [1.0] * 3}}},
    "precomputed marks": {
        "attributes": {
            "_precomputed_node_outputs": {},
            "_precomputed_node_nan_source": {"x": "data_nan"},
        },
    },
    "features in a list": {"as_list": True},
    "cold": {"cold": True},
}


#: What can't go in strips: NumPy has the say there, or a host's own rows.
ROW_BY_ROW = {"universe of integers", "precomputed"}


@pytest.mark.parametrize("promise", [False, True], ids=["", "reads ahead"])
@pytest.mark.parametrize("guises", GUISES, ids="+".join)
@pytest.mark.parametrize("graph", GRAPHS.values(), ids=GRAPHS)
def test_every_setting(evaluator, graph, guises, promise):
    for name, setting in SETTINGS.items():
        options = {**setting}
        options["attributes"] = {
            **options.get("attributes", {}),
            **({"_reads_rows_ahead": True} if promise else {}),
        }
        features = features_of(6, 3)
        expected = plain_answer(graph, features, **options)
        arguments = {key: options.pop(key) for key in ("cold", "nan_features") if key in options}
        run = GuiseRun(evaluator, graph, all_in(graph, *guises), features, **options)
        assert "weights" in expected
        assert run(**arguments) == expected, name
        if guises == ("kernel",) and name not in ROW_BY_ROW:
            assert all(calls == [6] for calls in run.calls), name


@pytest.mark.parametrize("form", FORMS)
@pytest.mark.parametrize("guises", GUISES[:3], ids="+".join)
def test_features_of_every_form(evaluator, guises, form):
    features = {name: FORMS[form](matrix) for name, matrix in features_of(6, 3).items()}
    goes_in_strips = form not in ("objects", "subclass", "long")
    for name, graph in GRAPHS.items():
        for marked, universe in ((None, None), (["a"], None), (["a"], UNIVERSE)):
            expected = plain_answer(graph, features, nan_features=marked, universe=universe)
            run = GuiseRun(evaluator, graph, all_in(graph, *guises), features, universe=universe)
            assert run(nan_features=marked) == expected
            if goes_in_strips and guises == ("kernel",) and universe is None:
                assert all(calls == [6] for calls in run.calls), name


@pytest.mark.parametrize("shape", SHAPES, ids=str)
@pytest.mark.parametrize("guises", GUISES, ids="+".join)
def test_every_shape(evaluator, guises, shape):
    for bound in (False, True):
        for graph in GRAPHS.values():
            expected = plain_answer(graph, features_of(*shape), bound=bound)
            run = GuiseRun(
                evaluator, graph, all_in(graph, *guises), features_of(*shape), bound=bound
            )
            assert run() == expected


def test_a_trap_is_a_trap(evaluator):
    """The steps that these tests run on do fail where they should."""
    instance = make_instance("total", "plain")
    with pytest.raises(ValueError, match="trapped with 1 rows"):
        instance(np.array([TRAP, 1.0]))
