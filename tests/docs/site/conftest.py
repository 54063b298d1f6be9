"""The site that `./run docs` built, served on this machine and visited once in a browser."""

from __future__ import annotations

import os
from collections.abc import Iterator
from dataclasses import dataclass
from functools import partial
from http.server import SimpleHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from threading import Thread
from typing import Any

import pytest
from selenium.webdriver import Chrome
from support.browsers import complaints, open_browser, requested

PHONE = {"width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True}

# What a page links to, holds and shows. `id` and `name` are what fragments of links may name.
CONTENTS = """
return {
  links: [...document.querySelectorAll("a[href]")].map((one) => one.href),
  places: [...document.querySelectorAll("[id], a[name]")].map((one) => one.id || one.name),
  images: [...document.images].map((one) => (
    {source: one.src, text: one.alt, width: one.complete ? one.naturalWidth : 0})),
};
"""
# What sticks out of the page, or out of a box that hides it, so that nobody can scroll to it.
CUT = """
const parts = ["pre", "table", "img", "svg", "dt", "h1", "h2", "h3", "p", "li"];
const wide = document.querySelectorAll(parts.map((one) => `article ${one}`).join());
const edges = [...wide].filter((one) => one.checkVisibility()).map((one) => {
  for (let box = one; box.localName !== "article"; box = box.parentElement) {
    const overflow = getComputedStyle(box).overflowX;
    if (overflow === "auto" || overflow === "scroll") return [box, box];
    if (overflow === "hidden" && box.scrollWidth > box.clientWidth + 1) return [one, null];
  }
  return [one, one];
});
return edges
  .filter(([one, box]) => box === null
    || box.getBoundingClientRect().right > document.documentElement.clientWidth + 1)
  .map(([one]) => one.outerHTML.slice(0, 120));
"""
# How far the contents stick out of the page on the right. The theme lets nobody scroll there.
SIDEWAYS = """
const article = document.querySelector("article");
const page = document.documentElement;
const right = article.getBoundingClientRect().left + article.scrollWidth;
return Math.max(0, right - page.clientWidth, page.scrollWidth - page.clientWidth);
"""


@dataclass(frozen=True)
class Visit:
    """What was seen of a page."""

    links: list[str]
    places: set[str]
    images: list[dict[str, Any]]
    complaints: list[Any]
    requested: list[str]
    cut: list[str]
    sideways: int
    cut_on_phone: list[str]
    sideways_on_phone: int


class QuietHandler(SimpleHTTPRequestHandler):
    def log_message(self, format: str, *args: Any) -> None:
        pass


@pytest.fixture(scope="session")
def site() -> Path:
    """The folder of the site."""
    if "DOCUMENTATION_SITE" not in os.environ:
        pytest.skip("no site: './run docs' builds it, and runs these tests")
    return Path(os.environ["DOCUMENTATION_SITE"])


@pytest.fixture(scope="session")
def address(site: Path) -> Iterator[str]:
    """Where the site is served."""
    handler = partial(QuietHandler, directory=str(site))
    with ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_port}/"
        server.shutdown()


@pytest.fixture(scope="session")
def browser(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Chrome]:
    with open_browser(tmp_path_factory.mktemp("profile"), "127.0.0.1") as opened:
        yield opened


@pytest.fixture(scope="session")
def visits(browser: Chrome, site: Path, address: str) -> dict[str, Visit]:
    """Of every page, by its address."""
    files = sorted(site.rglob("*.html"))
    pages = [address + file.relative_to(site).as_posix() for file in files]
    return {page: visit(browser, page) for page in pages if "/_static/" not in page}


def visit(browser: Chrome, page: str) -> Visit:
    complaints(browser), requested(browser)
    browser.get(page)
    contents = browser.execute_script(CONTENTS)
    widths = [browser.execute_script(script) for script in (CUT, SIDEWAYS)]
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", PHONE)
    widths += [browser.execute_script(script) for script in (CUT, SIDEWAYS)]
    browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
    return Visit(
        contents["links"],
        set(contents["places"]),
        contents["images"],
        complaints(browser),
        requested(browser),
        *widths,
    )
