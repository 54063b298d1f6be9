"""The page of functions lists what the reference host has, with its parameters."""

from __future__ import annotations

import re
from pathlib import Path

from quernbrook.reference_host import FunctionEntry, default_registry
from quernbrook.reference_host.entries import REQUIRED

PAGE = Path(__file__).parents[2] / "docs" / "library.md"
LINES = re.findall(r"^\| `(\w+)` \| (.+?) \| \S", PAGE.read_text("utf-8"), re.MULTILINE)


def parameters_of(entry: FunctionEntry) -> str:
    texts = []
    for name, parameter in entry.param_schema.items():
        default = parameter.default
        shown = f'"{default}"' if isinstance(default, str) else str(default).lower()
        kind = parameter.type if default is REQUIRED else f"{parameter.type}, {shown}"
        texts.append(f"`{name}` ({kind})")
    return ", ".join(texts) or "none"


def test_every_function_is_listed_with_its_parameters() -> None:
    entries = default_registry()._entries
    assert len(LINES) == len(dict(LINES))
    assert dict(LINES) == {name: parameters_of(entry) for name, entry in entries.items()}
