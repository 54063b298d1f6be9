"""Tables in HTML, as notebooks show them."""

from __future__ import annotations

from collections.abc import Collection, Iterable, Sequence
from html import escape

#: Of what is larger, a notebook shows a part to be scrolled.
SCROLLED = "overflow: auto; max-height: 40em"

_CELL = "padding: 0 0.6em; white-space: pre; vertical-align: top; text-align: "
_MARKED = "; color: #d1242f; font-weight: bold"


def html_table(
    header: Sequence[str],
    lines: Iterable[Sequence[str]],
    *,
    left: Collection[int] = (),
    marked: Collection[int] = (),
) -> str:
    """Return a table of plain texts, which are escaped.

    left: columns that are flush left, from 0; all others are flush right. marked: lines that stand
    out.
    """
    sides = ["left" if place in left else "right" for place in range(len(header))]
    parts = ["<table><thead>", _line("th", header, sides), "</thead><tbody>"]
    parts += [
        _line("td", line, sides, _MARKED if number in marked else "")
        for number, line in enumerate(lines)
    ]
    return "".join([*parts, "</tbody></table>"])


def html_text(text: str) -> str:
    """Return a text as HTML."""
    return escape(encodable(text))


def encodable(text: str) -> str:
    """Return a text with the escapes of halves of surrogate pairs, which no file can hold."""
    return text.encode("utf-8", "backslashreplace").decode("utf-8")


def _line(tag: str, cells: Sequence[str], sides: Sequence[str], more: str = "") -> str:
    inner = "".join(
        f'<{tag} style="{_CELL}{side}{more}">{html_text(cell)}</{tag}>'
        for cell, side in zip(cells, sides, strict=True)
    )
    return f"<tr>{inner}</tr>"
