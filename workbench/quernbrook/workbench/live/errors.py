"""What goes wrong in a live run."""


class LiveError(ValueError):
    """Rows or a folder that a live run can't go on with; the message says what to do."""
