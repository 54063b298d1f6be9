"""How each C++ file is compiled, in the one place where clangd looks."""

import json
from collections.abc import Iterable
from pathlib import Path

from project import ROOT

FILE = ROOT / "build" / "compile_commands.json"


def join(builds: Iterable[Path]) -> None:
    """Join what CMake wrote in these build folders, as far as they are there."""
    files = [build / FILE.name for build in builds]
    entries = [entry for file in files if file.is_file() for entry in json.loads(file.read_text())]
    FILE.write_text(json.dumps(entries, indent=1))
