"""Scripts that run in an interpreter of their own."""

from __future__ import annotations

import os
import subprocess
import sys

import pytest

MODULES = {
    "native": "quernbrook.simulator_engine.expression_evaluator",
    "reference": "reference_evaluator",
}


def run_child(
    request: pytest.FixtureRequest, code: str, *arguments: str
) -> subprocess.CompletedProcess[str]:
    """Its first argument names the evaluator that the test runs with."""
    module = MODULES[request.node.callspec.params["evaluator"]]
    env = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, sys.path))}
    return subprocess.run(
        [sys.executable, "-c", code, module, *arguments],
        env=env,
        capture_output=True,
        text=True,
        timeout=60,
    )
