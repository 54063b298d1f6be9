"""Colours that differ for colour-blind eyes, too, and stand out from light and dark pages."""

from __future__ import annotations

from quernbrook.workbench.seeing.causes import Cause

CURVES = ("#2f7fc1", "#d97706", "#0f9f6e", "#b5569a")
NO_VALUE = "#9a9a9a"
CAUSES = {
    Cause.VALUE: "#2f7fc1",
    Cause.WARM_UP: "#b8b8b8",
    Cause.UNIVERSE: "#6b5b95",
    Cause.MISSING_DATA: "#d97706",
    Cause.COMPUTED: "#c02942",
}
