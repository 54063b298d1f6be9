"""The project's virtual environment: made, and kept up to date.

A record in it says which steps were carried out, and for what, so that a call with nothing to do
costs a few file listings.
"""

import fcntl
import hashlib
import json
import os
import platform
import subprocess
import sys
from collections.abc import Callable, Iterable, Sequence
from functools import partial
from pathlib import Path

import compile_commands
import compiler
from messages import Failure, note
from project import CPP_TESTS, DISTRIBUTIONS, ROOT, Distribution

VENV = ROOT / ".venv"
PYTHON = VENV / "bin" / "python"
RECORD_FILE = VENV / "run-record.json"
# CMake reads these once, when it configures a build folder.
TOOLCHAIN = {
    name: os.environ[name]
    for name in ("CXX", "CXXFLAGS", "LDFLAGS", "CMAKE_ARGS", "SKBUILD_CMAKE_DEFINE")
    if os.environ.get(name)
}

#: Steps by name, each with what it was carried out for.
Steps = dict[str, str]


def prepare(groups: Sequence[str]) -> None:
    """Bring the environment to where the requirement groups and all distributions stand in it."""
    with open(ROOT / "run") as lock:
        # Two commands at once would install into one environment.
        fcntl.flock(lock, fcntl.LOCK_EX)
        record = read_record()
        interpreter = {"interpreter": f"{sys.executable} {platform.python_version()} {ROOT}"}
        if is_due(interpreter, record):
            record = {}
        requirements = {f"{group} requirements": text_of(group) for group in groups}
        installations = [(one, {one.name: state_of(one)}) for one in DISTRIBUTIONS]
        # Before minutes of downloads, not after them.
        compiling = any(one.sources and is_due(step, record) for one, step in installations)
        command = compiler.find() if compiling else ""

        carry_out(interpreter, record, make_venv)
        carry_out(requirements, record, partial(install_requirements, groups))
        for one, step in installations:
            carry_out(step, record, partial(install, one, command))


def read_record() -> Steps:
    if not PYTHON.exists():  # nor its base, to which it is a link
        return {}
    try:
        record: Steps = json.loads(RECORD_FILE.read_text())
    except (OSError, ValueError):
        return {}
    return record


def is_due(steps: Steps, record: Steps) -> bool:
    return not steps.items() <= record.items()


def carry_out(steps: Steps, record: Steps, action: Callable[[], None]) -> None:
    """Unless that was done for the very same. What is cut short stays due."""
    if not is_due(steps, record):
        return
    if any(name in record for name in steps):
        for name in steps:
            record.pop(name, None)
        RECORD_FILE.write_text(json.dumps(record))
    action()
    record |= steps
    RECORD_FILE.write_text(json.dumps(record))


def text_of(group: str) -> str:
    return requirement_file(group).read_text()


def requirement_file(group: str) -> Path:
    return ROOT / "requirements" / f"{group}.txt"


def state_of(distribution: Distribution) -> str:
    """Changes whenever the distribution must be installed anew."""
    if not distribution.sources:
        return (distribution.folder / "pyproject.toml").read_text()
    files = digest_of([*distribution.sources, requirement_file("build")])
    return f"{files} {json.dumps(TOOLCHAIN)}"


def digest_of(roots: Iterable[Path]) -> str:
    """A digest of the files' names, sizes and times, which change whenever their contents do."""
    digest = hashlib.sha256()
    for root in roots:
        for path in [root, *sorted(root.rglob("*"))]:
            if path.is_file():
                status = path.stat()
                digest.update(f"{path}\0{status.st_size}\0{status.st_mtime_ns}\0".encode())
    return digest.hexdigest()


def make_venv() -> None:
    note(f"making .venv with CPython {platform.python_version()}")
    command = [sys.executable, "-m", "venv", "--clear", str(VENV)]
    if subprocess.run(command, stdin=subprocess.DEVNULL).returncode != 0:
        raise Failure("the virtual environment .venv could not be made; see above.")


def install_requirements(groups: Sequence[str]) -> None:
    note(f"installing packages from PyPI: {', '.join(groups)}")
    pip_install(*(f"--requirement={requirement_file(group)}" for group in groups))


def install(distribution: Distribution, command: str) -> None:
    folder = str(distribution.folder)
    if not distribution.sources:
        # What few commands need of it stands in a group of requirements of its own.
        pip_install("--no-build-isolation", "--no-deps", "--editable", folder)
        return
    note(f"building {distribution.name} with {command}")
    build = f"--config-settings=build-dir={build_folder(distribution.name)}"
    pip_install("--no-build-isolation", build, folder, CXX=command)
    join_compile_commands()


def join_compile_commands() -> None:
    builds = [build_folder(one.name) for one in DISTRIBUTIONS if one.sources]
    compile_commands.join([*builds, *map(cpp_tests_folder, CPP_TESTS)])


def cpp_tests_folder(source: Path) -> Path:
    return build_folder("-".join(source.relative_to(ROOT).parts))


def build_folder(name: str) -> Path:
    """A folder for each interpreter and compiler: objects of one are of no use to another."""
    kind = f"{name}-{sys.implementation.cache_tag}"
    if TOOLCHAIN:
        kind += f"-{hashlib.sha256(json.dumps(TOOLCHAIN).encode()).hexdigest()[:8]}"
    return ROOT / "build" / kind


def pip_install(*arguments: str, **variables: str) -> None:
    options = ["--quiet", "--no-input", "--disable-pip-version-check"]
    if python("-m", "pip", "install", *options, *arguments, **variables) != 0:
        raise Failure(
            "pip could not install what the command needs; see above. It takes packages from "
            "PyPI, or from the mirror that PIP_INDEX_URL names."
        )


def python(*arguments: str, **variables: str) -> int:
    return tool("python", *arguments, **variables)


def tool(name: str, *arguments: str, **variables: str) -> int:
    """Run a program of the environment in the project's folder, as if it were active."""
    path = f"{PYTHON.parent}{os.pathsep}{os.environ.get('PATH', os.defpath)}"
    env = {**os.environ, "PATH": path, "VIRTUAL_ENV": str(VENV), **variables}
    return subprocess.run([PYTHON.parent / name, *arguments], cwd=ROOT, env=env).returncode
