"""A release: one commit and one tag, or nothing at all. What is pushed is left to a person."""

import subprocess
from collections.abc import Callable, Sequence
from datetime import date
from pathlib import Path

import changelog
import versions
from messages import Failure, note

BRANCH = "main"


def prepare_release(root: Path, arguments: Sequence[str], run_tests: Callable[[], int]) -> int:
    version = version_of(arguments)
    refuse_unfit(root, version)
    before = git(root, "rev-parse", "HEAD")
    note(f"testing before the release of {version}")
    if run_tests() != 0:
        raise Failure(
            f"the tests failed, so {version} isn't released: repair what they show above, commit "
            f"it and type './run release {version}' again."
        )
    # Tests take their time, and somebody may have worked meanwhile.
    refuse_unfit(root, version)
    if git(root, "rev-parse", "HEAD") != before:
        raise Failure(
            f"{BRANCH} moved on from {before[:12]} while the tests ran, so that they say nothing "
            f"of it: type './run release {version}' again."
        )
    commit_and_tag(root, version, before)
    print(
        f"Version {version} is committed on {BRANCH} and tagged v{version}. Nothing is pushed.\n"
        f"  git show v{version}  # look at it\n"
        f"  git push --atomic origin {BRANCH} v{version}  # release it\n"
        f"  git tag --delete v{version} && git reset --hard HEAD~1  # or take it back"
    )
    return 0


def version_of(arguments: Sequence[str]) -> str:
    if len(arguments) != 1:
        got = f"got {' '.join(arguments)}" if arguments else "got none"
        raise Failure(f"release takes one version, {got}: type './run release 1.2.3'.")
    if not versions.is_version(arguments[0]):
        raise Failure(
            f"'{arguments[0]}' is no version: give three whole numbers with dots between them, as "
            "in './run release 1.2.3'."
        )
    return arguments[0]


def refuse_unfit(root: Path, version: str) -> None:
    branch = git(root, "branch", "--show-current")
    if branch != BRANCH:
        place = f"the branch '{branch}'" if branch else "no branch"
        raise Failure(f"releases are made on {BRANCH}, and this is {place}: 'git switch {BRANCH}'.")
    changes = git(root, "status", "--porcelain").splitlines()
    if changes:
        more = f" and {len(changes) - 3} more" if len(changes) > 3 else ""
        listed = ", ".join(change[2:].strip() for change in changes[:3])
        raise Failure(
            f"the tree has changes that aren't committed, in {listed}{more}: commit them, or put "
            "them aside with 'git stash --include-untracked'."
        )
    refuse_old(root, version)
    unreleased = changelog.section(changelog_file(root).read_text("utf-8"), "Unreleased")
    if unreleased is None:
        raise Failure(
            f"CHANGELOG.md has no heading '{changelog.UNRELEASED}': add it above the last "
            "release's, with what changed since."
        )
    if not changelog.has_entry(unreleased):
        raise Failure(
            f"CHANGELOG.md has no line '- …' under {changelog.UNRELEASED[3:]}: write there what "
            f"{version} changes for its users, and commit it."
        )


def refuse_old(root: Path, version: str) -> None:
    tags = git(root, "tag", "--list", "v*").splitlines()
    if f"v{version}" in tags:
        commit = git(root, "rev-parse", "--short", f"v{version}^{{commit}}")
        raise Failure(
            f"the tag v{version} is there already, on {commit}: give a later version. If it was "
            f"never pushed, 'git tag --delete v{version}' takes it back."
        )
    in_changelog = changelog.versions(changelog_file(root).read_text("utf-8"))
    released = [*(tag.removeprefix("v") for tag in tags), *in_changelog]
    latest = max(filter(versions.is_version, released), key=versions.order_of, default=None)
    if latest is not None and versions.order_of(version) <= versions.order_of(latest):
        raise Failure(f"{version} isn't newer than {latest}, the last release: give a later one.")
    for file in versions.files(root):
        current = versions.version_in(file)
        if versions.order_of(version) < versions.order_of(current):
            raise Failure(
                f"{version} is older than {current}, the version in {file.relative_to(root)}: give "
                f"{current} or a later one."
            )


def changelog_file(root: Path) -> Path:
    return root / "CHANGELOG.md"


def commit_and_tag(root: Path, version: str, before: str) -> None:
    log = changelog_file(root)
    notes = changelog.section(log.read_text("utf-8"), "Unreleased")
    texts = {log: changelog.with_release(log.read_text("utf-8"), version, date.today())}
    for file in versions.files(root):
        texts[file] = versions.with_version(file.read_text("utf-8"), version)
    names = [str(file.relative_to(root)) for file in texts]
    try:
        for file, text in texts.items():
            file.write_text(text, "utf-8")
        git(root, "commit", "--quiet", f"--message=Release {version}", "--only", "--", *names)
        # Lines that start with '#' are headings of the changelog.
        options = ["--annotate", "--cleanup=verbatim", f"--message=Release {version}\n\n{notes}\n"]
        git(root, "tag", *options, f"v{version}")
    except BaseException:
        subprocess.run(["git", "tag", "--delete", f"v{version}"], cwd=root, capture_output=True)
        git(root, "reset", "--quiet", "--soft", before)
        git(root, "restore", "--staged", "--worktree", f"--source={before}", "--", *names)
        note(f"{version} isn't released: all files, {BRANCH} and the tags are as they were.")
        raise


def git(root: Path, *arguments: str) -> str:
    finished = subprocess.run(["git", *arguments], cwd=root, capture_output=True, text=True)
    if finished.returncode != 0:
        said = " ".join((finished.stderr or finished.stdout).split())
        raise Failure(f"'git {arguments[0]}' failed: {said}")
    return finished.stdout.rstrip()
