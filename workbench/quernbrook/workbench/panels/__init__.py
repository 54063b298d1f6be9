"""Fields over dates and symbols."""

from quernbrook.workbench.panels.files import read_panel, write_frame, write_panel
from quernbrook.workbench.panels.panel import Panel, PanelError
from quernbrook.workbench.panels.synthetic import synthetic_panel

__all__ = ["Panel", "PanelError", "read_panel", "synthetic_panel", "write_frame", "write_panel"]
