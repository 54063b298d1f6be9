"""The wheel beside a host's own files: what it brings, and what stays when it is taken away."""

from __future__ import annotations

import re
import subprocess
import sys
import venv
from pathlib import Path
from zipfile import ZipFile

import pytest
from support.installed_wheel import pack_installed_wheel

ENGINE = "quernbrook/simulator_engine"
MODULE = "quernbrook.simulator_engine.expression_evaluator"
HOST_FILES = {
    "quernbrook/__init__.py": "",
    f"{ENGINE}/__init__.py": "",
    f"{ENGINE}/py.typed": "a host's own\n",
    f"{ENGINE}/_types.py": "class EvaluationError(Exception): ...\n",
}
UNTYPED_HOST_FILES = {name: text for name, text in HOST_FILES.items() if "py.typed" not in name}


@pytest.fixture(scope="module")
def wheel(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return pack_installed_wheel(tmp_path_factory.mktemp("wheel"))


class Environment:
    """A virtual environment with nothing but what is installed into it."""

    def __init__(self, folder: Path) -> None:
        venv.create(folder, symlinks=True)
        self.python = folder / "bin" / "python"
        (self.packages,) = (folder / "lib").glob("python*/site-packages")

    def pip(self, command: str, *arguments: str) -> None:
        options = ["--quiet", "--disable-pip-version-check"]
        if command == "install":
            options += ["--no-index", "--no-deps"]
        pip = [sys.executable, "-m", "pip", "--python", str(self.python), command, *options]
        subprocess.run([*pip, *arguments], check=True)

    def files(self) -> dict[str, bytes]:
        """What is installed; interpreters leave bytecode where they please."""
        return {
            path.relative_to(self.packages).as_posix(): path.read_bytes()
            for path in self.packages.rglob("*")
            if path.is_file() and "__pycache__" not in path.parts
        }

    def mypy(self, code: str) -> str:
        options = ["--strict", "--no-error-summary", f"--python-executable={self.python}"]
        command = [sys.executable, "-m", "mypy", *options, "-c", code]
        # Where neither this project's settings nor sources are.
        folder = self.packages.parent
        return subprocess.run(command, cwd=folder, capture_output=True, text=True).stdout


@pytest.fixture
def environment(tmp_path: Path) -> Environment:
    return Environment(tmp_path / "environment")


def host_wheel(folder: Path, files: dict[str, str]) -> Path:
    info = "a_host-1.0.dist-info"
    files = {
        **files,
        f"{info}/METADATA": "Metadata-Version: 2.1\nName: a-host\nVersion: 1.0\n",
        f"{info}/WHEEL": "Wheel-Version: 1.0\nRoot-Is-Purelib: true\nTag: py3-none-any\n",
    }
    files[f"{info}/RECORD"] = "".join(f"{name},,\n" for name in [*files, f"{info}/RECORD"])
    path = folder / "a_host-1.0-py3-none-any.whl"
    with ZipFile(path, "w") as archive:
        for name, text in files.items():
            archive.writestr(name, text)
    return path


def test_the_wheel_holds_the_module_and_a_folder_of_its_own(wheel: Path) -> None:
    with ZipFile(wheel) as archive:
        names = {name for name in archive.namelist() if ".dist-info/" not in name}
    files = ("__init__.pyi", "py.typed", "include/quernbrook/row_kernel.h")
    own = {f"{ENGINE}/expression_evaluator/{name}" for name in files}
    (module,) = names - own
    assert re.fullmatch(rf"{ENGINE}/expression_evaluator\.[^/]*so", module)
    assert names > own


@pytest.mark.parametrize("host_first", [True, False])
def test_nothing_of_a_host_is_replaced_or_deleted(
    wheel: Path, environment: Environment, tmp_path: Path, host_first: bool
) -> None:
    host = host_wheel(tmp_path, HOST_FILES)
    for path in (host, wheel) if host_first else (wheel, host):
        environment.pip("install", str(path))
    both = environment.files()
    assert any(name.startswith(f"{ENGINE}/expression_evaluator.") for name in both)
    environment.pip("uninstall", "--yes", "quernbrook-expression-evaluator")
    left = environment.files()
    for name, text in HOST_FILES.items():
        assert both[name] == left[name] == text.encode()
    assert not [name for name in left if "expression_evaluator" in name]


@pytest.mark.parametrize("files", [HOST_FILES, UNTYPED_HOST_FILES], ids=["typed", "untyped"])
def test_types_of_the_module_come_with_it_and_those_of_the_host_stay(
    wheel: Path, environment: Environment, tmp_path: Path, files: dict[str, str]
) -> None:
    module = f"from {MODULE} import evaluate\nreveal_type(evaluate)"
    host = "from quernbrook.simulator_engine._types import EvaluationError as E\nreveal_type(E())"
    environment.pip("install", str(host_wheel(tmp_path, files)))
    assert 'Revealed type is "Any"' in environment.mypy(module)
    before = environment.mypy(host)
    assert ("import-untyped" in before) == (files is UNTYPED_HOST_FILES)
    environment.pip("install", str(wheel))
    assert environment.mypy(host) == before
    revealed = environment.mypy(module)
    assert "error" not in revealed
    assert f"fallback={MODULE}.EvaluationResult" in revealed
