"""The check that every call of the C API is guarded."""

from __future__ import annotations

import importlib.util
from pathlib import Path
from types import ModuleType

import pytest

TOOL = Path(__file__).parents[2] / "tools" / "bare_c_api.py"


@pytest.fixture
def tool(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> ModuleType:
    """The check over sources of the test's own."""
    spec = importlib.util.spec_from_file_location("bare_c_api", TOOL)
    assert spec is not None
    assert spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    monkeypatch.setattr(module, "SOURCES", tmp_path)
    (tmp_path / "python").mkdir()
    (tmp_path / "host").mkdir()
    return module


@pytest.mark.parametrize(
    ("room", "code", "found"),
    [
        ("host", "PyObject_Repr(x);", [(1, "PyObject_Repr")]),
        ("host", "calling_python([&] { return PyObject_Repr(x); });", [(1, "PyObject_Repr")]),
        ("host", "\n\nPyTuple_GET_SIZE(x);", [(3, "PyTuple_GET_SIZE")]),
        ("host", '// PyObject_Repr(x)\n"PyObject_Repr(x)"; /* PyObject_Repr(x) */', []),
        ("host", "PyObject* x; PyMODINIT_FUNC PyInit_module() {}", []),
        ("python", "PyObject_Repr(x);", [(1, "PyObject_Repr")]),
        ("python", "calling_python([&] { return PyObject_Repr(f(x)); });", []),
        ("python", "calling_python([] {});\nPyObject_Repr(x);", [(2, "PyObject_Repr")]),
        ("python", "PyTuple_GET_SIZE(x); Py_TYPE(x); PyArray_DIM(x, 0);", []),
        ("python", "_PyType_Lookup(x, y);", [(1, "_PyType_Lookup")]),
    ],
)
def test_calls(
    tool: ModuleType, tmp_path: Path, room: str, code: str, found: list[tuple[int, str]]
) -> None:
    source = tmp_path / room / "source.cpp"
    source.write_text(code)
    assert tool.bare_calls(source) == found


def test_the_sources_of_the_module() -> None:
    spec = importlib.util.spec_from_file_location("bare_c_api", TOOL)
    assert spec is not None
    assert spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    assert module.main() == 0
