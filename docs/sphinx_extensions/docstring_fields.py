"""What docstrings say of single names, as "name: text", goes where the reference tells of them.

Of a class's attributes the text moves to the attribute's own entry, of arguments it becomes a list.
"""

from __future__ import annotations

import inspect
import re
from collections.abc import Iterator
from typing import Any

from sphinx.application import Sphinx
from sphinx.pycode import ModuleAnalyzer

NAMES = r"\w+(?:, \w+)*"
FIELD = re.compile(rf"({NAMES}): (.+)")
# "value: its output there. inputs: its children."
NEXT_FIELD = re.compile(rf"(?<=\.) (?=({NAMES}): )")

COMPILED_PROPERTY = re.compile(r"\(self\) -> (.+)")

#: The texts of attributes at hand, by their full names.
untouched: dict[str, list[str]] = {}


def members_of(kind: type) -> set[str]:
    return {
        name for one in kind.__mro__ for name in {*vars(one), *vars(one).get("__annotations__", ())}
    }


def arguments_of(obj: Any) -> set[str]:
    try:
        return {*inspect.signature(obj).parameters}
    except (TypeError, ValueError):  # types of which only the docstring tells the signature
        return set()


def parts_of(lines: list[str], known: set[str]) -> Iterator[str]:
    """The lines, each cut where another field begins in it."""
    for line in lines:
        begin = 0
        for found in NEXT_FIELD.finditer(line):
            if known.issuperset(found[1].split(", ")):
                yield line[begin : found.start()]
                begin = found.end()
        yield line[begin:]


def place_fields(
    app: Sphinx, what: str, name: str, obj: Any, options: Any, lines: list[str]
) -> None:
    if what in ("attribute", "property"):
        # Of compiled types' properties that is all there is.
        if found := COMPILED_PROPERTY.fullmatch("\n".join(lines).strip()):
            lines[:] = [f"`{found[1]}`"]
        untouched[name] = lines[:]
        return
    members = members_of(obj) if isinstance(obj, type) else set()
    known = members | arguments_of(obj)
    # Where the next lines of the field at hand go to, up to an empty one; none outside of fields.
    current: list[str] | None = None
    out: list[str] = []
    for line in parts_of(lines, known):
        found = FIELD.fullmatch(line)
        names = found[1].split(", ") if found else []
        if found and known.issuperset(names):
            if members.issuperset(names):
                current = [found[2]]
                # As if it stood in a comment above each attribute.
                comments = ModuleAnalyzer.for_module(obj.__module__)
                comments.analyze()
                comments.attr_docs.update({(obj.__qualname__, member): current for member in names})
            else:
                shown = ", ".join(f"**{argument}**" for argument in names)
                out += ["", f"- {shown}: {found[2]}"]
                current = out
        elif current is not None and line:
            current.append(f"  {line.strip()}" if current is out else line.strip())
        else:
            current = None
            out.append(line)
    lines[:] = out


def restore_text(
    app: Sphinx, what: str, name: str, obj: Any, options: Any, lines: list[str]
) -> None:
    """Napoleon takes what stands before a colon for a type."""
    if name in untouched:
        lines[:] = untouched.pop(name)


def tidy_signature(
    app: Sphinx, what: str, name: str, obj: Any, options: Any, signature: str | None, returns: Any
) -> tuple[str, Any] | None:
    """Defaults that are objects, "<factory>", would leave it without links; nobody passes self."""
    given = signature or ""
    tidy = re.sub(r"<[\w.]+(?:: [^<>]*)?>", "...", re.sub(r"^\(self(?:, )?", "(", given))
    return None if tidy == given else (tidy, returns)


def setup(app: Sphinx) -> dict[str, bool]:
    # Ahead of napoleon, whose priority is 500.
    app.connect("autodoc-process-docstring", place_fields, priority=400)
    app.connect("autodoc-process-docstring", restore_text, priority=600)
    app.connect("autodoc-process-signature", tidy_signature)
    return {"parallel_read_safe": False}
