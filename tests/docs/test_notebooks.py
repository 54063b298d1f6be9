"""The notebooks run from the first cell to the last, and end where they say."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any

import nbformat
import pytest
from nbclient import NotebookClient
from nbformat import NotebookNode
from traitlets.config import Config

DOCS = Path(__file__).parents[2] / "docs"
FOLDER = DOCS / "notebooks"

#: Of each notebook, what expressions give after the last cell.
END_STATES: dict[str, dict[str, Any]] = {
    "prices_to_strategy": {
        "explanation.faults == () and explanation.warmup.rows": 4,
        "list(candidates)": ["reversal", "smoothed", "with volume"],
        "int(weights.notna().any(axis=1).sum())": 495,
        "bool(table['turnover a day']['smoothed'] < 0.6 * table['turnover a day']['reversal'])": True,
        "bool((table['worst drawdown'] < 0).all())": True,
        "Path('report.html').read_text('utf-8')[:15]": "<!DOCTYPE html>",
        "run.weights.equals(candidates['smoothed'])": True,
    },
    "why_nan": {
        "counts": {"value": 572, "warm-up": 25, "universe": 0, "missing data": 2, "computed": 1},
        "sorted(begins)": [["root", "numerical_divide"]],
        "math.isnan(missing.weight), math.isnan(gap.weight), math.isnan(made.weight)": [True] * 3,
        "math.isnan(mended.weight)": False,
        "comparison.differing['root.c0.c0.c0.c0']": 1,
    },
    "history_to_live": {
        "same_bits": True,
        "len(ticks), pieces.shape == whole.shape": [20, True],
        "bool(pieces.iloc[-20:].notna().any(axis=None))": True,
        "refusal": "written for other symbols: number 0 is 'S01', in the panel 'S30'",
        "last_date == checkpoint.last_date, last_date == market.dates[-1]": [False, True],
    },
}
#: The kinds of output that a reader looks at, beside plain text, and of how many cells.
SHOWN = {
    "prices_to_strategy": {"text/html": 4, "image/png": 3},
    "why_nan": {"text/html": 5, "image/png": 1},
    "history_to_live": {"text/html": 4, "image/png": 1},
}


def read(name: str) -> NotebookNode:
    return nbformat.read(FOLDER / f"{name}.ipynb", as_version=nbformat.NO_CONVERT)


def code_cells(notebook: NotebookNode) -> list[NotebookNode]:
    return [cell for cell in notebook.cells if cell.cell_type == "code"]


def executed(notebook: NotebookNode, folder: Path) -> NotebookNode:
    # Through sockets in the folder: the tests need no network, not even to themselves.
    sockets = {"transport": "ipc", "ip": str(folder / "kernel")}
    places = {"metadata": {"path": str(folder)}}
    config = Config(KernelManager=sockets)
    return NotebookClient(notebook, config=config, timeout=120, resources=places).execute()


def shown(notebook: NotebookNode) -> dict[str, int]:
    """How many outputs have each kind; the one of several that is shown counts."""
    kinds: dict[str, int] = {}
    for cell in code_cells(notebook):
        for output in cell.outputs:
            for kind in ("text/html", "image/png"):
                if kind in output.get("data", {}):
                    kinds[kind] = kinds.get(kind, 0) + 1
                    break
    return kinds


def test_there_are_tests_for_every_notebook() -> None:
    names = {path.stem for path in FOLDER.iterdir()}
    assert names == END_STATES.keys() == SHOWN.keys()


@pytest.mark.parametrize("name", END_STATES)
def test_it_is_kept_without_outputs(name: str) -> None:
    notebook = read(name)
    nbformat.validate(notebook)
    for cell in code_cells(notebook):
        assert (cell.outputs, cell.execution_count) == ([], None)


@pytest.mark.parametrize("name", END_STATES)
def test_it_stands_in_the_index(name: str) -> None:
    assert f"\nnotebooks/{name}\n" in (DOCS / "index.md").read_text("utf-8")


@pytest.mark.parametrize("name", END_STATES)
def test_it_runs(name: str, tmp_path: Path) -> None:
    notebook = read(name)
    code = "import json, math\n" + "\n".join(
        f"print(json.dumps(({expression})))" for expression in END_STATES[name]
    )
    notebook.cells.append(nbformat.v4.new_code_cell(code))
    done = executed(notebook, tmp_path)
    (printed,) = done.cells[-1].outputs
    found = [json.loads(line) for line in printed.text.splitlines()]
    assert dict(zip(END_STATES[name], found, strict=True)) == END_STATES[name]
    assert shown(done) == SHOWN[name]
    # A warning goes there.
    errors = [
        output.text
        for cell in code_cells(done)
        for output in cell.outputs
        if output.get("name") == "stderr"
    ]
    assert errors == []
