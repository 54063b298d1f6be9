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


#: Seconds of the processor's time.
LIMIT = 120


def child(*arguments: str) -> subprocess.CompletedProcess[str]:
    """An interpreter with these arguments, which finds what this one finds."""
    env = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, sys.path))}
    limited = ["sh", "-c", f'ulimit -t {LIMIT}; exec "$0" "$@"', sys.executable]
    return subprocess.run([*limited, *arguments], env=env, capture_output=True, text=True)


def run_child(
    request: pytest.FixtureRequest, code: str, *arguments: str
) -> subprocess.CompletedProcess[str]:
    """A script whose first argument names the evaluator that the test runs with."""
    return child("-c", code, MODULES[request.node.callspec.params["evaluator"]], *arguments)
