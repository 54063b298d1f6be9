"""Fields over dates and symbols."""

from quernbrook.reference_host.checkpoints import CheckpointError
from quernbrook.workbench.panels.checkpoints import Checkpoint, load_checkpoint, save_checkpoint
from quernbrook.workbench.panels.context_options import ContextOptions
from quernbrook.workbench.panels.files import read_long, read_panel, write_frame, write_panel
from quernbrook.workbench.panels.panel import Panel, PanelError
from quernbrook.workbench.panels.synthetic import synthetic_panel

__all__ = [
    "Checkpoint",
    "CheckpointError",
    "ContextOptions",
    "Panel",
    "PanelError",
    "load_checkpoint",
    "read_long",
    "read_panel",
    "save_checkpoint",
    "synthetic_panel",
    "write_frame",
    "write_panel",
]
