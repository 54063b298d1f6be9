"""The kernels as other compilers build them, and on other processors."""

from __future__ import annotations

import shutil
from pathlib import Path

import nox
from builds import INTERPRETERS, ROOT, ROW_KERNELS, empty_folder

KERNEL_TESTS = (ROOT / "tests" / "kernels", ROW_KERNELS / "tests" / "kernels")
# Each takes minutes where a processor is emulated.
TOO_LONG_TO_EMULATE = "ten million rows|more and more strictly"


@nox.session(python=INTERPRETERS[0])
@nox.parametrize("compiler", ["g++-11", "clang++-16"])
def compilers(session: nox.Session, compiler: str) -> None:
    """The oldest compilers that are promised: no warning, and kernels that pass their tests."""
    session.install(f"--requirement={ROOT / 'requirements' / 'build.txt'}")
    for source, options in {
        ROOT: ["-DEXPRESSION_EVALUATOR_WARNINGS_AS_ERRORS=ON"],
        ROOT / "tests" / "kernels": [],
    }.items():
        chosen = [f"-DCMAKE_CXX_COMPILER={compiler}", *options]
        build = cmake_build(session, source, compiler, *chosen)
    session.run("ctest", "--test-dir", str(build), "--output-on-failure")


@nox.session(python=INTERPRETERS[0])
def arm64(session: nox.Session) -> None:
    """The kernels' C++ tests on an emulated ARM processor, and the bits that they compute there."""
    packages = {
        "aarch64-linux-gnu-g++": "g++-aarch64-linux-gnu",
        "qemu-aarch64": "qemu-user",
    }
    require_programs(session, packages)
    session.install(f"--requirement={ROOT / 'requirements' / 'build.txt'}")
    emulator = ["qemu-aarch64", "-L", "/usr/aarch64-linux-gnu"]
    for source in KERNEL_TESTS:
        build = cmake_build(
            session,
            source,
            "arm64",
            "-DCMAKE_SYSTEM_NAME=Linux",
            "-DCMAKE_SYSTEM_PROCESSOR=aarch64",
            "-DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++",
            f"-DCMAKE_CROSSCOMPILING_EMULATOR={';'.join(emulator)}",
        )
        session.run(
            *("ctest", "--test-dir", str(build), "--output-on-failure"),
            *("--exclude-regex", TOO_LONG_TO_EMULATE),
        )
    here = cmake_build(session, KERNEL_TESTS[1], "here", target="row_kernel_bits")
    compare_bits(session, here, {"ARM": [*emulator, str(build / "row_kernel_bits")]})


@nox.session(python=INTERPRETERS[0])
def instruction_sets(session: nox.Session) -> None:
    """The bits that row kernels compute on this processor, and on emulated older ones."""
    require_programs(session, {"qemu-x86_64": "qemu-user"})
    session.install(f"--requirement={ROOT / 'requirements' / 'build.txt'}")
    here = cmake_build(session, KERNEL_TESTS[1], "here", target="row_kernel_bits")
    program = str(here / "row_kernel_bits")
    # The first has x86-64-v2 and no more, the second x86-64-v3.
    others = {name: ["qemu-x86_64", "-cpu", name, program] for name in ("Nehalem", "Haswell")}
    compare_bits(session, here, others)


def compare_bits(session: nox.Session, build: Path, others: dict[str, list[str]]) -> None:
    """Digests of what the program in `build` computes with those that others print."""

    def digests(*command: str) -> dict[str, str]:
        printed = session.run(*command, external=True, silent=True)
        lines = (line.split(" ", 2) for line in str(printed).splitlines())
        # A "c" marks functions of the C library, whose last bits are its own.
        return {name: digest for digest, mark, name in lines if mark == "-"}

    expected = digests(str(build / "row_kernel_bits"))
    for processor, command in others.items():
        found = digests(*command)
        if different := [name for name in expected if found.get(name) != expected[name]]:
            session.error(f"{processor}: other bits than here from {', '.join(different)}")
        session.log(f"{processor}: the same bits as here, of {len(expected)} functions")


def require_programs(session: nox.Session, packages: dict[str, str]) -> None:
    if missing := [package for program, package in packages.items() if not shutil.which(program)]:
        session.error(f"missing; on Debian: apt-get install {' '.join(missing)} doctest-dev")


def cmake_build(
    session: nox.Session, source: Path, name: str, *options: str, target: str = "all"
) -> Path:
    build = empty_folder(session, "-".join(["build", name, *source.relative_to(ROOT).parts]))
    session.run("cmake", "-S", str(source), "-B", str(build), "-G", "Ninja", *options)
    session.run("cmake", "--build", str(build), "--target", target)
    return build
