"""A browser without a window and without network."""

from __future__ import annotations

import json
import os
import shutil
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest
from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.service import Service


@contextmanager
def open_browser(profile: Path, *reachable: str) -> Iterator[webdriver.Chrome]:
    """It finds no hosts but those named. Skips the test where there is no browser.

    profile: a folder of its own.
    """
    program, driver = shutil.which("chromium"), shutil.which("chromedriver")
    if program is None or driver is None:
        pytest.skip("no browser: on Debian, 'apt-get install chromium chromium-driver'")
    rules = ["MAP * ~NOTFOUND", *(f"EXCLUDE {host}" for host in reachable)]
    options = webdriver.ChromeOptions()
    options.binary_location = program
    for argument in (
        "--headless=new",
        # Root may not make the browser's own sandbox.
        "--no-sandbox",
        "--disable-dev-shm-usage",
        "--window-size=1200,900",
        f"--user-data-dir={profile}",
        f"--host-resolver-rules={', '.join(rules)}",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    # What is preloaded into the interpreter is not for the browser.
    variables = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    try:
        started = webdriver.Chrome(options, Service(driver, env=variables))
    except WebDriverException as error:
        pytest.skip(f"the browser doesn't start here: {error.msg}")
    with started as opened:
        yield opened


def requested(browser: webdriver.Chrome) -> list[str]:
    """The addresses that pages asked for since it was last asked."""
    events = [json.loads(entry["message"])["message"] for entry in browser.get_log("performance")]
    return [
        event["params"]["request"]["url"]
        for event in events
        if event["method"] == "Network.requestWillBeSent"
    ]


def complaints(browser: webdriver.Chrome) -> list[Any]:
    """What the console got since it was last asked."""
    return [entry for entry in browser.get_log("browser") if entry["level"] != "INFO"]
