"""Tables in plain text."""

from __future__ import annotations

from collections.abc import Collection, Sequence


def aligned(lines: Sequence[Sequence[str]], left: Collection[int] = ()) -> list[str]:
    """Return lines of cells with columns of one width each, flush right but for those in `left`."""
    widths = [max(map(len, column)) for column in zip(*lines, strict=True)]
    return [
        "  ".join(
            cell.ljust(width) if place in left else cell.rjust(width)
            for place, (cell, width) in enumerate(zip(line, widths, strict=True))
        ).rstrip()
        for line in lines
    ]
