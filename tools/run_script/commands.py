"""The commands of ./run, for an interpreter that the script has chosen."""

import os
import subprocess
import sys
from collections.abc import Callable, Sequence
from pathlib import Path

from environment import NATIVE_BUILD, PYTHON, ROOT, VENV, prepare
from messages import Failure, note

KERNEL_TESTS = ROOT / "tests" / "kernels"
MODULE = "quernbrook.simulator_engine.expression_evaluator"


def demo(arguments: Sequence[str]) -> int:
    prepare(["build", "demo"])
    return python("demo", *arguments)


def test(arguments: Sequence[str]) -> int:
    # The tests run the demonstration and the code in the guide, too.
    prepare(["build", "test", "demo", "docs"])
    kernels = 0
    if not arguments and (KERNEL_TESTS / "CMakeLists.txt").is_file():
        build = NATIVE_BUILD.with_name(f"{NATIVE_BUILD.name}-kernels")
        kernels = cmake_build(KERNEL_TESTS, build) or tool(
            "ctest", "--test-dir", str(build), "--output-on-failure"
        )
    return python("-m", "pytest", *arguments) or kernels


def bench(arguments: Sequence[str]) -> int:
    prepare(["build", "test", "bench"])
    return python("-m", "pytest", "bench", *arguments)


def check(arguments: Sequence[str]) -> int:
    if arguments:
        raise Failure("check takes no arguments.")
    prepare(["build", "test", "demo", "docs", "check"])
    steps: dict[str, Callable[[], int]] = {
        "ruff check": lambda: python("-m", "ruff", "check"),
        "ruff format": lambda: python("-m", "ruff", "format", "--check"),
        "clang-format": lambda: tool("clang-format", "--dry-run", "--Werror", *cpp_files()),
        "mypy": lambda: python("-m", "mypy"),
        "stubtest": lambda: python("-m", "mypy.stubtest", MODULE),
        "compiler warnings": lambda: cmake_build(
            ROOT, ROOT / "build" / "check", "-DEXPRESSION_EVALUATOR_WARNINGS_AS_ERRORS=ON"
        ),
    }
    faulty = []
    for name, step in steps.items():
        note(name)
        if step() != 0:
            faulty.append(name)
    if faulty:
        raise Failure(f"found faults: {', '.join(faulty)}.")
    return 0


def cpp_files() -> list[str]:
    return [
        str(path)
        for folder in (ROOT / "simulator_engine", KERNEL_TESTS)
        for path in sorted(folder.rglob("*"))
        if path.suffix in {".cpp", ".hpp"}
    ]


def cmake_build(source: Path, build: Path, *options: str) -> int:
    configure = ["-S", str(source), "-B", str(build), "-G", "Ninja", *options]
    return tool("cmake", *configure) or tool("cmake", "--build", str(build))


def python(*arguments: str) -> int:
    return tool("python", *arguments)


def tool(name: str, *arguments: str) -> int:
    """Run a program of the environment in the project's folder, as if it were active."""
    path = f"{PYTHON.parent}{os.pathsep}{os.environ.get('PATH', os.defpath)}"
    env = {**os.environ, "PATH": path, "VIRTUAL_ENV": str(VENV)}
    return subprocess.run([PYTHON.parent / name, *arguments], cwd=ROOT, env=env).returncode


COMMANDS = {"demo": demo, "test": test, "bench": bench, "check": check}


def main() -> int:
    command, *arguments = sys.argv[1:]
    try:
        return COMMANDS[command](arguments)
    except (Failure, OSError) as failure:
        print(f"run: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130


if __name__ == "__main__":
    sys.exit(main())
