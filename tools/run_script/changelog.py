"""CHANGELOG.md: what it says of one version, and how what is unreleased becomes a version."""

import re
from datetime import date

UNRELEASED = "## [Unreleased]"
HEADING = re.compile(r"^## \[(.+?)\]", re.MULTILINE)


def versions(text: str) -> list[str]:
    return [name for name in HEADING.findall(text) if name != "Unreleased"]


def section(text: str, name: str) -> str | None:
    """What stands below a version's heading; None without the heading."""
    for heading in HEADING.finditer(text):
        if heading.group(1) == name:
            below = text[heading.end() :].partition("\n")[2]
            following = HEADING.search(below)
            return below[: following.start() if following else None].strip()
    return None


def has_entry(section: str) -> bool:
    return any(line.startswith("- ") for line in section.splitlines())


def with_release(text: str, version: str, day: date) -> str:
    return text.replace(UNRELEASED, f"{UNRELEASED}\n\n## [{version}] - {day.isoformat()}", 1)
