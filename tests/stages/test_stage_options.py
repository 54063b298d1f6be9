"""The option of a transform stage: its own entry, then its pool's, then its default."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import pytest
from quernbrook.simulator_engine._types import TransformStage
from support.functions import raising
from support.graphs import feature
from support.runs import counting_matrix, lets_through, make_context
from support.stages import replace_merge
from support.traps import Trap

STAGE = TransformStage("s", "default")


class Pool:
    """No dict, but has what is asked for: `get`, membership and subscription."""

    get = None

    def __init__(self, **options: Any) -> None:
        self.options = options

    def __contains__(self, name: object) -> bool:
        return name in self.options

    def __getitem__(self, name: str) -> Any:
        return self.options[name]


class Bare(Pool):
    """Lacks `get`."""

    get = property(raising(AttributeError("get")))


CASES: list[tuple[Any, Any, Any]] = [
    ({}, None, "default"),
    ({}, "p", "default"),
    ({"s": None}, None, None),
    ({"s": 0}, "p", 0),
    ({"s": 1, "p": {"s": 2}}, "p", 1),
    ({"p": {"s": 2}}, "p", 2),
    ({"p": {"s": None}}, "p", None),
    ({"p": {"s": 2}}, None, "default"),
    ({"p": {"s": 2}}, "q", "default"),
    ({"p": {"other": 2}}, "p", "default"),
    ({"p": {}}, "p", "default"),
    ({"p": None}, "p", "default"),
    ({"p": "x"}, "p", "default"),
    ({"p": "s"}, "p", "default"),
    ({"p": ["s"]}, "p", "default"),
    ({"p": {"s"}}, "p", "default"),
    ({"p": Pool(s=3)}, "p", 3),
    ({"p": Pool(t=3)}, "p", "default"),
    ({"p": Bare(s=3)}, "p", "default"),
    ({None: {"s": 2}}, None, "default"),
    ({0: {"s": 2}}, 0, 2),
    ({"": {"s": 2}}, "", 2),
    # A pool that bears the stage's name is that stage's entry.
    ({"s": {"s": 2}}, "s", {"s": 2}),
    (Pool(s=4), None, 4),
    (Pool(p=Pool(s=5)), "p", 5),
    ("is there", None, TypeError),
    (["q"], "p", "default"),
    (None, None, TypeError),
    (None, "p", TypeError),
    ({"p": {"s": 2}}, ["p"], TypeError),
]


@pytest.mark.parametrize(("metaparameters", "pool_id", "option"), CASES)
def test_precedence(evaluator: ModuleType, metaparameters: Any, pool_id: Any, option: Any) -> None:
    context = SimpleNamespace(metaparameters=metaparameters, pool_id=pool_id)
    if option is TypeError:
        with pytest.raises(TypeError):
            evaluator._resolve_stage_option(context, STAGE)
    else:
        assert evaluator._resolve_stage_option(context, STAGE) == option


@pytest.mark.parametrize(
    ("metaparameters", "context_reads", "stage_reads"),
    [
        ({"s": 1}, ["metaparameters"], ["name"]),
        ({"p": {"s": 1}}, ["metaparameters", "pool_id"], ["name"]),
        ({}, ["metaparameters", "pool_id"], ["name", "default"]),
    ],
)
def test_nothing_is_read_before_it_is_needed(
    evaluator: ModuleType, metaparameters: Any, context_reads: Any, stage_reads: Any
) -> None:
    context = Trap(metaparameters=metaparameters, pool_id="p")
    stage = Trap(name="s", default=7)
    evaluator._resolve_stage_option(context, stage)
    assert (context.reads, stage.reads) == (context_reads, stage_reads)


def test_the_very_object_is_returned(evaluator: ModuleType) -> None:
    option = object()
    for metaparameters in ({"s": option}, {"p": {"s": option}}):
        context = SimpleNamespace(metaparameters=metaparameters, pool_id="p")
        assert evaluator._resolve_stage_option(context, STAGE) is option
    stage = TransformStage("s", option)  # type: ignore[arg-type]
    assert evaluator._resolve_stage_option(SimpleNamespace(metaparameters={}), stage) is option


def test_a_context_without_a_pool(evaluator: ModuleType) -> None:
    context = SimpleNamespace(metaparameters={"p": {"s": 2}})
    assert evaluator._resolve_stage_option(context, STAGE) == "default"
    context = make_context(evaluator, {"x": counting_matrix(1)}, metaparameters={"p": {"s": 2}})
    assert evaluator._resolve_stage_option(context, STAGE) == "default"
    context.pool_id = "p"
    assert evaluator._resolve_stage_option(context, STAGE) == 2


@pytest.mark.parametrize("missing", ["name", "default"])
def test_a_stage_that_lacks_an_attribute(evaluator: ModuleType, missing: str) -> None:
    stage = SimpleNamespace(name="s", default=None)
    delattr(stage, missing)
    with pytest.raises(AttributeError, match=missing):
        evaluator._resolve_stage_option(SimpleNamespace(metaparameters={}), stage)


def test_failures_pass(evaluator: ModuleType) -> None:
    fault = LookupError("fault")
    failing = raising(fault)
    contexts = [
        Trap(metaparameters=fault),
        Trap(metaparameters={}, pool_id=fault),
        Trap(metaparameters=type("Map", (), {"__contains__": failing})(), pool_id=None),
        Trap(metaparameters=type("Map", (dict,), {"__getitem__": failing})(s=1)),
        Trap(metaparameters={"p": Trap(get=fault)}, pool_id="p"),
        Trap(metaparameters={"p": type("P", (Pool,), {"__contains__": failing})()}, pool_id="p"),
    ]
    for context in contexts:
        with lets_through(fault):
            evaluator._resolve_stage_option(context, STAGE)


def test_no_run_asks_for_an_option(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    """It is there for the stages of the host."""
    monkeypatch.setattr(evaluator, "_resolve_stage_option", raising(AssertionError()))
    merge = replace_merge(monkeypatch, evaluator, lambda signal: signal)
    context = make_context(
        evaluator,
        {"x": counting_matrix(1)},
        transform_pipeline=[STAGE],
        metaparameters={"s": "option"},
    )
    evaluator.evaluate(feature("x"), context)
    assert len(merge.calls) == 1
