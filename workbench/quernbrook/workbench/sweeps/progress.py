"""The bar of a sweep, on the standard error."""

from __future__ import annotations

from types import TracebackType

from rich.console import Console
from rich.progress import (
    BarColumn,
    MofNCompleteColumn,
    Progress,
    Task,
    TextColumn,
    TimeRemainingColumn,
)
from rich.text import Text


class SweepProgress:
    """How many runs have ended, how many a second, the time left, and how many have failed.

    Without a terminal nothing is shown.
    """

    def __init__(self, total: int, *, is_wanted: bool) -> None:
        console = Console(stderr=True)
        self._bar = Progress(
            BarColumn(),
            MofNCompleteColumn(),
            _Rate(),
            TimeRemainingColumn(),
            TextColumn("{task.fields[failures]:,} failed"),
            console=console,
            disable=not (is_wanted and console.is_terminal),
        )
        self._task = self._bar.add_task("", total=total, failures=0)
        self._failures = 0

    def __enter__(self) -> SweepProgress:
        self._bar.start()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self._bar.stop()

    def advance(self, ended: int, failed: int) -> None:
        self._failures += failed
        self._bar.update(self._task, advance=ended, failures=self._failures)


class _Rate(TextColumn):
    def __init__(self) -> None:
        super().__init__("")

    def render(self, task: Task) -> Text:
        speed = task.finished_speed or task.speed
        return Text("" if speed is None else f"{speed:,.1f} runs/s")
