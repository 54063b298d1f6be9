"""What is wrong with what a tracing tool was given."""

from __future__ import annotations


class TraceError(ValueError):
    """A row, column, node or file that isn't there or doesn't fit; the message says what does."""
