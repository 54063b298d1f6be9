"""A context of a foreign class."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import StageData


def look_alike(**attributes: Any) -> SimpleNamespace:
    """An object with just the attributes that a run over a leaf reads, one feature named "x"."""
    required: dict[str, Any] = {
        "features": (np.arange(6.0).reshape(3, 2),),
        "feature_index": {"x": 0},
        "useful_signals": {},
        "universe": None,
        "universe_mask": None,
        "transform_pipeline": [],
        "stage_data": StageData(),
    }
    return SimpleNamespace(**{**required, **attributes})
