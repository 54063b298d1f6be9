"""The reference lists every attribute of a context, and what it says of errors is raised."""

from __future__ import annotations

import json
import re
from collections.abc import Callable
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine import expression_evaluator as evaluator
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import (
    EvaluationContext,
    EvaluationResult,
    FunctionState,
    extract_filtration_weights,
    generate_node_identities,
    invalidate_graph_evaluation_caches,
)
from support.graphs import feature, rotation

PAGE = (Path(__file__).parents[2] / "docs" / "reference.md").read_text("utf-8")
MATRIX = np.arange(6.0).reshape(3, 2)
PRIVATE = {
    "_collect_node_outputs",
    "_collect_states",
    "_precomputed_node_outputs",
    "_precomputed_node_nan_source",
}


def names_of(section: str) -> list[str]:
    """The names in the first column of a section's tables."""
    text = PAGE.split(f"### {section}\n")[1].split("\n#")[0]
    return [
        name
        for line in re.findall(r"^\| (`.+?) \|", text, re.MULTILINE)
        for name in re.findall(r"`(.+?)`", line)
    ]


def test_every_attribute_of_a_context_is_listed_once() -> None:
    listed = names_of("Attributes of a context")
    context = EvaluationContext((MATRIX,), {"price": 0})
    assert sorted(listed) == sorted({*vars(context), *PRIVATE})
    assert not PRIVATE & vars(context).keys()


def test_every_public_function_and_class_is_among_those_that_raise() -> None:
    listed = {re.split(r"\W", name)[0] for name in names_of("What raises what")}
    public = {name for name in vars(evaluator) if callable(getattr(evaluator, name))}
    own = {name for name in public if getattr(evaluator, name).__module__ == evaluator.__name__}
    assert {name for name in own if not name.startswith("_")} - listed == {"EvaluationResult"}


def deep(levels: int = 3_000) -> Any:
    graph = feature("a")
    for _ in range(levels):
        graph = rotation("f", graph)
    return graph


def endless() -> dict[str, Any]:
    data: dict[str, Any] = {}
    data["itself"] = data
    return data


class Refusing(type(feature("a"))):  # type: ignore[misc]
    def __setattr__(self, name: str, value: Any) -> None:
        if name.startswith("_"):
            raise PermissionError(name)
        super().__setattr__(name, value)


POOL = {"a": UsefulSignal(MATRIX)}
RESULT = EvaluationResult(MATRIX, {})


@pytest.mark.parametrize(
    ("call", "kind"),
    [
        (lambda: EvaluationContext((MATRIX,), None), AttributeError),  # type: ignore[arg-type]
        (lambda: FunctionState("f", {"a": MATRIX}).to_bytes(), TypeError),
        (lambda: FunctionState("f", endless()).to_bytes(), ValueError),
        (lambda: FunctionState.from_bytes(b"\xff"), UnicodeDecodeError),
        (lambda: FunctionState.from_bytes(b"{"), json.JSONDecodeError),
        (lambda: FunctionState.from_bytes(b"{}"), KeyError),
        (lambda: FunctionState.from_bytes(b"[]"), TypeError),
        (lambda: FunctionState.from_bytes("{}"), AttributeError),  # type: ignore[arg-type]
        (lambda: extract_filtration_weights(POOL, ["a"], 3), IndexError),
        (lambda: extract_filtration_weights(POOL, ["b"], 0), KeyError),
        (lambda: extract_filtration_weights(POOL, ["a"], 1 << 40), OverflowError),
        (lambda: extract_filtration_weights(None, ["a"], 0), TypeError),
        (lambda: generate_node_identities(deep()), RecursionError),
        (lambda: invalidate_graph_evaluation_caches(deep()), RecursionError),
        (lambda: invalidate_graph_evaluation_caches(Refusing("rotation", "f")), PermissionError),
        (lambda: RESULT[2], IndexError),
        (lambda: RESULT["weights"], TypeError),  # type: ignore[call-overload]
        (lambda: RESULT.no_such_name, AttributeError),
    ],
)
def test_what_is_said_to_raise_raises(call: Callable[[], Any], kind: type[Exception]) -> None:
    with pytest.raises(kind) as caught:
        call()
    assert caught.type is kind
