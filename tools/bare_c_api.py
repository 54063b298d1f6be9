"""Refuses calls of CPython's and NumPy's C API outside the one layer that guards them.

Every call into the interpreter may let its lock go, run code of the host's, or find the interpreter
ending; `simulator_engine/python/` deals with that once.
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

SOURCES = Path(__file__).resolve().parents[1] / "simulator_engine"
CALL = re.compile(r"\b_?Py[A-Za-z]*_\w+(?=\s*\()")
NOT_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.DOTALL)


def bare_calls(text: str) -> list[tuple[int, str]]:
    """The line and name of each call, comments and texts left aside."""
    code = NOT_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)
    return [
        (code.count("\n", 0, call.start()) + 1, call.group())
        for call in CALL.finditer(code)
        if not call.group().startswith("PyInit_")
    ]


def main() -> int:
    faults = 0
    for path in sorted(SOURCES.rglob("*.[ch]pp")):
        if path.is_relative_to(SOURCES / "python"):
            continue
        for line, name in bare_calls(path.read_text()):
            place = path.relative_to(SOURCES.parent)
            print(f"{place}:{line}: {name}() is called outside simulator_engine/python: wrap it there")
            faults += 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
