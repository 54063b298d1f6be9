"""The version that all distributions share, and what they ask of one another."""

import re
from pathlib import Path

from messages import Failure
from project import DISTRIBUTIONS, ROOT

VERSION = re.compile(r"(?:0|[1-9]\d*)(?:\.(?:0|[1-9]\d*)){2}")
VERSION_LINE = re.compile(r'^version = "(.*)"$', re.MULTILINE)
OUR_REQUIREMENT = re.compile(r'^    "(quernbrook-[a-z-]+)[^"]*",$', re.MULTILINE)


def is_version(text: str) -> bool:
    return VERSION.fullmatch(text) is not None


def order_of(version: str) -> tuple[int, ...]:
    return tuple(int(part) for part in version.split("."))


def bound_of(version: str) -> str:
    """What a distribution of this version takes of the others: up to the next that may break."""
    major, minor, _ = order_of(version)
    return f">={version},<{major + 1}" if major else f">={version},<0.{minor + 1}"


def files(root: Path = ROOT) -> list[Path]:
    return [root / one.folder.relative_to(ROOT) / "pyproject.toml" for one in DISTRIBUTIONS]


def version_in(file: Path) -> str:
    found = VERSION_LINE.findall(file.read_text("utf-8"))
    if len(found) != 1:
        raise Failure(
            f"{file} has {len(found)} lines like 'version = \"0.1.0\"': leave the distribution's "
            "version as the only one."
        )
    return str(found[0])


def with_version(text: str, version: str) -> str:
    """The text of a pyproject.toml for another version."""
    text = VERSION_LINE.sub(f'version = "{version}"', text)
    return OUR_REQUIREMENT.sub(rf'    "\g<1>{bound_of(version)}",', text)
