"""The gallery shows what its code draws; that the code runs is tested with the other pages."""

from __future__ import annotations

import re
from pathlib import Path

DOCS = Path(__file__).parents[2] / "docs"
PAGE = (DOCS / "gallery.md").read_text("utf-8")


def test_every_picture_stands_below_the_code_that_saves_it() -> None:
    saved = re.findall(r'\.savefig\("(.+)"\)\n', PAGE)
    shown = re.findall(
        r'\.savefig\("(.+)"\)\n(?:.+\n)*?```\n\n!\[[^\]]{20,}\]\(images/gallery/\1\)\n', PAGE
    )
    assert shown == saved and len(saved) == PAGE.count("![")
    assert sorted(saved) == sorted(file.name for file in (DOCS / "images/gallery").iterdir())
