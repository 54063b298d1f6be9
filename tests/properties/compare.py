"""Two evaluators, one case: where they disagree, and the program that shows it."""

from __future__ import annotations

from dataclasses import fields
from types import ModuleType
from typing import Any

import pytest
from properties.cases import Case, RunCase
from properties.observe import observe

#: The plain evaluator has nobody but itself to disagree with.
NATIVE = pytest.mark.parametrize("evaluator", ["native"], indirect=True)

PROGRAM = """\
# Run it with tests/, reference_host/ and the module on PYTHONPATH.
from importlib import import_module
from math import inf, nan

from properties.cases import {kinds}
from properties.compare import require_agreement

case = {case!r}
require_agreement(import_module("{left}"), import_module("{right}"), case)
"""


def differences(left: Any, right: Any, where: str = "") -> list[str]:
    """Where two observations differ, the first few places."""
    if type(left) is type(right) and isinstance(left, dict) and left.keys() == right.keys():
        return [
            found for key in left for found in differences(left[key], right[key], f"{where}/{key}")
        ]
    if type(left) is type(right) and isinstance(left, (list, tuple)):
        found = [
            difference
            for index, (one, other) in enumerate(zip(left, right, strict=False))
            for difference in differences(one, other, f"{where}[{index}]")
        ]
        if len(left) != len(right):
            found.append(f"{where}: {len(left)} items against {len(right)}")
        return found
    if left == right and type(left) is type(right):
        return []
    return [f"{where}: {left!r}  is not  {right!r}"]


def require_agreement(reference: ModuleType, evaluator: ModuleType, case: RunCase) -> None:
    expected, observed = observe(reference, case), observe(evaluator, case)
    # Nearly always so, and found out at a fraction of the cost.
    if repr(expected) == repr(observed):
        return
    found = differences(expected, observed)
    shown = "\n  ".join(found[:5])
    assert not found, (
        f"{reference.__name__} and {evaluator.__name__} disagree on\n\n"
        f"{program(reference, evaluator, case)}\nat\n  {shown}"
    )


def program(reference: ModuleType, evaluator: ModuleType, case: RunCase) -> str:
    """A program that compares the evaluators on this case alone."""
    return PROGRAM.format(
        kinds=", ".join(sorted(kinds_of(case))),
        case=case,
        left=reference.__name__,
        right=evaluator.__name__,
    )


def kinds_of(value: Any) -> set[str]:
    """The names of the case classes that a case is made of."""
    if isinstance(value, tuple):
        return {name for item in value for name in kinds_of(item)}
    if not isinstance(value, Case):
        return set()
    below = [getattr(value, field.name) for field in fields(value)]  # type: ignore[arg-type]
    return kinds_of(tuple(below)) | {type(value).__name__}
