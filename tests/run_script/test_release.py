"""./run release in repositories of the test's own: what it makes, what it refuses, what it undoes."""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Callable
from datetime import date
from pathlib import Path
from types import ModuleType

import pytest

ROOT = Path(__file__).parents[2]
FOLDERS = (".", "reference_host", "row_kernels", "workbench")
CHANGELOG = """\
# Changelog

## [Unreleased]

### Added

- A function that everybody
  waited for.

## [0.1.0] - 2026-01-02

### Added

- The first of all.
"""
SECTION = "### Added\n\n- A function that everybody\n  waited for."


@pytest.fixture
def releasing(monkeypatch: pytest.MonkeyPatch) -> ModuleType:
    monkeypatch.syspath_prepend(str(ROOT / "tools" / "run_script"))
    import releasing

    return releasing


@pytest.fixture
def failure(releasing: ModuleType) -> type[Exception]:
    return releasing.Failure


@pytest.fixture
def repository(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    """A project whose last release was 0.1.0, with this project's own pyproject.toml files."""
    monkeypatch.setenv("GIT_CONFIG_GLOBAL", "/dev/null")
    monkeypatch.setenv("GIT_CONFIG_NOSYSTEM", "1")
    for folder in FOLDERS:
        (tmp_path / folder).mkdir(exist_ok=True)
        shutil.copy(ROOT / folder / "pyproject.toml", tmp_path / folder)
        write_version(tmp_path / folder / "pyproject.toml", "0.1.0")
    (tmp_path / "CHANGELOG.md").write_text(CHANGELOG)
    git(tmp_path, "init", "--quiet", "--initial-branch=main")
    git(tmp_path, "config", "user.name", "A person")
    git(tmp_path, "config", "user.email", "person@example.org")
    commit(tmp_path)
    return tmp_path


def git(repository: Path, *arguments: str) -> str:
    command = ["git", *arguments]
    finished = subprocess.run(command, cwd=repository, check=True, capture_output=True, text=True)
    return finished.stdout.rstrip()


def commit(repository: Path) -> None:
    git(repository, "add", "--all")
    git(repository, "commit", "--quiet", "--allow-empty", "--message=Work")


def state_of(repository: Path) -> tuple[str, ...]:
    """The commit, the tags, what differs from the commit, and every file."""
    files = [path for path in repository.rglob("*") if path.is_file() and ".git" not in path.parts]
    return (
        git(repository, "rev-parse", "HEAD"),
        git(repository, "tag", "--list"),
        git(repository, "status", "--porcelain"),
        *sorted(f"{path} {path.read_text()}" for path in files),
    )


def write_version(file: Path, version: str) -> None:
    lines = file.read_text().splitlines(keepends=True)
    (place,) = (i for i, line in enumerate(lines) if line.startswith("version = "))
    lines[place] = f'version = "{version}"\n'
    file.write_text("".join(lines))


def passing() -> int:
    return 0


def never() -> int:
    raise AssertionError("a release that is refused runs no tests")


def test_a_release_is_one_commit_and_one_tag(
    releasing: ModuleType, repository: Path, capsys: pytest.CaptureFixture[str]
) -> None:
    before = git(repository, "rev-parse", "HEAD")
    assert releasing.prepare_release(repository, ["0.2.0"], passing) == 0
    assert git(repository, "rev-parse", "HEAD~1") == before
    assert git(repository, "status", "--porcelain") == ""
    assert git(repository, "log", "-1", "--format=%s") == "Release 0.2.0"
    assert git(repository, "rev-parse", "v0.2.0^{commit}") == git(repository, "rev-parse", "HEAD")
    assert git(repository, "cat-file", "-t", "v0.2.0") == "tag"
    message = git(repository, "tag", "--list", "--format=%(contents)", "v0.2.0")
    assert message == f"Release 0.2.0\n\n{SECTION}"
    for folder in FOLDERS:
        assert 'version = "0.2.0"' in (repository / folder / "pyproject.toml").read_text()
    workbench = (repository / "workbench" / "pyproject.toml").read_text()
    assert '"quernbrook-expression-evaluator>=0.2.0,<0.3",' in workbench
    assert '"quernbrook-reference-host>=0.2.0,<0.3",' in workbench
    assert 'name = "quernbrook-workbench"' in workbench
    heading = f"## [Unreleased]\n\n## [0.2.0] - {date.today().isoformat()}\n\n{SECTION}\n"
    expected = CHANGELOG.replace(f"## [Unreleased]\n\n{SECTION}\n", heading)
    assert (repository / "CHANGELOG.md").read_text() == expected
    assert "git push --atomic origin main v0.2.0" in capsys.readouterr().out


def test_releases_follow_each_other(
    releasing: ModuleType, failure: type[Exception], repository: Path
) -> None:
    releasing.prepare_release(repository, ["0.9.0"], passing)
    with pytest.raises(failure, match=r"no line '- …' under \[Unreleased\]: write there what 1\.0"):
        releasing.prepare_release(repository, ["1.0.0"], never)
    file = repository / "CHANGELOG.md"
    file.write_text(file.read_text().replace("## [Unreleased]\n", "## [Unreleased]\n\n- More.\n"))
    commit(repository)
    releasing.prepare_release(repository, ["0.10.0"], passing)
    assert git(repository, "tag", "--list", "--format=%(contents:body)", "v0.10.0") == "- More."


def test_the_first_release_may_have_the_version_that_stands_there(
    releasing: ModuleType, repository: Path
) -> None:
    file = repository / "CHANGELOG.md"
    file.write_text(file.read_text().partition("## [0.1.0]")[0])
    commit(repository)
    assert releasing.prepare_release(repository, ["0.1.0"], passing) == 0
    assert git(repository, "tag", "--list") == "v0.1.0"


@pytest.mark.parametrize(
    ("version", "bound"),
    [("0.2.0", ">=0.2.0,<0.3"), ("0.9.3", ">=0.9.3,<0.10"), ("1.4.2", ">=1.4.2,<2")],
)
def test_distributions_take_one_another_up_to_the_next_break(
    releasing: ModuleType, version: str, bound: str
) -> None:
    assert releasing.versions.bound_of(version) == bound


def test_the_distributions_agree(releasing: ModuleType) -> None:
    versions = releasing.versions
    files = versions.files()
    (version,) = {versions.version_in(file) for file in files}
    assert {file.parent.relative_to(ROOT).as_posix() for file in files} == set(FOLDERS)
    for file in files:
        assert versions.with_version(file.read_text(), version) == file.read_text()
    assert f'"quernbrook-reference-host{versions.bound_of(version)}"' in files[-1].read_text()


def nothing(repository: Path) -> None:
    pass


def on_another_branch(repository: Path) -> None:
    git(repository, "switch", "--quiet", "--create", "idea")


def on_no_branch(repository: Path) -> None:
    git(repository, "switch", "--quiet", "--detach")


def with_changes(repository: Path) -> None:
    for number in range(3):
        (repository / f"note{number}").touch()
    (repository / "CHANGELOG.md").write_text("")


def with_the_tag(repository: Path) -> None:
    git(repository, "tag", "v0.2.0")


def with_a_later_tag(repository: Path) -> None:
    git(repository, "tag", "v0.10.0")
    git(repository, "tag", "v-of-somebody")


def with_a_later_version(repository: Path) -> None:
    write_version(repository / "row_kernels" / "pyproject.toml", "0.3.0")
    commit(repository)


def with_two_versions(repository: Path) -> None:
    file = repository / "reference_host" / "pyproject.toml"
    file.write_text(file.read_text() + 'version = "7"\n')
    commit(repository)


def without_a_heading(repository: Path) -> None:
    file = repository / "CHANGELOG.md"
    file.write_text(file.read_text().replace("## [Unreleased]", "## Unreleased"))
    commit(repository)


def without_an_entry(repository: Path) -> None:
    file = repository / "CHANGELOG.md"
    file.write_text(file.read_text().replace("- A function that everybody\n  waited for.\n", ""))
    commit(repository)


@pytest.mark.parametrize(
    ("arguments", "prepare", "said"),
    [
        ([], nothing, "release takes one version, got none: type './run release 1.2.3'."),
        (["0.2.0", "now"], nothing, "release takes one version, got 0.2.0 now: type"),
        (["0.2"], nothing, "'0.2' is no version: give three whole numbers"),
        (["v0.2.0"], nothing, "'v0.2.0' is no version"),
        (["0.02.0"], nothing, "'0.02.0' is no version"),
        (["0.2.0rc1"], nothing, "'0.2.0rc1' is no version"),
        (["0.2.0"], on_another_branch, "made on main, and this is the branch 'idea': 'git switch"),
        (["0.2.0"], on_no_branch, "releases are made on main, and this is no branch: 'git switch"),
        (["0.2.0"], with_changes, "in CHANGELOG.md, note0, note1 and 1 more: commit them, or put"),
        (["0.2.0"], with_the_tag, "the tag v0.2.0 is there already, on "),
        (["0.9.0"], with_a_later_tag, "0.9.0 isn't newer than 0.10.0, the last release: give a la"),
        (["0.1.0"], nothing, "0.1.0 isn't newer than 0.1.0, the last release: give a later one."),
        (["0.0.9"], nothing, "0.0.9 isn't newer than 0.1.0, the last release: give a later one."),
        (["0.2.0"], with_a_later_version, "older than 0.3.0, the version in row_kernels/pyproject"),
        (["0.2.0"], with_two_versions, "reference_host/pyproject.toml has 2 lines like 'version ="),
        (["0.2.0"], without_a_heading, "CHANGELOG.md has no heading '## [Unreleased]': add it"),
        (["0.2.0"], without_an_entry, "no line '- …' under [Unreleased]: write there what 0.2.0"),
    ],
)
def test_refused_before_any_test(
    releasing: ModuleType,
    failure: type[Exception],
    repository: Path,
    arguments: list[str],
    prepare: Callable[[Path], None],
    said: str,
) -> None:
    prepare(repository)
    before = state_of(repository)
    with pytest.raises(failure) as caught:
        releasing.prepare_release(repository, arguments, never)
    assert said in str(caught.value)
    assert "\n" not in str(caught.value)
    assert state_of(repository) == before


def test_red_tests_are_no_release(
    releasing: ModuleType, failure: type[Exception], repository: Path
) -> None:
    before = state_of(repository)
    with pytest.raises(failure, match=r"the tests failed, so 0\.2\.0 isn't released: repair"):
        releasing.prepare_release(repository, ["0.2.0"], lambda: 1)
    assert state_of(repository) == before


def test_what_changes_while_the_tests_run_is_refused(
    releasing: ModuleType, failure: type[Exception], repository: Path
) -> None:
    def leave_a_file() -> int:
        (repository / "left").touch()
        return 0

    with pytest.raises(failure, match="aren't committed, in left: commit them"):
        releasing.prepare_release(repository, ["0.2.0"], leave_a_file)

    def work() -> int:
        commit(repository)
        return 0

    commit(repository)
    with pytest.raises(failure, match=r"main moved on from \w{12} while the tests ran"):
        releasing.prepare_release(repository, ["0.2.0"], work)
    assert git(repository, "tag", "--list") == ""


def hook_that_refuses(repository: Path) -> None:
    hook = repository / ".git" / "hooks" / "pre-commit"
    hook.parent.mkdir(exist_ok=True)
    hook.write_text("#!/bin/sh\necho no such ticket >&2\nexit 1\n")
    hook.chmod(0o755)


def tags_that_cannot_be_signed(repository: Path) -> None:
    git(repository, "config", "tag.gpgSign", "true")
    git(repository, "config", "gpg.program", "/bin/false")


@pytest.mark.parametrize(
    ("prepare", "said"),
    [
        (hook_that_refuses, "'git commit' failed: no such ticket"),
        (tags_that_cannot_be_signed, "'git tag' failed: error: gpg failed to sign"),
    ],
)
def test_nothing_half_done_stays_behind(
    releasing: ModuleType,
    failure: type[Exception],
    repository: Path,
    capsys: pytest.CaptureFixture[str],
    prepare: Callable[[Path], None],
    said: str,
) -> None:
    prepare(repository)
    before = state_of(repository)
    with pytest.raises(failure, match=said):
        releasing.prepare_release(repository, ["0.2.0"], passing)
    assert state_of(repository) == before
    assert "0.2.0 isn't released: all files, main and the tags are as they were" in (
        capsys.readouterr().err
    )


def test_a_release_that_is_interrupted_leaves_nothing(
    releasing: ModuleType, repository: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    before = state_of(repository)
    real = releasing.git

    def interrupted_after_the_tag(root: Path, *arguments: str) -> str:
        printed = real(root, *arguments)
        if arguments[:2] == ("tag", "--annotate"):
            raise KeyboardInterrupt
        return printed

    monkeypatch.setattr(releasing, "git", interrupted_after_the_tag)
    with pytest.raises(KeyboardInterrupt):
        releasing.prepare_release(repository, ["0.2.0"], passing)
    assert state_of(repository) == before


def test_notes_are_the_section_of_the_changelog(releasing: ModuleType, repository: Path) -> None:
    import release_notes

    releasing.prepare_release(repository, ["0.2.0"], passing)
    assert release_notes.release_notes(repository, "v0.2.0") == SECTION


@pytest.mark.parametrize(
    ("tag", "said"),
    [
        ("v0.3.0", "the tag is v0.3.0, but pyproject.toml has version 0.2.0: make tags with"),
        ("0.2.0", "the tag is 0.2.0, but pyproject.toml has version 0.2.0"),
        ("v0.2.0", "the tag is v0.2.0, but workbench/pyproject.toml has version 0.1.0"),
    ],
)
def test_notes_of_another_version_are_refused(
    releasing: ModuleType, failure: type[Exception], repository: Path, tag: str, said: str
) -> None:
    import release_notes

    releasing.prepare_release(repository, ["0.2.0"], passing)
    if tag == "v0.2.0":
        write_version(repository / "workbench" / "pyproject.toml", "0.1.0")
    with pytest.raises(failure) as caught:
        release_notes.release_notes(repository, tag)
    assert said in str(caught.value)


def test_notes_without_a_section_are_refused(
    releasing: ModuleType, failure: type[Exception], repository: Path
) -> None:
    import release_notes

    (repository / "CHANGELOG.md").write_text("# Changelog\n")
    with pytest.raises(failure, match=r"CHANGELOG\.md has no section of v0\.1\.0"):
        release_notes.release_notes(repository, "v0.1.0")
