"""A figure of matplotlib that notebooks show."""

from __future__ import annotations

import io

from matplotlib.figure import Figure as _Figure


class Figure(_Figure):
    """Shown as a PNG also where pyplot, which tells notebooks of figures, was never imported."""

    def _repr_png_(self) -> bytes:
        file = io.BytesIO()
        self.savefig(file, format="png")
        return file.getvalue()
