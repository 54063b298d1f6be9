"""Packages of the system: on Debian and its like, root gets them installed."""

import os
import shutil
import subprocess

from messages import note


def install(packages: str, reason: str) -> None:
    """Try to; whoever needs them looks whether they are there now."""
    if os.geteuid() != 0 or not shutil.which("apt-get"):
        return
    note(f"{reason}; installing {packages} with apt-get")
    subprocess.run(
        ["sh", "-c", f"apt-get update && apt-get install -y {packages}"],
        env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"},
        stdin=subprocess.DEVNULL,
        capture_output=True,
    )
