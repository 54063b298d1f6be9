"""A filtration is resolved once a run."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import pytest
from quernbrook.functions.filtrations_evaluation import (
    EmptyFiltrationError,
    EmptyPoolError,
    FilterNode,
    FiltrationResult,
)
from quernbrook.simulator_engine._types import (
    EvaluationError,
    FiltrationResolutionError,
    UsefulSignal,
)
from support.functions import raising
from support.graphs import filtration, node, number, reduction, rotation, string
from support.pools import make_pool, replace_filters
from support.reductions import reduction_context, run_reductions, stateful
from support.runs import counting_matrix, fails, make_context, same_bits

MOMENTUM = node("gt", "gt", [string("momentum"), number(0.5)])
TREE = filtration("filtration", MOMENTUM)
DESCRIBED = "filtration(gt(momentum, 0.5))"
EMPTY = f"Filtration returned 0 signals for filters: {DESCRIBED}"


def run(evaluator, graph: Any = None, **options: Any) -> Any:
    """The context of a run of "f" over what passes."""
    graph = reduction("f", TREE) if graph is None else graph
    return run_reductions(evaluator, graph, {"f": stateful()}, **options)[0]


# --- once a run ----------------------------------------------------------------------------------


@pytest.mark.parametrize("bound", [True, False])
def test_built_and_called_once(evaluator, monkeypatch, bound):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    instance = stateful()
    options = {"root": instance} if bound else None
    pool = make_pool()
    context = reduction_context(evaluator, {"f": instance}, pool=pool)
    for runs in (1, 2):
        evaluator.evaluate(reduction("f", TREE), context, bound_function_instances=options)
        assert len(filters.builds) == len(filters.calls) == runs
    for args, keywords in filters.builds:
        tree, registry = args
        assert tree == FilterNode(
            "filtration", {}, [FilterNode("gt", {"field": "momentum", "value": 0.5}, [])]
        )
        assert type(tree) is FilterNode
        assert registry is context.registry
        assert keywords == {}
    for args, keywords in filters.calls:
        assert len(args) == 1 and args[0] is pool
        assert keywords == {}
    assert len(instance.calls) == 8


def test_without_a_registry(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    context = make_context(evaluator, {"a": counting_matrix(1)}, useful_signals=make_pool(rows=1))
    evaluator.evaluate(TREE, context)
    assert filters.builds[0][0][1] is None


def test_one_node_at_two_paths_is_resolved_for_each(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    run(evaluator, reduction("f", TREE, reduction("f", TREE)))
    assert len(filters.builds) == len(filters.calls) == 2


@pytest.mark.parametrize("parent", [lambda child: child, lambda child: rotation("g", child)])
def test_without_a_reduction(evaluator, monkeypatch, parent):
    filters = replace_filters(monkeypatch, evaluator, filtration=["c", "a"])
    graph = parent(TREE)
    context, result = run_reductions(evaluator, graph, {"g": stateful(1.0)})
    assert len(filters.calls) == 1
    assert result.weights.tolist() == [[float(graph is not TREE)] * 3] * 4
    same_bits(context.registers[-1 if graph is TREE else -2], [0.0, 0.0, 0.0])
    assert context.extraction_buffer[:, 0].tolist() == [330.0, 130.0]


def test_below_a_filtration(evaluator, monkeypatch):
    """A node of kind "filtration" below another is resolved for itself, too."""
    filters = replace_filters(monkeypatch, evaluator, filtration=["a"], inner=["b", "c"])
    context = run(evaluator, filtration("filtration", filtration("inner")))
    assert [args[0].function_name for args, _ in filters.builds] == ["inner", "filtration"]
    assert context.extraction_buffer.shape == (1, 3)


def test_not_before_the_first_row(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["a"])
    run(evaluator, rows=0)
    assert filters.builds == []


def test_a_precomputed_filtration_is_asked_for_by_its_reduction(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=["b"])
    tree = filtration("filtration", MOMENTUM, canonical_id="id")
    instance = stateful()
    context = reduction_context(evaluator, {"f": instance})
    context._precomputed_node_outputs = {"id": [0.0, 0.0, 0.0]}
    evaluator.evaluate(reduction("f", tree), context)
    assert len(filters.builds) == len(filters.calls) == 1
    # Nothing was extracted: one row of the zeros that the run began with.
    assert [call.values[0].tolist() for call in instance.calls] == [[[0.0, 0.0, 0.0]]] * 4


# --- the result ----------------------------------------------------------------------------------


def test_keywords_of_the_result(evaluator, monkeypatch):
    ids = ("c", "a")
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def build(*args: Any, **kwargs: Any) -> Any:
        calls.append((args, kwargs))
        return SimpleNamespace(passing_ids=["b"])

    replace_filters(monkeypatch, evaluator, filtration=ids)
    monkeypatch.setattr(evaluator, "FiltrationResult", build)
    context = run(evaluator)
    ((args, keywords),) = calls
    assert args == ()
    assert keywords == {
        "passing_ids": ids,
        "signal_count": 2,
        "total_pool_size": 3,
        "filter_diagnostics": [],
    }
    assert list(keywords) == [
        "passing_ids",
        "signal_count",
        "total_pool_size",
        "filter_diagnostics",
    ]
    assert keywords["passing_ids"] is ids
    # What the result says passes, not what the instance returned.
    assert context.extraction_buffer[:, 0].tolist() == [230.0]


def test_diagnostics_are_new_for_each_result(evaluator, monkeypatch):
    results: list[Any] = []

    def build(**keywords: Any) -> Any:
        results.append(FiltrationResult(**keywords))
        return results[-1]

    replace_filters(monkeypatch, evaluator, filtration=["b"])
    monkeypatch.setattr(evaluator, "FiltrationResult", build)
    run(evaluator, reduction("f", TREE, reduction("f", TREE)))
    one, other = results
    assert one.filter_diagnostics == other.filter_diagnostics == []
    assert one.filter_diagnostics is not other.filter_diagnostics


def test_the_sizes_are_taken_after_the_call(evaluator, monkeypatch):
    sizes: list[tuple[int, int]] = []

    def build(**keywords: Any) -> Any:
        sizes.append((keywords["signal_count"], keywords["total_pool_size"]))
        return FiltrationResult(**keywords)

    def passing(pool: Any) -> list[str]:
        del pool["c"]
        return ["a"]

    replace_filters(monkeypatch, evaluator, filtration=passing)
    monkeypatch.setattr(evaluator, "FiltrationResult", build)
    run(evaluator)
    assert sizes == [(1, 2)]


@pytest.mark.parametrize(
    "kind", [list, tuple, dict.fromkeys, lambda ids: dict.fromkeys(ids).keys()]
)
def test_kinds_of_passing_ids(evaluator, monkeypatch, kind):
    replace_filters(monkeypatch, evaluator, filtration=kind(["c", "a"]))
    assert run(evaluator).extraction_buffer[:, 0].tolist() == [330.0, 130.0]


def test_the_result_without_passing_ids(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, filtration=["b"])
    monkeypatch.setattr(evaluator, "FiltrationResult", lambda **_: SimpleNamespace())
    with fails(AttributeError, "'types.SimpleNamespace' object has no attribute 'passing_ids'"):
        run(evaluator)


# --- order, later runs, names --------------------------------------------------------------------


def test_the_filter_fails_before_the_reduction_over_it(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, filtration=raising(ValueError("filter")))
    instance = stateful(raising(ValueError("function")))
    with pytest.raises(FiltrationResolutionError):
        run_reductions(evaluator, reduction("f", TREE), {"f": instance})
    assert instance.calls == []


def test_a_filter_that_runs_the_context(evaluator, monkeypatch):
    """A run within the filter resolves for itself."""
    context = reduction_context(evaluator, {"f": stateful()})
    calls: list[int] = []

    def passing(pool: Any) -> list[str]:
        calls.append(len(pool))
        if len(calls) == 1:
            evaluator.evaluate(reduction("f", TREE), context)
            return ["b"]
        return ["a", "c"]

    replace_filters(monkeypatch, evaluator, filtration=passing)
    evaluator.evaluate(reduction("f", TREE), context)
    assert calls == [3, 3]
    assert context.extraction_buffer[:, 0].tolist() == [230.0]


def test_a_failing_run_leaves_nothing_behind(evaluator, monkeypatch):
    filters = replace_filters(monkeypatch, evaluator, filtration=raising(ValueError("once")))
    context = reduction_context(evaluator, {"f": stateful()})
    before = context.extraction_buffer
    with pytest.raises(FiltrationResolutionError):
        evaluator.evaluate(reduction("f", TREE), context)
    assert context.extraction_buffer is before
    assert context.current_day_index == 0
    filters.answers["filtration"] = ["b"]
    evaluator.evaluate(reduction("f", TREE), context)
    assert context.extraction_buffer[:, 0].tolist() == [230.0]


def test_with_the_filters_of_the_host(evaluator):
    pool = make_pool()
    for sid, momentum in zip("abc", (0.9, 0.1, 0.6), strict=True):
        pool[sid] = UsefulSignal(pool[sid].weights, fields={"momentum": momentum})
    assert run(evaluator, pool=pool).extraction_buffer[:, 0].tolist() == [130.0, 330.0]
    pool["a"].fields["momentum"] = pool["c"].fields["momentum"] = 0.0
    with pytest.raises(EvaluationError) as caught:
        run(evaluator, pool=pool)
    assert str(caught.value) == EMPTY
    assert type(caught.value.__cause__) is EmptyFiltrationError
    assert caught.value.filter_diagnostics["total_pool_size"] == 3
    with pytest.raises(EvaluationError) as caught:
        run(evaluator, pool={})
    assert type(caught.value.__cause__) is EmptyPoolError
