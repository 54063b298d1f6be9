"""Finding a C++20 compiler."""

import os
import shlex
import shutil
import subprocess
import tempfile
from pathlib import Path

from messages import Failure, note

TEST_PROGRAM = """\
#include <bit>
#include <concepts>
#include <span>
#include <string>
#include <utility>

template <std::integral Number>
int width_of(std::span<const Number> numbers) { return std::bit_width(numbers[0]); }

int main() {
    const unsigned numbers[] = {8};
    const auto [prefix, width] = std::pair('a', 4);
    const auto starts = [&] { return std::string("a").starts_with(prefix); };
    return width_of<unsigned>(numbers) == width && starts() ? 0 : 1;
}
"""


def find() -> str:
    """The command of a compiler that builds a C++20 program, $CXX before all others."""
    chosen = os.environ.get("CXX")
    if chosen:
        if compiles(chosen):
            return chosen
        raise Failure(
            f"CXX={chosen} does not compile C++20: name a compiler that does (GCC 11 or Clang 16 "
            "and newer), or unset CXX."
        )
    found = first_working()
    if found is None and os.geteuid() == 0 and shutil.which("apt-get"):
        note("no C++20 compiler found; installing g++ with apt-get")
        install = "apt-get update && apt-get install -y g++"
        subprocess.run(
            ["sh", "-c", install],
            env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            check=False,
        )
        found = first_working()
    if found is None:
        raise Failure(
            "no C++20 compiler was found: install one (on Debian 'apt-get install g++', on macOS "
            "'xcode-select --install') or name it with CXX=/path/to/compiler."
        )
    return found


def first_working() -> str | None:
    return next((name for name in ("c++", "g++", "clang++") if compiles(name)), None)


def compiles(command: str) -> bool:
    with tempfile.TemporaryDirectory() as folder:
        source = Path(folder, "program.cpp")
        source.write_text(TEST_PROGRAM)
        program = Path(folder, "program")
        arguments = [*shlex.split(command), "-std=c++20", str(source), "-o", str(program)]
        try:
            subprocess.run(arguments, capture_output=True, stdin=subprocess.DEVNULL, check=True)
        except (OSError, subprocess.CalledProcessError):
            return False
        # /bin/true compiles anything, into nothing.
        return program.is_file()
