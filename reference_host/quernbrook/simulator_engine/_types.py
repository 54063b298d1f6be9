"""Exceptions of a run, and the signal and stage records that a context holds."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    import numpy as np
    from numpy.typing import NDArray
    from quernbrook.functions._typed_shapes import FunctionGraphNode


class SimulatorEngineError(Exception):
    """Base of everything that a run raises by intent."""


class EvaluationError(SimulatorEngineError):
    """Bad data or a bad graph at run time.

    An empty filtration carries ``filter_diagnostics``, a dict that tells what was filtered out.
    """

    filter_diagnostics: dict[str, Any]


class EvaluationShapeError(SimulatorEngineError):
    """A shape or dtype fault of a feature or of a function's result."""


class FunctionExecutionError(SimulatorEngineError):
    """A faulty configuration or instance, or a function that failed while a row was evaluated."""


class FiltrationResolutionError(SimulatorEngineError):
    """The filtration library failed; ``filter_diagnostics`` tells the cause."""

    filter_diagnostics: dict[str, Any]


@dataclass(eq=False)
class UsefulSignal:
    """A precomputed signal that reductions combine.

    weights: float64 array of shape (T, N_alloc); None only where weights are not read.
    pnl: None, or a float64 array of shape (T, number of PnL columns), the columns being those
        that the context's ``column_labels`` name.
    fields: what filters look at, a number or a text by field name.
    """

    weights: NDArray[np.float64] | None
    pnl: NDArray[np.float64] | None = None
    fields: Mapping[str, float | str] = field(default_factory=dict)


@dataclass(eq=False)
class TransformStage:
    """One stage of a transform pipeline.

    ``options`` maps each option's name to the graph that the stage lays around the signal, the
    signal's place in it being marked by a node of the kind "signal". An option mapped to None
    leaves the signal as it is, and so does the option None. ``default`` is the option taken when
    the context's ``metaparameters`` name none for this stage.
    """

    name: str
    default: str | None = None
    options: Mapping[str, FunctionGraphNode | None] = field(default_factory=dict)
