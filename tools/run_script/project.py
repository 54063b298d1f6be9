"""What the project consists of: new distributions and folders of tests are added here."""

from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


@dataclass(frozen=True)
class Distribution:
    """A folder with a pyproject.toml.

    sources: what its compiled code is made from. One that is all Python has none; it is installed
        editable, so that nothing has to be done when it changes.
    """

    name: str
    folder: Path
    sources: tuple[Path, ...] = ()


DISTRIBUTIONS = (
    Distribution(
        "expression_evaluator",
        ROOT,
        (ROOT / "pyproject.toml", ROOT / "CMakeLists.txt", ROOT / "simulator_engine"),
    ),
    # With its own sources, what it shares with the module.
    Distribution(
        "row_kernels", ROOT / "row_kernels", (ROOT / "row_kernels", ROOT / "simulator_engine")
    ),
    Distribution("reference_host", ROOT / "reference_host"),
    Distribution("workbench", ROOT / "workbench"),
)

# CMake projects whose tests CTest runs.
CPP_TESTS = (ROOT / "tests" / "kernels", ROOT / "row_kernels" / "tests" / "kernels")
CPP_FOLDERS = (ROOT / "simulator_engine", ROOT / "row_kernels", *CPP_TESTS)

# Compiled modules, whose stubs are compared with them.
COMPILED_MODULES = ("quernbrook.simulator_engine.expression_evaluator",)

# Tests that run programs and pages, not the module that was built with sanitizers.
NOT_SANITIZED = {"bench_report", "demo", "docs", "packaging", "run_script"}
