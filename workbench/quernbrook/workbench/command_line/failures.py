"""From exceptions to a line on the standard error and an exit code."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager

import typer

EVALUATION_FAILED = 1
WRONG_INPUT = 2


class InputError(ValueError):
    """Something that the user gave and can put right; the message says how."""


@contextmanager
def failures_told() -> Iterator[None]:
    """End the program for wrong input and for evaluations that fail. Anything else is a fault of
    the program, and passes."""
    try:
        yield
    except InputError as error:
        raise _told(str(error), WRONG_INPUT) from None
    except RecursionError:
        # The evaluator goes as deep as the interpreter's recursion limit.
        raise _told("the graph nests too deeply to be evaluated", EVALUATION_FAILED) from None
    except Exception as error:
        code = _exit_code(error)
        if code is None:
            raise
        raise _told(str(error), code) from None


def _told(text: str, code: int) -> typer.Exit:
    typer.echo(f"quernbrook: {text}", err=True)
    return typer.Exit(code)


def _exit_code(error: Exception) -> int | None:
    # Only now, when there is no hurry.
    from quernbrook.functions._typed_shapes import SchemaError
    from quernbrook.simulator_engine._types import SimulatorEngineError
    from quernbrook.workbench import ExplanationError, FormulaError, GraphError, GraphJsonError
    from quernbrook.workbench.live.errors import LiveError
    from quernbrook.workbench.panels import CheckpointError, PanelError
    from quernbrook.workbench.tracing.errors import TraceError

    wrong_input = (
        CheckpointError,
        ExplanationError,
        FormulaError,
        GraphError,
        GraphJsonError,
        LiveError,
        PanelError,
        TraceError,
    )
    if isinstance(error, wrong_input):
        return WRONG_INPUT
    if isinstance(error, SimulatorEngineError | SchemaError):
        return EVALUATION_FAILED
    return None
