"""The module in a process of its own, beside a host whose packages are regular ones."""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path

import pytest
from quernbrook.simulator_engine import expression_evaluator as native

MODULE = "quernbrook.simulator_engine.expression_evaluator"
HOST = Path(__file__).parents[2] / "reference_host" / "quernbrook"
SIBLINGS = [
    "functions._typed_shapes",
    "functions.filtrations",
    "functions.filtrations_evaluation",
    "simulator_engine._combine",
    "simulator_engine._graph_helpers",
    "simulator_engine._registry_protocols",
    "simulator_engine._types",
]


@pytest.fixture
def host(tmp_path: Path) -> Iterator[Path]:
    """A folder with the host and the module; regular packages hide those that are installed."""
    shutil.copytree(HOST, tmp_path / "quernbrook", ignore=shutil.ignore_patterns("__pycache__"))
    for folder in ("", "functions", "simulator_engine"):
        (tmp_path / "quernbrook" / folder / "__init__.py").touch()
    engine = tmp_path / "quernbrook" / "simulator_engine"
    shutil.copy(str(native.__file__), engine)
    # The stub's folder, which has the name of the module.
    shutil.copytree(
        Path(str(native.__file__)).with_name("expression_evaluator"),
        engine / "expression_evaluator",
    )
    yield tmp_path
    shutil.rmtree(tmp_path)


def run(host: Path, code: str, *arguments: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [sys.executable, "-c", code, *arguments],
        env={**os.environ, "PYTHONPATH": str(host)},
        capture_output=True,
        text=True,
        timeout=60,
    )


def prints(host: Path, code: str, *arguments: str) -> str:
    finished = run(host, code, *arguments)
    assert finished.returncode == 0, finished.stderr
    return finished.stdout


EVALUATION = f"""
import numpy as np
import {MODULE} as evaluator
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry

context = evaluator.EvaluationContext(
    (np.array([[1.0, 3.0], [5.0, 9.0]]),), {{"x": 0}}, registry=default_registry()
)
graph = Node("rotation", "latitudinal_demean", [Node("feature", "x")])
print(evaluator.__file__, evaluator.evaluate(graph, context).weights.tolist(), sep="\\n")
"""


def test_beside_regular_packages(host: Path) -> None:
    file, weights = prints(host, EVALUATION).splitlines()
    assert Path(file).is_relative_to(host)
    assert weights == "[[-1.0, 1.0], [-2.0, 2.0]]"


@pytest.mark.parametrize("sibling", SIBLINGS)
def test_a_missing_sibling_is_named(host: Path, sibling: str) -> None:
    Path(host, "quernbrook", *sibling.split(".")).with_suffix(".py").unlink()
    finished = run(host, f"import {MODULE}")
    assert finished.returncode == 1
    assert finished.stderr.splitlines()[-1] == (
        f"ModuleNotFoundError: No module named 'quernbrook.{sibling}'"
    )


def test_a_missing_name_of_a_sibling_is_named(host: Path) -> None:
    file = Path(host, "quernbrook", "simulator_engine", "_combine.py")
    file.write_text("")
    finished = run(host, f"import {MODULE}")
    assert finished.returncode == 1
    assert finished.stderr.splitlines()[-1] == (
        "ImportError: cannot import name 'combine_signal_and_transforms' from "
        f"'quernbrook.simulator_engine._combine' ({file})"
    )


OTHER_NAME = """
import importlib.util, pickle, sys
from types import ModuleType
import numpy as np

name, file = sys.argv[1:]
spec = importlib.util.spec_from_file_location(name, file)
evaluator = importlib.util.module_from_spec(spec)
for place in range(1, name.count(".") + 1):
    package = ".".join(name.split(".")[:place])
    sys.modules[package] = ModuleType(package)
sys.modules[name] = evaluator
spec.loader.exec_module(evaluator)

context = evaluator.EvaluationContext((np.ones((2, 1)),), {"x": 0}, pool_id="pool")
state = evaluator.FunctionState("f", {"count": 3})
for one in (context, state):
    restored = pickle.loads(pickle.dumps(one))
    assert type(restored) is type(one)
    print(type(restored).__module__)
assert pickle.loads(pickle.dumps(context)).pool_id == "pool"
assert pickle.loads(pickle.dumps(state)) == state
assert evaluator.EvaluationResult.__module__ == name
assert evaluator.evaluate.__module__ == evaluator.__name__ == name
assert "quernbrook.simulator_engine.expression_evaluator" not in sys.modules
"""


@pytest.mark.parametrize("name", ["expression_evaluator", "a.b.expression_evaluator"])
def test_classes_pickle_under_the_name_that_the_module_was_loaded_by(host: Path, name: str) -> None:
    file = Path(host, "quernbrook", "simulator_engine", Path(str(native.__file__)).name)
    assert prints(host, OTHER_NAME, name, str(file)).splitlines() == [name] * 2
