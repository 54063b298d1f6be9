"""The commands of ./run, for an interpreter that the script has chosen."""

import argparse
import os
import shlex
import shutil
import subprocess
import sys
from collections.abc import Callable, Sequence
from pathlib import Path

import compiler
import system_packages
from environment import (
    build_folder,
    cpp_tests_folder,
    join_compile_commands,
    prepare,
    python,
    tool,
)
from messages import Failure, note
from project import COMPILED_MODULES, CPP_FOLDERS, CPP_TESTS, NOT_SANITIZED, ROOT
from releasing import prepare_release

DOCTEST_FOLDERS = ("/usr/include", "/usr/local/include")
RESULTS = ROOT / "build" / "bench-results.json"
# What writes results where they belong.
BENCH_SCRIPTS = {"page": "bench.report", "keep": "bench.releases"}
BROWSER = ("chromium", "chromium-driver")
SITE = ROOT / "build" / "site"


def demo(arguments: Sequence[str]) -> int:
    prepare(["build", "demo"])
    return python("demo", *arguments)


def alphas(arguments: Sequence[str]) -> int:
    prepare(["build", "workbench"])
    return python("-m", "quernbrook.workbench.alphas", *arguments)


def test(arguments: Sequence[str]) -> int:
    # The tests run the demonstration and the code on the pages, too.
    prepare(["build", "test", "demo", "docs", "workbench"])
    others = list(arguments)
    quick = "--quick" in others
    if quick:
        others.remove("--quick")
    cpp_failed = 0 if others else cpp_tests()
    if not others:
        get_browser()
    options = ["-m", "not slow", "--numprocesses=2"] if quick else []
    failed = python("-m", "pytest", *options, *others)
    if cpp_failed:
        note("C++ tests failed; their output stands above pytest's.")
    return failed or cpp_failed


def cpp_tests() -> int:
    if not doctest_is_there():
        system_packages.install("doctest-dev", "doctest is missing")
    if not doctest_is_there():
        note(
            "the C++ tests are skipped: they need doctest (on Debian, 'apt-get install "
            "doctest-dev')."
        )
        return 0
    failed = 0
    for source in CPP_TESTS:
        build = cpp_tests_folder(source)
        failed |= cmake_build(source, build) or tool(
            "ctest", "--test-dir", str(build), "--output-on-failure"
        )
    join_compile_commands()
    return failed


def get_browser() -> None:
    """For the tests of reports and of the documentation, which are skipped without one."""
    if not browser_is_there():
        system_packages.install(" ".join(BROWSER), "a browser is missing")
    if not browser_is_there():
        note(
            "the tests in a browser are skipped: they need chromium and chromedriver (on Debian, "
            f"'apt-get install {' '.join(BROWSER)}')."
        )


def browser_is_there() -> bool:
    return all(shutil.which(program) for program in ("chromium", "chromedriver"))


def doctest_is_there() -> bool:
    return any(Path(folder, "doctest", "doctest.h").is_file() for folder in DOCTEST_FOLDERS)


def bench(arguments: Sequence[str]) -> int:
    options, others = bench_options(arguments)
    commit = commit_of(options.compare) if options.compare else ""
    prepare(["build", "test", "bench", "workbench"])
    variables = {}
    if commit:
        name = f"revision {options.compare}"
        variables = {"OTHER_MODULE_FILE": str(build_revision(commit)), "OTHER_MODULE_NAME": name}
    scripts = [name for name in ("page", "keep") if getattr(options, name)]
    if not scripts:
        return python("-m", "pytest", "bench", *others, **variables)
    RESULTS.parent.mkdir(exist_ok=True)
    failed = python("-m", "pytest", "bench", *others, f"--benchmark-json={RESULTS}")
    if failed:
        raise Failure(
            "the benchmarks failed, see above; the page and what is kept stay as they are."
        )
    return max(python("-m", BENCH_SCRIPTS[name], str(RESULTS)) for name in scripts)


def docs(arguments: Sequence[str]) -> int:
    """Build the documentation as a site, and check it; what follows goes to pytest."""
    prepare(["build", "test", "docs", "workbench"])
    get_browser()
    # Pages that are no more would stay in it.
    shutil.rmtree(SITE, ignore_errors=True)
    build = ["--builder", "html", "--fail-on-warning", "--fresh-env", "--quiet"]
    doctrees = ["--doctree-dir", str(ROOT / "build" / "doctrees")]
    failed = python("-m", "sphinx", *build, *doctrees, "docs", str(SITE))
    if failed:
        return failed
    note(f"the documentation lies in {SITE / 'index.html'}; checking it")
    return python("-m", "pytest", "tests/docs/site", *arguments, DOCUMENTATION_SITE=str(SITE))


def bench_options(arguments: Sequence[str]) -> tuple[argparse.Namespace, list[str]]:
    """The options of ./run bench, and what goes to pytest."""
    parser = argparse.ArgumentParser(add_help=False, allow_abbrev=False, exit_on_error=False)
    parser.add_argument("--compare", metavar="REV")
    parser.add_argument("--page", action="store_true")
    parser.add_argument("--keep", action="store_true")
    try:
        options, others = parser.parse_known_args(arguments)
    except argparse.ArgumentError as error:
        raise Failure(f"bench: {error} (see ./run --help).") from None
    if options.compare and (options.page or options.keep):
        raise Failure("--compare measures two revisions; --page and --keep are for runs of one.")
    return options, others


def commit_of(revision: str) -> str:
    command = ["git", "rev-parse", "--verify", "--quiet", f"{revision}^{{commit}}"]
    found = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    if found.returncode != 0:
        raise Failure(f"--compare {revision}: git knows no such revision of this project.")
    return found.stdout.strip()


def build_revision(commit: str) -> Path:
    """The file of the module as it was at a commit."""
    folder = ROOT / "build" / "revisions" / commit[:12]
    source, site = folder / "source", folder / f"site-{sys.implementation.cache_tag}"
    pattern = "quernbrook/simulator_engine/expression_evaluator.*.so"
    if not any(site.glob(pattern)):
        note(f"building the module of {commit[:12]}")
        source.mkdir(parents=True, exist_ok=True)
        archive = folder / "source.tar"
        subprocess.run(["git", "archive", f"--output={archive}", commit], cwd=ROOT, check=True)
        shutil.unpack_archive(archive, source)
        build = folder / f"build-{sys.implementation.cache_tag}"
        failed = cmake_build(source, build, "-DCMAKE_BUILD_TYPE=Release") or tool(
            "cmake", "--install", str(build), "--prefix", str(site)
        )
        if failed:
            raise Failure(f"the module of {commit[:12]} could not be built.")
    (file,) = site.glob(pattern)
    return file


def check(arguments: Sequence[str]) -> int:
    if arguments:
        return long_check(arguments)
    prepare(["build", "test", "demo", "docs", "workbench", "check"])
    steps: dict[str, Callable[[], int]] = {
        "ruff check": lambda: python("-m", "ruff", "check"),
        "ruff format": lambda: python("-m", "ruff", "format", "--check"),
        "bare C API": lambda: python(str(ROOT / "tools" / "bare_c_api.py")),
        "workflows": check_workflows,
        "clang-format": lambda: tool("clang-format", "--dry-run", "--Werror", *cpp_files()),
        "mypy": lambda: python("-m", "mypy"),
        "stubtest": lambda: python(
            "-m",
            "mypy.stubtest",
            "--allowlist",
            str(ROOT / "tools" / "stubtest_allowlist.txt"),
            *COMPILED_MODULES,
        ),
        "compiler warnings": lambda: cmake_build(
            ROOT, build_folder("check"), "-DEXPRESSION_EVALUATOR_WARNINGS_AS_ERRORS=ON"
        ),
        "compiler warnings of the row kernels": lambda: cmake_build(
            ROOT / "row_kernels",
            build_folder("check-row-kernels"),
            "-DROW_KERNELS_WARNINGS_AS_ERRORS=ON",
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


def check_workflows() -> int:
    """Their form, and what would let a stranger's change do more than it should."""
    files = [str(file) for file in sorted((ROOT / ".github" / "workflows").glob("*.yml"))]
    schema = ["--builtin-schema", "vendor.github-workflows"]
    return tool("check-jsonschema", *schema, *files) or tool(
        "zizmor", "--offline", "--no-progress", str(ROOT / ".github")
    )


def long_check(arguments: Sequence[str]) -> int:
    checks = {"--sanitize": sanitize, "--long": long_tests}
    unknown = [argument for argument in arguments if argument not in checks]
    if unknown:
        raise Failure(f"check takes --sanitize and --long; got {' '.join(unknown)}.")
    prepare(["build", "test", "demo", "docs", "workbench", "check"])
    return max(checks[argument]() for argument in arguments)


def long_tests() -> int:
    return max(
        python("-m", "pytest", "tests/properties", HYPOTHESIS_PROFILE="long"),
        python("-m", "pytest", "tests/workbench", "--stress", "-m", "stress"),
    )


def sanitize() -> int:
    """The tests of the module on a build that stops at the first bad access or undefined step."""
    build = build_folder("sanitize")
    site = build / "site"
    built = cmake_build(
        ROOT,
        build,
        "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
        "-DEXPRESSION_EVALUATOR_SANITIZERS=address,undefined",
    ) or tool("cmake", "--install", str(build), "--prefix", str(site))
    if built != 0:
        return built
    folders = sorted(path for path in (ROOT / "tests").iterdir() if any(path.rglob("test_*.py")))
    return python(
        "-m",
        "pytest",
        *(str(folder) for folder in folders if folder.name not in NOT_SANITIZED),
        # It counts the blocks of the interpreter's own pools, which are switched off below.
        "--ignore=tests/trust/test_reference_leaks.py",
        EVALUATOR_TESTS="native",
        # Before the installed module.
        PYTHONPATH=os.pathsep.join([str(site), str(ROOT / "reference_host")]),
        LD_PRELOAD=" ".join(runtime_library(name) for name in ("libasan.so", "libubsan.so")),
        # The interpreter's own pools would hide what lies beside a block.
        PYTHONMALLOC="malloc",
        # The interpreter leaves objects behind at its end.
        ASAN_OPTIONS="detect_leaks=0:abort_on_error=1",
        UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1",
    )


def runtime_library(name: str) -> str:
    command = [*shlex.split(compiler.find()), f"-print-file-name={name}"]
    found = subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()
    if not Path(found).is_absolute():
        raise Failure(f"{command[0]} has no {name}: name a GCC with its sanitizers with CXX=g++.")
    return found


def cpp_files() -> list[str]:
    return [
        str(path)
        for folder in CPP_FOLDERS
        for path in sorted(folder.rglob("*"))
        if path.suffix in {".cpp", ".hpp"}
    ]


def cmake_build(source: Path, build: Path, *options: str) -> int:
    configure = ["-S", str(source), "-B", str(build), "-G", "Ninja", *options]
    return tool("cmake", *configure) or tool("cmake", "--build", str(build))


def release(arguments: Sequence[str]) -> int:
    return prepare_release(ROOT, arguments, run_tests=lambda: test([]))


COMMANDS = {
    "demo": demo,
    "alphas": alphas,
    "test": test,
    "bench": bench,
    "docs": docs,
    "check": check,
    "release": release,
}


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
