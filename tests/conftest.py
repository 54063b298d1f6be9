"""Fixtures shared by all tests: the evaluator under test, natively built and plain Python."""

from __future__ import annotations

import importlib
import os
from types import ModuleType

import pytest

MODULES = {
    "native": "quernbrook.simulator_engine.expression_evaluator",
    "reference": "reference_evaluator",
}


@pytest.fixture(params=sorted(MODULES))
def evaluator(request: pytest.FixtureRequest) -> ModuleType:
    """The module under test; `EVALUATOR_TESTS` (native, reference, both) chooses."""
    chosen = os.environ.get("EVALUATOR_TESTS", "both")
    if chosen not in {*MODULES, "both"}:
        raise pytest.UsageError(f"EVALUATOR_TESTS is {chosen!r}; use native, reference or both")
    if chosen not in {request.param, "both"}:
        pytest.skip(f"EVALUATOR_TESTS={chosen} leaves out the {request.param} evaluator")
    return importlib.import_module(MODULES[request.param])
