"""The suite on every interpreter and NumPy, the distributions as users get them, other processors,
coverage.

Interpreters are taken from the PATH. `nox -s "tests(python='3.12', numpy='1.26')"` runs one
session, and what follows `--` goes to pytest.
"""

from __future__ import annotations

import shutil
import sys
from pathlib import Path

import nox

sys.path.insert(0, str(Path(__file__).parent / "tools" / "nox_sessions"))
import distributions
import processors
from builds import (
    FROM_WHEELS,
    HOST,
    INTERPRETERS,
    ROOT,
    WORKBENCH,
    build_wheel,
    row_kernels_wheel_of,
    wheel_of,
)

nox.needs_version = ">=2025.2"
nox.options.sessions = ["tests"]
nox.options.error_on_missing_interpreters = True

NUMPY = {"1.26": "numpy~=1.26.0", "2": "numpy>=2"}
# NumPy 1.26 has no wheels for CPython 3.13.
PAIRS = [
    (python, numpy)
    for python in INTERPRETERS
    for numpy in NUMPY
    if (python, numpy) != ("3.13", "1.26")
]
# The tests run the demonstration and the code in the guide, too.
TEST_REQUIREMENTS = [
    f"--requirement={ROOT / 'requirements' / name}.txt"
    for name in ("test", "demo", "docs", "workbench")
]

# Importing them makes them sessions.
__all__ = ["distributions", "processors"]


@nox.session
@nox.parametrize(("python", "numpy"), PAIRS)
def tests(session: nox.Session, numpy: str) -> None:
    """The suite, with the wheels and the reference host in a clean environment."""
    wheel = wheel_of(session)
    row_kernels = row_kernels_wheel_of(session)
    ours = [wheel, row_kernels, str(HOST), str(WORKBENCH)]
    session.install(NUMPY[numpy], *ours, *TEST_REQUIREMENTS)
    # A reused environment has another wheel of the same version, which pip would leave there.
    session.install("--force-reinstall", "--no-deps", *ours)
    session.run("python", "-m", "pytest", *session.posargs)


@nox.session(python=INTERPRETERS)
def workbench(session: nox.Session) -> None:
    """The workbench's tests and the notebooks, with nothing but wheels of all four distributions.

    Dependencies are the newest that the interpreter gets, from one to the next not the same.
    """
    pure = [str(build_wheel(session, source)) for source in (HOST, WORKBENCH)]
    ours = [wheel_of(session), row_kernels_wheel_of(session), *pure]
    session.install(*ours, *TEST_REQUIREMENTS)
    session.install("--force-reinstall", "--no-deps", *ours)
    # Isolated, so that nothing of the working folder is found.
    session.run("python", "-I", "-c", FROM_WHEELS)
    chosen = session.posargs or ["tests/workbench", "tests/docs/test_notebooks.py"]
    session.run("python", "-m", "pytest", *chosen, env={"EVALUATOR_TESTS": "native"})


@nox.session(python=INTERPRETERS[0])
def coverage(session: nox.Session) -> None:
    """Lines and branches of the C++ sources that the suite reaches, file by file."""
    objects = ROOT / "build" / "coverage"
    shutil.rmtree(objects, ignore_errors=True)
    session.install(str(HOST), row_kernels_wheel_of(session), "gcovr", *TEST_REQUIREMENTS)
    session.install(
        "--no-deps",
        f"--config-settings=build-dir={objects}",
        "--config-settings=cmake.build-type=Debug",
        "--config-settings=install.strip=false",
        # Threads count, too; assertions in the interpreter's and NumPy's headers do not.
        "--config-settings=cmake.define.CMAKE_CXX_FLAGS="
        "--coverage -fprofile-update=atomic -DNDEBUG",
        str(ROOT),
    )
    session.install("structlog")
    session.install("--no-deps", str(WORKBENCH))
    session.run(
        *("python", "-m", "pytest", *session.posargs),
        env={"EVALUATOR_TESTS": "native"},
        # A failure shows in the other sessions; here the figures count.
        success_codes=[0, 1],
    )
    gcovr = ["gcovr", "--root", str(ROOT), "--filter", "simulator_engine/", str(objects)]
    gcovr += ["--exclude-throw-branches", "--exclude-unreachable-branches", "--merge-lines"]
    # What unwinds a thread that ends with the interpreter; GCC doesn't tell that it is thrown.
    gcovr += [r"--exclude-branches-by-pattern=.*\bcalling_python\(.*|^ *\}\)\);$"]
    # NumPy's headers stood in the build's own environment, which is gone.
    gcovr += [
        f"--gcov-ignore-errors={kind}" for kind in ("source_not_found", "no_working_dir_found")
    ]
    session.run(*gcovr, "--txt-metric=branch", "--txt", "-")
    session.run(*gcovr, "--txt", "-", "--fail-under-line=95", "--fail-under-branch=95")
