"""Which fast road a run takes, and what closes the others."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

from quernbrook.workbench.explanation import road_tests
from quernbrook.workbench.explanation.inputs import Inputs, evaluator
from quernbrook.workbench.explanation.records import Refusal, Road

_TIES = "finite values of a row are equal"


def find_roads(run: Inputs) -> tuple[Road, ...]:
    """Ask the evaluator's own tests, and look for what made them decline."""
    before = (run.graph, run.context, run.states)
    missing = {"data_nan_features": run.missing}
    bound = {"bound_function_instances": run.bound}
    return (
        _road(
            "leaf",
            lambda: evaluator._can_use_leaf_fast_path(*before, **missing),
            lambda: road_tests.leaf(run),
        ),
        _road(
            "rank",
            lambda: evaluator._can_use_simple_rank_fast_path(*before, **missing),
            lambda: road_tests.rank(run),
            _TIES,
        ),
        _road(
            "rank product",
            lambda: evaluator._can_use_rank_multiply_fast_path(*before, **bound, **missing),
            lambda: road_tests.rank_product(run),
            _TIES,
        ),
        _road(
            "longitudinal",
            lambda: evaluator._can_use_longitudinal_fast_path(*before, run.shape[0], **missing),
            lambda: road_tests.longitudinal(run),
        ),
    )


def _road(
    name: str,
    verdict: Callable[[], Any],
    refusal: Callable[[], Refusal | None],
    condition: str | None = None,
) -> Road:
    try:
        is_open = bool(verdict())
        return Road(name, is_open, refusal(), condition if is_open else None)
    except Exception as error:  # noqa: BLE001 - the run fails with it
        return Road(name, False, Refusal("its test fails", f"{type(error).__name__}: {error}"))
