"""Extension modules made by Cython, each set of sources once."""

from __future__ import annotations

import hashlib
import shutil
import subprocess
import sys
from collections.abc import Mapping
from pathlib import Path

BUILD = Path(__file__).resolve().parents[1] / "build"


def compiled(sources: Mapping[Path, str]) -> Path:
    """A folder with the sources, given by relative path, as extension modules."""
    digest = hashlib.sha256()
    for path, text in sorted(sources.items()):
        digest.update(f"{path}\0{text}\0".encode())
    folder = BUILD / f"bench-{sys.implementation.cache_tag}-{digest.hexdigest()[:12]}"
    if folder.exists():
        return folder
    unfinished = folder.with_name(f"{folder.name}-unfinished")
    shutil.rmtree(unfinished, ignore_errors=True)
    for path, text in sources.items():
        copy = unfinished / path
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_text(text)
    # The packages themselves are only imports.
    names = [str(path) for path in sorted(sources) if path.name != "__init__.py"]
    command = [sys.executable, "-m", "Cython.Build.Cythonize", "-3", "-i", *names]
    subprocess.run(command, cwd=unfinished, check=True, capture_output=True)
    return unfinished.rename(folder)
