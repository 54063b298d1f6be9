"""The header that comes with the module: where it lies, and for which languages."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path

import pytest
from quernbrook.simulator_engine import expression_evaluator

ROOT = Path(__file__).parents[2]
INCLUDE = Path(expression_evaluator.__file__).with_name("expression_evaluator") / "include"


def test_it_lies_in_the_modules_own_folder():
    installed = INCLUDE / "quernbrook" / "row_kernel.h"
    source = ROOT / "simulator_engine" / "include" / "quernbrook" / "row_kernel.h"
    assert installed.read_bytes() == source.read_bytes()


@pytest.mark.parametrize(
    ("compiler", "standard", "suffix"),
    [("cc", "c99", "c"), ("cc", "c17", "c"), ("c++", "c++11", "cpp"), ("c++", "c++20", "cpp")],
)
def test_it_needs_nothing_else(tmp_path, compiler, standard, suffix):
    if shutil.which(compiler) is None:
        pytest.skip(f"no {compiler} here")
    source = tmp_path / f"user.{suffix}"
    source.write_text(
        "#include <quernbrook/row_kernel.h>\n"
        "int size(void);\n"
        "int size(void) { return (int)sizeof(quernbrook_row_kernel); }\n"
    )
    options = [f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror", f"-I{INCLUDE}"]
    command = [compiler, *options, "-fsyntax-only", str(source)]
    compiled = subprocess.run(command, capture_output=True, text=True)
    assert (compiled.returncode, compiled.stderr) == (0, "")
