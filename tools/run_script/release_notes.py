"""Prints the changelog's section of a tag, if that is the tag of all distributions' version."""

import sys
from pathlib import Path

import changelog
import versions
from messages import Failure
from project import ROOT


def release_notes(root: Path, tag: str) -> str:
    for file in versions.files(root):
        version = versions.version_in(file)
        if tag != f"v{version}":
            raise Failure(
                f"the tag is {tag}, but {file.relative_to(root)} has version {version}: make tags "
                "with './run release'."
            )
    notes = changelog.section((root / "CHANGELOG.md").read_text("utf-8"), tag.removeprefix("v"))
    if not notes:
        raise Failure(f"CHANGELOG.md has no section of {tag}: make tags with './run release'.")
    return notes


if __name__ == "__main__":
    try:
        print(release_notes(ROOT, sys.argv[1]))
    except Failure as failure:
        sys.exit(f"run: {failure}")
