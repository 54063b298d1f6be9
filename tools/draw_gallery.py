"""Draw the pictures of docs/gallery.md anew, with the code on that page."""

import os
import re
from pathlib import Path

DOCS = Path(__file__).resolve().parents[1] / "docs"


def main() -> None:
    page = (DOCS / "gallery.md").read_text("utf-8")
    blocks = re.findall(r"^```python\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
    folder = DOCS / "images" / "gallery"
    folder.mkdir(parents=True, exist_ok=True)
    os.chdir(folder)
    exec(compile("\n".join(blocks), "gallery.md", "exec"), {})


if __name__ == "__main__":
    main()
