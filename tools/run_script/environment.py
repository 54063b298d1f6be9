"""The project's virtual environment: made, repaired and kept up to date.

What stands in it is written down in a state file inside it, so that a call with nothing to do costs
a few file listings.
"""

import fcntl
import hashlib
import json
import os
import platform
import shutil
import subprocess
import sys
import sysconfig
import tempfile
from collections.abc import Iterable, Sequence
from pathlib import Path
from typing import Any

import compiler
from messages import Failure, note

ROOT = Path(__file__).resolve().parents[2]
VENV = ROOT / ".venv"
PYTHON = VENV / "bin" / "python"
STATE_FILE = VENV / "run-state.json"
LOGS = ROOT / "build" / "logs"
# A folder for each interpreter: objects of one are of no use to another.
NATIVE_BUILD = ROOT / "build" / f"{sys.implementation.cache_tag}-{sysconfig.get_platform()}"
ROW_KERNEL_BUILD = NATIVE_BUILD.with_name(f"{NATIVE_BUILD.name}-row-kernels")
NATIVE_SOURCES = ("pyproject.toml", "CMakeLists.txt", "simulator_engine")
HOST = ROOT / "reference_host"
WORKBENCH = ROOT / "workbench"
ROW_KERNELS = ROOT / "row_kernels"
# Its own sources, and what it shares with the module.
ROW_KERNEL_SOURCES = (ROW_KERNELS, ROOT / "simulator_engine")
# CMake reads these once, when it configures a build folder.
TOOLCHAIN_VARIABLES = ("CXX", "CXXFLAGS", "LDFLAGS", "CMAKE_ARGS", "SKBUILD_CMAKE_DEFINE")

State = dict[str, Any]


def prepare(groups: Sequence[str]) -> None:
    """Bring the environment to where both distributions and the requirement groups stand in it."""
    with open(ROOT / "run") as lock:
        # Two commands at once would install into one environment.
        fcntl.flock(lock, fcntl.LOCK_EX)
        require_writable()
        state = read_state()
        requirements = {group: digest_of([requirement_file(group)]) for group in groups}
        toolchain = {name: os.environ.get(name, "") for name in TOOLCHAIN_VARIABLES}
        native = digest_of([ROOT / name for name in NATIVE_SOURCES])
        host = digest_of([HOST, WORKBENCH])
        row_kernels = digest_of(ROW_KERNEL_SOURCES)

        missing = {
            group for group in groups if state["requirements"].get(group) != requirements[group]
        }
        native_due = (
            state["native"] != native or state["toolchain"] != toolchain or "build" in missing
        )
        host_due = state["host"] != host
        row_kernels_due = native_due or state["row_kernels"] != row_kernels
        if not (missing or native_due or host_due or row_kernels_due):
            return

        # Before minutes of downloads, not after them.
        command = compiler.find() if row_kernels_due else ""
        if not state["usable"]:
            make_venv()
        if missing:
            install_requirements(groups, state)
            state["requirements"] |= requirements
            save(state)
        if native_due:
            if state["toolchain"] != toolchain:
                shutil.rmtree(NATIVE_BUILD, ignore_errors=True)
                shutil.rmtree(ROW_KERNEL_BUILD, ignore_errors=True)
            install_native(command, state)
            state |= {"native": native, "toolchain": toolchain}
            save(state)
        if row_kernels_due:
            install_row_kernels(command, state)
            state["row_kernels"] = row_kernels
            save(state)
        if host_due:
            install_host(state)
            state["host"] = host
            save(state)


def require_writable() -> None:
    try:
        with tempfile.TemporaryFile(dir=ROOT):
            pass
        LOGS.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise Failure(
            f"the project's folder {ROOT} cannot be written to ({error.strerror}): copy it to one "
            "that can, since .venv and build are made inside it."
        ) from None


def read_state() -> State:
    """What stands in the environment; `usable` is false if it has to be made anew."""
    nothing: State = {
        "usable": False,
        "root": str(ROOT),
        "requirements": {},
        "native": None,
        "toolchain": None,
        "host": None,
        "row_kernels": None,
        "distributions": [],
    }
    if not runs_on_this_interpreter():
        return nothing
    try:
        state: State = json.loads(STATE_FILE.read_text())
    except FileNotFoundError:
        return nothing | {"usable": True}
    except ValueError:
        return nothing
    # Scripts in an environment name its old place after a move; an installation that was killed
    # leaves anything.
    if state.keys() != nothing.keys() or state["root"] != str(ROOT) or not state["usable"]:
        return nothing
    if not set(state["distributions"]) <= set(distributions()):
        return nothing | {"usable": True}
    return state


def runs_on_this_interpreter() -> bool:
    try:
        answer = subprocess.run(
            [PYTHON, "-c", "import pip, sys; print(sys._base_executable, *sys.version_info[:3])"],
            capture_output=True,
            stdin=subprocess.DEVNULL,
            text=True,
            check=True,
        )
    except (OSError, subprocess.CalledProcessError):
        return False
    executable, *version = answer.stdout.rsplit(maxsplit=3)
    return (os.path.realpath(executable), ".".join(version)) == (
        os.path.realpath(sys.executable),
        platform.python_version(),
    )


def save(state: State) -> None:
    state["distributions"] = distributions()
    STATE_FILE.write_text(json.dumps(state, indent=1))


def distributions() -> list[str]:
    return sorted(path.name for path in VENV.glob("lib/python*/site-packages/*.dist-info"))


def requirement_file(group: str) -> Path:
    return ROOT / "requirements" / f"{group}.txt"


def digest_of(roots: Iterable[Path]) -> str:
    """A digest of the files' names, sizes and times, which change whenever their contents do."""
    digest = hashlib.sha256()
    for root in roots:
        for path in [root, *sorted(root.rglob("*"))]:
            if path.is_file() and "__pycache__" not in path.parts:
                status = path.stat()
                digest.update(f"{path}\0{status.st_size}\0{status.st_mtime_ns}\0".encode())
    return digest.hexdigest()


def make_venv() -> None:
    note(f"making .venv with CPython {platform.python_version()}")
    command = [sys.executable, "-m", "venv", "--clear", str(VENV)]
    log = LOGS / "venv.log"
    if not logged(command, log):
        show(log)
        raise Failure(f"the virtual environment .venv could not be made (see {log}).")


def install_requirements(groups: Sequence[str], state: State) -> None:
    note(f"installing packages from PyPI: {', '.join(groups)}")
    arguments = [argument for group in groups for argument in ("-r", str(requirement_file(group)))]
    pip_install(arguments, LOGS / "requirements.log", state)


def install_native(command: str, state: State) -> None:
    note(f"building the module with {command}")
    build_dir = f"--config-settings=build-dir={NATIVE_BUILD}"
    arguments = ["--no-build-isolation", build_dir, str(ROOT)]
    pip_install(arguments, LOGS / "native.log", state, CXX=command)


def install_row_kernels(command: str, state: State) -> None:
    note(f"building the row kernels with {command}")
    build_dir = f"--config-settings=build-dir={ROW_KERNEL_BUILD}"
    arguments = ["--no-build-isolation", build_dir, str(ROW_KERNELS)]
    pip_install(arguments, LOGS / "row_kernels.log", state, CXX=command)


def install_host(state: State) -> None:
    note("installing the reference host and the workbench")
    # What the workbench needs stands in a group of its own, since few commands use it.
    arguments = ["--no-build-isolation", "--no-deps", str(HOST), str(WORKBENCH)]
    pip_install(arguments, LOGS / "host.log", state)


def pip_install(arguments: Sequence[str], log: Path, state: State, **variables: str) -> None:
    """Run pip; a run that is killed leaves an environment marked as not usable."""
    save(state | {"usable": False})
    command = [str(PYTHON), "-m", "pip", "install", "--no-input", "--disable-pip-version-check"]
    done = logged([*command, *arguments], log, **variables)
    state["usable"] = True
    save(state)
    if done:
        return
    output = log.read_text(errors="replace")
    if "connection broken by" in output or "Failed to establish a new connection" in output:
        raise Failure(
            "PyPI could not be reached: connect this machine to the network, or point pip at a "
            f"mirror with PIP_INDEX_URL (pip's output: {log})."
        )
    show(log)
    raise Failure(f"pip could not install what the command needs (the whole output: {log}).")


def logged(command: Sequence[str], log: Path, **variables: str) -> bool:
    """Run a command with its output in a file, as a shell with the environment active would."""
    path = f"{PYTHON.parent}{os.pathsep}{os.environ.get('PATH', os.defpath)}"
    env = {**os.environ, "PATH": path, "VIRTUAL_ENV": str(VENV), **variables}
    with open(log, "w") as output:
        finished = subprocess.run(
            command,
            env=env,
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            check=False,
        )
    return finished.returncode == 0


def show(log: Path) -> None:
    print(*log.read_text(errors="replace").splitlines()[-60:], sep="\n", file=sys.stderr)
