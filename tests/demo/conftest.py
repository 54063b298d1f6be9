"""The demonstration's modules, which import each other as `python demo` lets them."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Callable
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "demo"))

RunDemo = Callable[..., "subprocess.CompletedProcess[str]"]


@pytest.fixture
def run_demo() -> RunDemo:
    def run(*arguments: object) -> subprocess.CompletedProcess[str]:
        command = [sys.executable, str(ROOT / "demo"), *map(str, arguments)]
        return subprocess.run(command, capture_output=True, text=True)

    return run


@pytest.fixture(scope="session")
def small_file(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """650 days of six shares, the last of which is listed on day 100."""
    import prices

    loaded = prices.load(ROOT / "demo" / "data" / "sp500_prices.csv.gz")
    lines = [",".join(("Date", *loaded.tickers[:6]))]
    for day, (date, values) in enumerate(zip(loaded.dates[:650], loaded.values, strict=False)):
        cells = [str(value) for value in values[:6]]
        if day < 100:
            cells[-1] = ""
        lines.append(",".join((str(date), *cells)))
    path = tmp_path_factory.mktemp("prices") / "small.csv"
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    return path
