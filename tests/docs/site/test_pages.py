"""Every page of the site in a browser: its links, pictures and widths, and what it asks for."""

from __future__ import annotations

from pathlib import Path
from typing import Any
from urllib.parse import unquote, urldefrag

#: By address; what is seen of each is in conftest.py.
Visits = dict[str, Any]


def test_every_kind_of_page_is_there(visits: Visits, address: str) -> None:
    for page in (
        "index",
        "installation",
        "notebooks/why_nan",
        "guide/running",
        "reference",
        "reference/workbench/panels",
        "architecture",
        "performance",
        "support",
        "security",
    ):
        assert f"{address}{page}.html" in visits


def leads_somewhere(link: str, visits: Visits) -> bool:
    whole, fragment = urldefrag(link)
    target = whole.partition("?")[0]
    target += "index.html" if target.endswith("/") else ""
    return target in visits and (not fragment or unquote(fragment) in visits[target].places)


def test_internal_links_lead_somewhere(visits: Visits, address: str, site: Path) -> None:
    links = {
        (page, link)
        for page, seen in visits.items()
        for link in seen.links
        if link.startswith(address)
    }
    assert len(links) > 1_000
    # Sources and pictures are no pages.
    files = {address + file.relative_to(site).as_posix() for file in site.rglob("*.*")}
    others = files - visits.keys()
    lost = {
        (page, link)
        for page, link in links
        if link not in others and not leads_somewhere(link, visits)
    }
    assert sorted(lost) == []


def test_pictures_load_and_are_told_of(visits: Visits) -> None:
    pictures = [(page, image) for page, seen in visits.items() for image in seen.images]
    assert len(pictures) > 10
    assert [(page, image) for page, image in pictures if not image["width"]] == []
    # Of those without a text of their own it is the file's address; buttons are the theme's.
    ours = [(page, image) for page, image in pictures if "/_static/" not in image["source"]]
    texts = [(page, image["text"]) for page, image in ours]
    assert [(page, text) for page, text in texts if len(text) < 20 or "/" in text] == []


def test_nothing_is_asked_of_other_hosts(visits: Visits, address: str) -> None:
    for page, seen in visits.items():
        assert page in seen.requested
        # What the browser has in itself, "chrome:" and "data:", is no host.
        hosts = [one for one in seen.requested if one.startswith(("http", "ws"))]
        assert [one for one in hosts if not one.startswith(address)] == [], page


def test_the_console_stays_empty(visits: Visits) -> None:
    assert [(page, one) for page, seen in visits.items() for one in seen.complaints] == []


def test_nothing_is_cut(visits: Visits) -> None:
    assert [(page, part) for page, seen in visits.items() for part in seen.cut] == []


def test_nothing_is_cut_on_a_phone(visits: Visits) -> None:
    assert [(page, part) for page, seen in visits.items() for part in seen.cut_on_phone] == []


def test_no_page_scrolls_sideways(visits: Visits) -> None:
    assert [(page, seen.sideways) for page, seen in visits.items() if seen.sideways] == []


def test_no_page_scrolls_sideways_on_a_phone(visits: Visits) -> None:
    wide = [(page, seen) for page, seen in visits.items() if seen.sideways_on_phone]
    assert [(page, seen.sideways_on_phone) for page, seen in wide] == []
