"""Which instances the host's registry makes."""

from __future__ import annotations

import subprocess
import sys

import pytest
from quernbrook import row_kernels
from quernbrook.reference_host import default_registry


def test_compiled_functions_are_taken_where_they_are_installed() -> None:
    registry = default_registry()
    assert registry.compiled == set(row_kernels.FUNCTIONS)
    for name, kind in row_kernels.FUNCTIONS.items():
        config = {"window": 3} if "window" in registry.get_entry(name).param_schema else {}
        assert type(registry.create_instance(name, **config)) is kind
        # The evaluator may still compute them on whole matrices.
        assert not registry.has_factory(name)


def test_plain_definitions_on_demand() -> None:
    registry = default_registry(compiled=False)
    assert registry.compiled == frozenset()
    assert type(registry.create_instance("numerical_add")).__name__ == "StatelessRotation"


def test_the_registry_tells() -> None:
    plain, compiled = default_registry(compiled=False), default_registry()
    count = len(row_kernels.FUNCTIONS)
    assert repr(plain).endswith(" functions, 0 in machine code>")
    assert repr(compiled).endswith(f" functions, {count} in machine code>")


WITHOUT = """
import sys

class Hidden:
    def find_spec(self, name, path=None, target=None):
        if name == "quernbrook.row_kernels":
            raise ModuleNotFoundError(f"No module named {name!r}", name=name)

sys.meta_path.insert(0, Hidden())
from quernbrook.reference_host import default_registry
print(len(default_registry().compiled), default_registry().create_instance("numerical_add")([1.0], [2.0]))
try:
    default_registry(compiled=True)
except ImportError as error:
    print(error)
"""


def run(code: str) -> str:
    command = [sys.executable, "-c", code]
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def test_where_they_are_not_installed() -> None:
    assert run(WITHOUT).splitlines() == ["0 [3.]", "No module named 'quernbrook.row_kernels'"]


def test_a_broken_installation_is_not_passed_over(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setitem(sys.modules, "quernbrook.row_kernels", None)
    # None in sys.modules is how an import is blocked; its name is the package's own.
    assert default_registry().compiled == frozenset()
    monkeypatch.delitem(sys.modules, "quernbrook.row_kernels")
    monkeypatch.setitem(sys.modules, "quernbrook.row_kernels._kernels", None)
    with pytest.raises(ImportError):
        default_registry()


def test_importing_the_host_imports_no_kernels() -> None:
    code = "import sys, quernbrook.reference_host; print('quernbrook.row_kernels' in sys.modules)"
    assert run(code) == "False\n"
