"""What the script says to the person who typed the command."""

import sys


class Failure(Exception):
    """What stops a command, as one sentence that tells what is missing and how to get it."""


def note(text: str) -> None:
    print(f"run: {text}", file=sys.stderr, flush=True)
