"""Refuses calls of CPython's and NumPy's C API that nothing guards.

Every call into the interpreter may let its lock go, run code of the host's, or find the interpreter
ending; `simulator_engine/python/` deals with that once. Outside it there is none, and inside it
each one is an argument of `calling_python`, but for those that only look at memory.
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

SOURCES = Path(__file__).resolve().parents[1] / "simulator_engine"
CALL = re.compile(r"\b_?Py[A-Za-z]*_\w+(?=\s*\()")
GUARD = re.compile(r"\bcalling_python\(")
# They make nothing, end nothing and raise nothing that the interpreter doesn't keep in store.
ONLY_LOOK = re.compile(
    r"Py\w+_(Check|CheckExact|GET_\w+|AS_DOUBLE|IS_COMPACT_ASCII|1BYTE_DATA|Fast_ITEMS|Fast_GET_SIZE)"
    r"|PyArray_(NDIM|DIMS?|STRIDES?|DATA|BYTES|NBYTES|SIZE|BASE|DESCR|TYPE|FLAGS|IS\w+|ENABLEFLAGS"
    r"|DescrFromType)"
    r"|Py_(TYPE|REFCNT|X?NewRef|VISIT|LeaveRecursiveCall)|PyExceptionInstance_Check"
    r"|PyErr_(Occurred|ExceptionMatches|GivenExceptionMatches)|PyException_GetTraceback"
    r"|PyModule(Def_Init|_GetState|_GetDict)|PyType_(GetModuleState|HasFeature)|PyDict_Next"
    r"|PyObject_GC_UnTrack|PyThreadState_Get|PyTraceMalloc_Track|PyUnicode_CompareWithASCIIString"
)
# Each with its reason: the count is tested first; the lock is given up and not waited for.
GUARDED_BY_HAND = {("object.hpp", "Py_DECREF"), ("gil.hpp", "PyEval_SaveThread")}
NOT_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', re.DOTALL)


def code_of(path: Path) -> str:
    """The text of a source with blanks in place of comments and literals."""
    return NOT_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), path.read_text())


def without_guarded(code: str) -> str:
    """The code with blanks in place of what `calling_python` is given."""
    cells = list(code)
    for guard in GUARD.finditer(code):
        depth, place = 1, guard.end()
        while depth > 0:
            depth += {"(": 1, ")": -1}.get(code[place], 0)
            if code[place] != "\n":
                cells[place] = " "
            place += 1
    return "".join(cells)


def bare_calls(path: Path) -> list[tuple[int, str]]:
    """The line and name of each call that nothing guards."""
    code = code_of(path)
    guards = path.is_relative_to(SOURCES / "python")
    if guards:
        code = without_guarded(code)

    def is_bare(name: str) -> bool:
        if not guards:
            return not name.startswith("PyInit_")
        return not ONLY_LOOK.fullmatch(name) and (path.name, name) not in GUARDED_BY_HAND

    return [
        (code.count("\n", 0, call.start()) + 1, call.group())
        for call in CALL.finditer(code)
        if is_bare(call.group())
    ]


def main() -> int:
    faults = 0
    for path in sorted(SOURCES.rglob("*.[ch]pp")):
        for line, name in bare_calls(path):
            place = path.relative_to(SOURCES.parent)
            print(
                f"{place}:{line}: nothing guards {name}(): call it in simulator_engine/python,"
                " through calling_python()"
            )
            faults += 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
