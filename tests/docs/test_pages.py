"""The code on the pages of the documentation and in READMEs runs, and prints what they show.

A block of C is a file, whose name its first line gives; Python below it finds the file.
"""

from __future__ import annotations

import shutil
import sys
from collections.abc import Iterator
from contextlib import redirect_stdout
from io import StringIO
from pathlib import Path
from types import ModuleType

import numpy as np
import pytest
import structlog
from sybil import Document, Example, Sybil
from sybil.evaluators.python import PythonEvaluator
from sybil.parsers.markdown import CodeBlockParser

ROOT = Path(__file__).parents[2]
PAGES = sorted(
    path
    for path in (ROOT / "README.md", *ROOT.glob("[a-z]*/README.md"), *ROOT.glob("docs/**/*.md"))
    if "```python\n" in path.read_text("utf-8")
)

run_block = PythonEvaluator()


class Page:
    """Runs the "python" blocks of a page and compares what they print with its "output" blocks."""

    def __init__(self, path: Path) -> None:
        self._printed = ""
        parsers = [
            CodeBlockParser("python", self._run),
            CodeBlockParser("output", self._compare),
            CodeBlockParser("c", self._write),
        ]
        self.document: Document = Sybil(parsers).parse(path)

    def evaluate(self) -> None:
        for example in self.document.examples():
            example.evaluate()
        assert not self._printed, "the last block's output is not shown"

    def _run(self, example: Example) -> None:
        assert not self._printed, f"{example.path}:{example.line}: output before it is not shown"
        printed = StringIO()
        with redirect_stdout(printed):
            run_block(example)
        self._printed = printed.getvalue()

    def _write(self, example: Example) -> None:
        if shutil.which("cc") is None:
            pytest.skip("no C compiler: install one as cc")
        name = example.parsed.partition("\n")[0].strip("/* ")
        Path(name).write_text(example.parsed)

    def _compare(self, example: Example) -> str | None:
        printed, self._printed = self._printed, ""
        return None if printed == example.parsed else f"printed:\n{printed}"


@pytest.fixture
def main_module(monkeypatch: pytest.MonkeyPatch) -> Iterator[ModuleType]:
    """A module that the blocks of one page share, importable as a script's __main__ is."""
    module = ModuleType("page_of_the_guide")
    monkeypatch.setitem(sys.modules, module.__name__, module)
    logging = structlog.get_config()
    # What a page sets for its prints ends with it.
    with np.printoptions():
        yield module
    structlog.configure(**logging)


def test_there_are_pages() -> None:
    assert {page.relative_to(ROOT).as_posix() for page in PAGES} >= {
        "README.md",
        "reference_host/README.md",
        "docs/index.md",
        "docs/guide/filters.md",
        "docs/guide/formulas.md",
        "docs/guide/functions.md",
        "docs/guide/graphs.md",
        "docs/guide/host.md",
        "docs/guide/panels.md",
        "docs/guide/reductions.md",
        "docs/guide/registry.md",
        "docs/guide/row_blocks.md",
        "docs/guide/row_kernels.md",
        "docs/guide/running.md",
    }


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.relative_to(ROOT).as_posix())
def test_page(
    path: Path, main_module: ModuleType, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.chdir(tmp_path)
    page = Page(path)
    page.document.namespace = vars(main_module)
    with np.printoptions():  # a page's own end with it
        page.evaluate()
