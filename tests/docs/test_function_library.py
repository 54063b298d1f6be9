"""The page of the function library lists what the registry has, as the functions themselves tell it."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Any

import pytest
from quernbrook import row_kernels
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.entries import REQUIRED, FunctionEntry

PAGE = Path(__file__).parents[2] / "docs" / "guide" / "function_library.md"
REGISTRY = default_registry(compiled=False)


def shown(value: Any) -> str:
    return f'"{value}"' if isinstance(value, str) else str(value).lower()


def parameters(entry: FunctionEntry) -> str:
    texts = []
    for name, parameter in entry.param_schema.items():
        default = "" if parameter.default is REQUIRED else f" = {shown(parameter.default)}"
        texts.append(f"`{name}` {parameter.type}{default}")
    return "<br>".join(texts) or "none"


def row(name: str) -> str:
    """A function's row of its table."""
    doc = row_kernels.FUNCTIONS[name].__doc__
    assert doc is not None
    cells = [f"`{name}`"]
    instance = REGISTRY.create_instance(name, **({"window": 1} if "window" in schema(name) else {}))
    if hasattr(instance, "arity"):
        cells.append(str(instance.arity))
    cells += [parameters(REGISTRY.get_entry(name)), re.sub(r"\s+", " ", doc).strip()]
    return "| " + " | ".join(cells) + " |"


def schema(name: str) -> dict[str, Any]:
    return REGISTRY.get_entry(name).param_schema


@pytest.mark.parametrize("name", sorted(REGISTRY))
def test_every_function_has_its_row(name: str) -> None:
    rows = [
        line for line in PAGE.read_text("utf-8").splitlines() if line.startswith(f"| `{name}` ")
    ]
    assert rows == [row(name)]


def test_there_are_no_other_rows() -> None:
    listed = re.findall(r"^\| `(\w+)` ", PAGE.read_text("utf-8"), re.MULTILINE)
    assert sorted(listed) == sorted(REGISTRY)
