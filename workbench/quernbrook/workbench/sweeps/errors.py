from __future__ import annotations


class SweepError(Exception):
    """Why a sweep can't begin or go on; the message says what to do. What was done is kept."""
