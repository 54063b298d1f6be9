"""Draw the pictures of docs/gallery.md and of the front page anew, with the code on those pages."""

import os
import re
from pathlib import Path

DOCS = Path(__file__).resolve().parents[1] / "docs"
#: The folder of each page's pictures.
FOLDERS = {"gallery.md": "gallery", "index.md": "front"}


def main() -> None:
    for name, folder in FOLDERS.items():
        page = (DOCS / name).read_text("utf-8")
        blocks = re.findall(r"^```python\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
        place = DOCS / "images" / folder
        place.mkdir(parents=True, exist_ok=True)
        os.chdir(place)
        exec(compile("\n".join(blocks), name, "exec"), {})


if __name__ == "__main__":
    main()
